#include "WavWriter.h"

#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include "WavTags.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// What libsndfile's clipping float-to-integer conversion for WAV gives: the sample scaled to
// 32 bits and rounded to nearest-even, of which the top bits are kept; at or beyond 2^31 the
// largest value, at or below -2^31 the smallest; NaN becomes the smallest too.
int32_t ToInt32(float x) {
    const float s = x * 2147483648.0f;
    if (s >= 2147483648.0f)
        return INT32_MAX;
    if (!(s > -2147483648.0f)) // also NaN
        return INT32_MIN;
    return static_cast<int32_t>(std::lrintf(s));
}

void Put16(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}
void Put32(unsigned char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

void ToShorts(const float* x, long n, short* out) {
    long i = 0;
#if defined(__SSE2__)
    // cvtps2dq rounds to nearest-even as lrintf does, and gives 0x80000000 for NaN and for
    // anything beyond 32 bits: right for the bottom, replaced at the top.
    const __m128 scale = _mm_set1_ps(2147483648.0f);
    const __m128i top = _mm_set1_epi32(0x7FFFFFFF);
    for (; i + 8 <= n; i += 8) {
        __m128i half[2];
        for (int h = 0; h < 2; ++h) {
            const __m128 s = _mm_mul_ps(_mm_loadu_ps(x + i + 4 * h), scale);
            const __m128i over = _mm_castps_si128(_mm_cmpge_ps(s, scale));
            const __m128i v = _mm_cvtps_epi32(s);
            half[h] = _mm_srai_epi32(
                _mm_or_si128(_mm_andnot_si128(over, v), _mm_and_si128(over, top)), 16);
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm_packs_epi32(half[0], half[1]));
    }
#endif
    for (; i < n; ++i)
        out[i] = static_cast<short>(ToInt32(x[i]) >> 16);
}

constexpr size_t kBufferBytes = 1 << 14; // a few pages, warm from the first write on
// The largest data chunk whose file still has 32-bit lengths, a whole number of frames of any
// width up to 32 channels of 32 bits.
constexpr uint64_t kMostData = 0xFFFFFFFFull - (1 << 20);

} // namespace

bool WavWriter::Writes(int format) {
    if ((format & SF_FORMAT_TYPEMASK) != SF_FORMAT_WAV || (format & SF_FORMAT_ENDMASK) != 0)
        return false;
    const int sub = format & SF_FORMAT_SUBMASK;
    return sub == SF_FORMAT_PCM_16 || sub == SF_FORMAT_PCM_24 || sub == SF_FORMAT_PCM_32 ||
           sub == SF_FORMAT_FLOAT;
}

WavWriter::WavWriter(int fd, int format, int channels, int rate)
    : m_fd(fd), m_format(format & SF_FORMAT_SUBMASK), m_channels(channels), m_rate(rate),
      m_bytes(m_format == SF_FORMAT_PCM_16   ? 2
              : m_format == SF_FORMAT_PCM_24 ? 3
                                             : 4) {}

