#include "AudioWriter.h"

#include <fcntl.h>

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "AudioLibraries.h"
#include "AudioReader.h"

namespace {

const AudioLibraries::SndfileTable& Sf() {
    return AudioLibraries::Sndfile();
}

// What libsndfile's clipping float-to-16-bit conversion for WAV gives: the sample scaled to
// 32 bits, rounded to nearest-even, and the top 16 bits kept; at or beyond 2^31 the largest
// value, at or below -2^31 the smallest; NaN becomes the smallest too (checked against the
// library for every float).
short FloatToShort(float x) {
    const float s = x * 2147483648.0f;
    if (s >= 2147483648.0f)
        return 32767;
    if (!(s > -2147483648.0f)) // also NaN
        return -32768;
    return static_cast<short>(static_cast<int32_t>(std::lrintf(s)) >> 16);
}

void FloatsToShorts(const float* x, long n, short* out) {
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
        out[i] = FloatToShort(x[i]);
}

} // namespace

AudioWriter::AudioWriter(const std::string& target, int format, int channels, int sampleRate,
                         bool durable)
    : m_target(target), m_durable(durable) {
    SF_INFO info{};
    info.format = format;
    info.channels = channels;
    info.samplerate = sampleRate;
    if (!Sf().sf_format_check(&info))
        throw std::runtime_error("cannot write " + target +
                                 ": the format cannot hold this audio (try another --format)");
    if (!(target == "-" ? m_replace.OpenSpool() : m_replace.Open(target)))
        throw std::runtime_error((target == "-" ? std::string("cannot write to standard output: ")
                                                : "cannot write " + target + ": ") +
                                 AudioReader::Clause(std::strerror(errno)));
    m_file = Sf().sf_open_fd(m_replace.Descriptor(), SFM_WRITE, &info, SF_FALSE);
    if (!m_file) {
        Discard();
        throw std::runtime_error("cannot write " + target + ": " +
                                 AudioReader::Clause(Sf().sf_strerror(nullptr)));
    }
    // Integer formats clip rather than wrap what lies beyond full scale.
    Sf().sf_command(m_file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    m_channels = channels;
    const int container = format & SF_FORMAT_TYPEMASK;
    m_wav16 = (container == SF_FORMAT_WAV || container == SF_FORMAT_WAVEX) &&
              (format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16;
}

AudioWriter::~AudioWriter() {
    Discard();
}

void AudioWriter::Discard() {
    if (m_file) {
        Sf().sf_close(m_file);
        m_file = nullptr;
    }
    m_replace.Discard();
}

void AudioWriter::Write(const float* interleaved, sf_count_t frames) {
    if (frames <= 0)
        return;
    CReplaceFile::StopAt("write", ++m_writes);
    sf_count_t written;
    if (m_wav16) { // the library's conversion is a plain loop; this is the same, vectorised
        const size_t samples = static_cast<size_t>(frames) * m_channels;
        if (m_shorts.size() < samples)
            m_shorts.resize(samples);
        FloatsToShorts(interleaved, static_cast<long>(samples), m_shorts.data());
        written = Sf().sf_writef_short(m_file, m_shorts.data(), frames);
    } else {
        written = Sf().sf_writef_float(m_file, interleaved, frames);
    }
    if (written != frames)
        throw std::runtime_error("cannot write " + m_target + ": " +
                                 AudioReader::Clause(Sf().sf_strerror(m_file)));
}

void AudioWriter::Commit() {
    const int closed = Sf().sf_close(m_file);
    m_file = nullptr;
    if (closed != 0)
        throw std::runtime_error("cannot write " + m_target + ": " +
                                 AudioReader::Clause(Sf().sf_error_number(closed)));
    if (m_target == "-") {
        CopyToStandardOutput();
        Discard();
        return;
    }
    if (!m_replace.Commit(m_durable))
        throw std::runtime_error("cannot write " + m_target +
                                 ": the file could not be put in place (" +
                                 AudioReader::Clause(std::strerror(errno)) + ")");
}

void AudioWriter::SetTags(const std::map<int, std::string>& tags) {
    for (const auto& [id, text] : tags)
        Sf().sf_set_string(m_file, id, text.c_str()); // a container without room for it says no
}

void AudioWriter::CopyToStandardOutput() {
    const int in = m_replace.Descriptor();
    if (lseek(in, 0, SEEK_SET) != 0)
        throw std::runtime_error("cannot write to standard output: " +
                                 std::string(std::strerror(errno)));
    std::vector<char> buf(1 << 16);
    for (;;) {
        const ssize_t n = read(in, buf.data(), buf.size());
        if (n == 0)
            break;
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw std::runtime_error("cannot write to standard output");
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = write(1, buf.data() + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                throw std::runtime_error("cannot write to standard output: " +
                                         std::string(std::strerror(errno)));
            done += w;
        }
    }
}
