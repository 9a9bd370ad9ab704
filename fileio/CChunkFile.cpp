#include "CChunkFile.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

using FilePtr = std::unique_ptr<FILE, int (*)(FILE*)>;

uint32_t Le32(const unsigned char* p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}
uint32_t Be32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3];
}
uint64_t Le64(const unsigned char* p) {
    return Le32(p) | static_cast<uint64_t>(Le32(p + 4)) << 32;
}

} // namespace

bool CChunkFile::Open(const std::string& path) {
    m_path = path;
    m_chunks.clear();
    m_form.clear();
    FilePtr f(std::fopen(path.c_str(), "rb"), std::fclose);
    if (!f)
        return false;
    unsigned char head[12];
    if (std::fread(head, 1, 12, f.get()) != 12)
        return false;
    const std::string magic(reinterpret_cast<char*>(head), 4);
    if (magic == "RIFF" || magic == "RF64" || magic == "BW64")
        m_bigEndian = false;
    else if (magic == "FORM")
        m_bigEndian = true;
    else
        return false;
    m_form.assign(reinterpret_cast<char*>(head + 8), 4);
    if (std::fseek(f.get(), 0, SEEK_END) != 0)
        return false;
    const long end = std::ftell(f.get());
    if (end < 12)
        return false;
    const uint64_t fileSize = static_cast<uint64_t>(end);

    uint64_t rf64Data = 0; // RF64 keeps the data length in its ds64 chunk
    uint64_t at = 12;
    while (at + 8 <= fileSize && m_chunks.size() < 4096) {
        unsigned char h[8];
        if (std::fseek(f.get(), static_cast<long>(at), SEEK_SET) != 0 ||
            std::fread(h, 1, 8, f.get()) != 8)
            break;
        Chunk c;
        c.id.assign(reinterpret_cast<char*>(h), 4);
        c.offset = at + 8;
        c.declared = m_bigEndian ? Be32(h + 4) : Le32(h + 4);
        if (c.id == "ds64") {
            unsigned char ds[28];
            if (std::fread(ds, 1, sizeof(ds), f.get()) == sizeof(ds))
                rf64Data = Le64(ds + 8);
        }
        if (c.id == "data" && c.declared == 0xFFFFFFFFu && rf64Data)
            c.declared = rf64Data;
        c.available = std::min(c.declared, fileSize - c.offset);
        m_chunks.push_back(c);
        at = c.offset + c.declared + (c.declared & 1); // bodies are padded to even lengths
    }
    return !m_chunks.empty();
}

const CChunkFile::Chunk* CChunkFile::Find(const char* id) const {
    for (const Chunk& c : m_chunks)
        if (c.id == id)
            return &c;
    return nullptr;
}

std::vector<unsigned char> CChunkFile::Body(const Chunk& c, size_t n) const {
    std::vector<unsigned char> body(std::min<uint64_t>(n, c.available));
    FilePtr f(std::fopen(m_path.c_str(), "rb"), std::fclose);
    if (!f || std::fseek(f.get(), static_cast<long>(c.offset), SEEK_SET) != 0)
        return {};
    body.resize(std::fread(body.data(), 1, body.size(), f.get()));
    return body;
}

uint64_t CChunkFile::FrameBytes() const {
    if (const Chunk* fmt = Find("fmt "); fmt && !m_bigEndian) {
        const auto b = Body(*fmt, 16);
        return b.size() >= 14 ? (b[12] | b[13] << 8) : 0; // block align
    }
    if (const Chunk* comm = Find("COMM"); comm && m_bigEndian) {
        const auto b = Body(*comm, 8);
        return b.size() >= 8 ? (b[0] << 8 | b[1]) * ((b[6] << 8 | b[7]) + 7) / 8 : 0;
    }
    return 0;
}

uint64_t CChunkFile::DeclaredFrames() const {
    if (m_bigEndian) {
        const Chunk* comm = Find("COMM");
        const auto b = comm ? Body(*comm, 6) : std::vector<unsigned char>{};
        return b.size() >= 6 ? Be32(b.data() + 2) : 0;
    }
    const Chunk* data = Find("data");
    const uint64_t bytes = FrameBytes();
    return data && bytes ? data->declared / bytes : 0;
}

uint64_t CChunkFile::AvailableFrames() const {
    const Chunk* data = Find(m_bigEndian ? "SSND" : "data");
    const uint64_t bytes = FrameBytes();
    if (!data || !bytes)
        return 0;
    const uint64_t skip = m_bigEndian ? 8 : 0; // SSND's offset and block size
    return data->available > skip ? (data->available - skip) / bytes : 0;
}
