#include "BigEndian.h"

bool getDWordFile(CFile& file, uint32_t* value) {
    uint8_t b[4];
    if (file.Read(b, 4) != 4)
        return false;
    *value = (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
    return true;
}

bool getWordFile(CFile& file, uint16_t* value) {
    uint8_t b[2];
    if (file.Read(b, 2) != 2)
        return false;
    *value = static_cast<uint16_t>((b[0] << 8) | b[1]);
    return true;
}

bool putDWordFile(CFile& file, uint32_t value) {
    const uint8_t b[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                          static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    return file.Write(b, 4);
}
