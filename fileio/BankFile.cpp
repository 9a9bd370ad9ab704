#include "BankFile.h"

#include "BigEndian.h"

namespace {

constexpr uint32_t Code(const char (&c)[5]) {
    return (uint32_t(uint8_t(c[0])) << 24) | (uint32_t(uint8_t(c[1])) << 16) |
           (uint32_t(uint8_t(c[2])) << 8) | uint32_t(uint8_t(c[3]));
}

} // namespace

bool WriteChunkBank(CFile& file, uint32_t uniqueId, uint32_t numPrograms, const void* chunk,
                    uint32_t chunkSize) {
    const uint8_t reserved[128] = {};
    return putDWordFile(file, Code("CcnK")) && putDWordFile(file, 0) &&
           putDWordFile(file, Code("FBCh")) && putDWordFile(file, 1) &&
           putDWordFile(file, uniqueId) && putDWordFile(file, 1) &&
           putDWordFile(file, numPrograms) && file.Write(reserved, sizeof(reserved)) &&
           putDWordFile(file, chunkSize) && file.Write(chunk, chunkSize);
}
