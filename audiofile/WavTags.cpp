#include "WavTags.h"

#include <sndfile.h>

#include <cstdint>
#include <cstring>

namespace {

struct Id {
    int tag;
    char id[5];
};
constexpr Id kIds[] = {
    {SF_STR_TITLE, "INAM"},  {SF_STR_COPYRIGHT, "ICOP"},   {SF_STR_SOFTWARE, "ISFT"},
    {SF_STR_ARTIST, "IART"}, {SF_STR_COMMENT, "ICMT"},     {SF_STR_DATE, "ICRD"},
    {SF_STR_ALBUM, "IPRD"},  {SF_STR_TRACKNUMBER, "ITRK"}, {SF_STR_GENRE, "IGNR"},
};

uint32_t Le32(const unsigned char* p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void Put32(std::vector<unsigned char>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

} // namespace

void WavTags::Parse(const std::vector<unsigned char>& body, std::map<int, std::string>& tags) {
    if (body.size() < 4 || std::memcmp(body.data(), "INFO", 4) != 0)
        return;
    for (size_t at = 4; at + 8 <= body.size();) {
        const unsigned char* h = body.data() + at;
        const uint32_t n = Le32(h + 4);
        if (n > body.size() - at - 8)
            break;
        for (const Id& id : kIds)
            if (std::memcmp(h, id.id, 4) == 0) {
                std::string text(reinterpret_cast<const char*>(h + 8), n);
                text.resize(std::strlen(text.c_str())); // to its terminator
                if (!text.empty())
                    tags[id.tag] = text;
            }
        at += 8 + n + (n & 1);
    }
}

std::vector<unsigned char> WavTags::Build(const std::map<int, std::string>& tags) {
    std::vector<unsigned char> out;
    for (const Id& id : kIds) {
        const auto t = tags.find(id.tag);
        if (t == tags.end() || t->second.empty())
            continue;
        const std::string& text = t->second;
        // with its terminator, padded to an even length that the entry's size counts
        const size_t n = (text.size() + 2) & ~size_t{1};
        if (n > 0xFFFF)
            continue;
        out.insert(out.end(), id.id, id.id + 4);
        Put32(out, static_cast<uint32_t>(n));
        out.insert(out.end(), text.begin(), text.end());
        out.resize(out.size() + n - text.size(), 0);
    }
    if (out.empty())
        return out;
    std::vector<unsigned char> chunk{'L', 'I', 'S', 'T'};
    Put32(chunk, static_cast<uint32_t>(out.size() + 4));
    chunk.insert(chunk.end(), {'I', 'N', 'F', 'O'});
    chunk.insert(chunk.end(), out.begin(), out.end());
    return chunk;
}
