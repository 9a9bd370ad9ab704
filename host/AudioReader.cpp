#include "AudioReader.h"

#include <stdexcept>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// What libsndfile's float reading gives for 16-bit samples: s / 32768, exact.
void ShortsToFloats(const short* s, long n, float* out) {
    constexpr float kScale = 1.0f / 32768.0f;
    long i = 0;
#if defined(__SSE2__)
    const __m128 scale = _mm_set1_ps(kScale);
    for (; i + 8 <= n; i += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
        const __m128i lo = _mm_srai_epi32(_mm_unpacklo_epi16(v, v), 16);
        const __m128i hi = _mm_srai_epi32(_mm_unpackhi_epi16(v, v), 16);
        _mm_storeu_ps(out + i, _mm_mul_ps(_mm_cvtepi32_ps(lo), scale));
        _mm_storeu_ps(out + i + 4, _mm_mul_ps(_mm_cvtepi32_ps(hi), scale));
    }
#endif
    for (; i < n; ++i)
        out[i] = static_cast<float>(s[i]) * kScale;
}

bool IsWav16(int format) {
    const int container = format & SF_FORMAT_TYPEMASK;
    return (container == SF_FORMAT_WAV || container == SF_FORMAT_WAVEX) &&
           (format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16;
}

} // namespace

AudioReader::AudioReader(const std::string& path) : m_path(path) {
    m_file = sf_open(path.c_str(), SFM_READ, &m_info);
    if (!m_file)
        throw std::runtime_error("cannot read " + path + ": " + sf_strerror(nullptr));
    m_wav16 = IsWav16(m_info.format);
}

AudioReader::~AudioReader() {
    if (m_file)
        sf_close(m_file);
}

sf_count_t AudioReader::Read(float* interleaved, sf_count_t frames) {
    if (!m_wav16 || frames <= 0)
        return sf_readf_float(m_file, interleaved, frames);
    // The library's own conversion is a plain loop; this is the same, vectorised.
    const size_t samples = static_cast<size_t>(frames) * m_info.channels;
    if (m_shorts.size() < samples)
        m_shorts.resize(samples);
    const sf_count_t got = sf_readf_short(m_file, m_shorts.data(), frames);
    if (got > 0)
        ShortsToFloats(m_shorts.data(), static_cast<long>(got) * m_info.channels, interleaved);
    return got;
}
