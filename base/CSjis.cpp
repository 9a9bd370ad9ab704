#include "CSjis.h"

#include <iconv.h>

#include <cstring>
#include <string>

namespace {

// One conversion, restarted after each character it cannot take.
std::string Convert(const char* to, const char* from, const char* text, const char* replacement) {
    std::string out;
    if (!text)
        return out;
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1))
        return text;
    char* in = const_cast<char*>(text);
    size_t left = std::strlen(text);
    char buffer[256];
    while (left > 0) {
        char* o = buffer;
        size_t room = sizeof(buffer);
        const size_t r = iconv(cd, &in, &left, &o, &room);
        out.append(buffer, static_cast<size_t>(o - buffer));
        if (r == static_cast<size_t>(-1) && errno != E2BIG) {
            out += replacement;
            // skip the offending character: one byte, or a whole UTF-8 sequence
            size_t skip = 1;
            if (std::strcmp(from, "UTF-8") == 0)
                while (skip < left && (static_cast<unsigned char>(in[skip]) & 0xC0) == 0x80)
                    ++skip;
            else if (IsDBCSLeadByte(static_cast<unsigned char>(*in)) && left > 1)
                skip = 2;
            in += skip;
            left -= skip;
            iconv(cd, nullptr, nullptr, nullptr, nullptr);
        }
    }
    iconv_close(cd);
    return out;
}

} // namespace

bool IsDBCSLeadByte(unsigned char b) {
    return (b >= 0x81 && b <= 0x9F) || (b >= 0xE0 && b <= 0xFC);
}

CString CheckSJISAndToUFT8(const char* sjis) {
    return CString(Convert("UTF-8", "CP932", sjis, "\xEF\xBF\xBD").c_str());
}

int UTF8ToSJSINS(const char* utf8, char* out, int size) {
    if (!out || size <= 0)
        return 0;
    const std::string s = Convert("CP932", "UTF-8", utf8, "?");
    // cut at a whole character
    size_t n = 0;
    while (n < s.size()) {
        const size_t step = IsDBCSLeadByte(static_cast<unsigned char>(s[n])) ? 2 : 1;
        if (n + step > static_cast<size_t>(size - 1))
            break;
        n += step;
    }
    std::memcpy(out, s.data(), n);
    out[n] = 0;
    return static_cast<int>(n);
}