std::vector<unsigned char> WavWriter::Header(uint32_t dataBytes) const {
    // Float takes the extended fmt (its extra length, 0, said) and the frames in a fact chunk,
    // as a format other than PCM should.
    const bool floats = m_format == SF_FORMAT_FLOAT;
    const uint32_t fmtBytes = floats ? 18 : 16;
    std::vector<unsigned char> h(20 + fmtBytes + (floats ? 12 : 0) + 8);
    unsigned char* p = h.data();
    std::memcpy(p, "RIFF\0\0\0\0WAVEfmt ", 16);
    Put32(p + 16, fmtBytes);
    Put16(p + 20, floats ? 3 : 1);
    Put16(p + 22, static_cast<uint32_t>(m_channels));
    Put32(p + 24, static_cast<uint32_t>(m_rate));
    Put32(p + 28, static_cast<uint32_t>(m_rate * m_channels * m_bytes));
    Put16(p + 32, static_cast<uint32_t>(m_channels * m_bytes));
    Put16(p + 34, static_cast<uint32_t>(8 * m_bytes));
    p += 20 + fmtBytes; // (the extra length of float's fmt stays 0)
    if (floats) {
        std::memcpy(p, "fact", 4);
        Put32(p + 4, 4);
        Put32(p + 8, dataBytes / static_cast<uint32_t>(m_channels * m_bytes));
        p += 12;
    }
    const std::vector<unsigned char> list = WavTags::Build(m_tags);
    const size_t at = static_cast<size_t>(p - h.data());
    h.insert(h.begin() + static_cast<long>(at), list.begin(), list.end());
    p = h.data() + at + list.size();
    std::memcpy(p, "data", 4);
    Put32(p + 4, dataBytes);
    Put32(h.data() + 4, static_cast<uint32_t>(h.size() - 8 + dataBytes));
    return h;
}

bool WavWriter::Put(const unsigned char* bytes, size_t n) {
    while (n > 0) {
        const ssize_t w = ::write(m_fd, bytes, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0) {
            if (w == 0)
                errno = ENOSPC;
            return false;
        }
        bytes += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

bool WavWriter::Flush() {
    const size_t n = std::exchange(m_held, 0);
    return Put(m_buffer.data(), n);
}

bool WavWriter::Write(const float* x, long frames) {
    if (!m_started) {
        const std::vector<unsigned char> h = Header(0);
        m_headerBytes = h.size();
        if (!Put(h.data(), h.size()))
            return false;
        m_started = true;
        m_buffer.resize(kBufferBytes);
    }
    if (frames <= 0)
        return true;
    const uint64_t bytes = static_cast<uint64_t>(frames) * m_channels * m_bytes;
    if (m_dataBytes + bytes > kMostData) {
        errno = EFBIG;
        return false;
    }
    m_dataBytes += bytes;
    long samples = frames * m_channels;
    const long room = static_cast<long>(kBufferBytes) / 4;
    while (samples > 0) {
        const long n = std::min(samples, room);
        if (m_held + static_cast<size_t>(n) * m_bytes > kBufferBytes && !Flush())
            return false;
        unsigned char* to = m_buffer.data() + m_held;
        if (m_format == SF_FORMAT_FLOAT) {
            std::memcpy(to, x, sizeof(float) * static_cast<size_t>(n));
        } else if (m_bytes == 2) {
            ToShorts(x, n, reinterpret_cast<short*>(to));
        } else {
            for (long i = 0; i < n; ++i, to += m_bytes) {
                const uint32_t v = static_cast<uint32_t>(ToInt32(x[i]));
                for (int b = 0; b < m_bytes; ++b) // the top bytes, lowest first
                    to[b] = static_cast<unsigned char>(v >> (8 * (4 - m_bytes + b)));
            }
        }
        m_held += static_cast<size_t>(n) * m_bytes;
        x += n;
        samples -= n;
    }
    return true;
}

bool WavWriter::Finish() {
    if (!m_started && !Write(nullptr, 0))
        return false;
    if (!Flush())
        return false;
    if (m_dataBytes & 1) { // a body of odd length is padded
        const unsigned char zero = 0;
        if (!Put(&zero, 1))
            return false;
    }
    std::vector<unsigned char> h = Header(static_cast<uint32_t>(m_dataBytes));
    if (h.size() != m_headerBytes) { // the texts changed after the first frames
        errno = EINVAL;
        return false;
    }
    if (m_dataBytes & 1)
        Put32(h.data() + 4, static_cast<uint32_t>(h.size() - 8 + m_dataBytes + 1));
    for (size_t done = 0; done < h.size();) {
        const ssize_t w =
            ::pwrite(m_fd, h.data() + done, h.size() - done, static_cast<off_t>(done));
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        done += static_cast<size_t>(w);
    }
    return true;
}
