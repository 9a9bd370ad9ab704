#include "WavReader.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "CChunkFile.h"
#include "WavTags.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

uint16_t Le16(const unsigned char* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}
uint32_t Le32(const unsigned char* p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

constexpr uint16_t kPcm = 1, kFloat = 3, kExtensible = 0xFFFE;

// The conversions libsndfile makes for float reading: an integer sample over the top of its
// range (2^15, 2^23 or 2^31), in single precision.
void FromShorts(const unsigned char* raw, long n, float* out) {
    constexpr float kScale = 1.0f / 32768.0f;
    long i = 0;
#if defined(__SSE2__)
    const __m128 scale = _mm_set1_ps(kScale);
    for (; i + 8 <= n; i += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(raw + 2 * i));
        const __m128i lo = _mm_srai_epi32(_mm_unpacklo_epi16(v, v), 16);
        const __m128i hi = _mm_srai_epi32(_mm_unpackhi_epi16(v, v), 16);
        _mm_storeu_ps(out + i, _mm_mul_ps(_mm_cvtepi32_ps(lo), scale));
        _mm_storeu_ps(out + i + 4, _mm_mul_ps(_mm_cvtepi32_ps(hi), scale));
    }
#endif
    for (; i < n; ++i)
        out[i] = static_cast<float>(static_cast<int16_t>(Le16(raw + 2 * i))) * kScale;
}

void FromInts(const unsigned char* raw, long n, int bytes, float* out) {
    constexpr float kScale = 1.0f / 2147483648.0f;
    for (long i = 0; i < n; ++i, raw += bytes) {
        uint32_t v = 0;
        for (int b = 0; b < bytes; ++b)
            v |= static_cast<uint32_t>(raw[b]) << (8 * (4 - bytes + b));
        out[i] = static_cast<float>(static_cast<int32_t>(v)) * kScale;
    }
}

} // namespace

std::unique_ptr<WavReader> WavReader::Open(const std::string& path) {
    CChunkFile chunks;
    if (!chunks.Open(path) || chunks.Form() != "WAVE" || chunks.Chunks().empty())
        return nullptr;
    const CChunkFile::Chunk* fmt = chunks.Find("fmt ");
    const CChunkFile::Chunk* data = chunks.Find("data");
    // RF64 and files whose data length was never filled in are libsndfile's to judge.
    if (!fmt || !data || data->declared == 0 || data->declared == 0xFFFFFFFFu)
        return nullptr;
    const std::vector<unsigned char> f = chunks.Body(*fmt, 40);
    if (f.size() < 16 || fmt->declared > 40)
        return nullptr;
    uint16_t tag = Le16(&f[0]);
    const int channels = Le16(&f[2]);
    const uint32_t rate = Le32(&f[4]);
    const int align = Le16(&f[12]), bits = Le16(&f[14]);
    const bool extensible = tag == kExtensible;
    if (extensible) {
        // valid bits as the container's, and a sub-format GUID of PCM or float
        static const unsigned char kGuidTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                                    0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
        if (f.size() < 40 || Le16(&f[16]) < 22 || Le16(&f[18]) != bits ||
            std::memcmp(&f[26], kGuidTail, sizeof kGuidTail) != 0)
            return nullptr;
        tag = Le16(&f[24]);
    }
    const int bytes = bits / 8;
    const bool ints = tag == kPcm && (bits == 16 || bits == 24 || bits == 32);
    const bool floats = tag == kFloat && bits == 32;
    if (!(ints || floats) || channels < 1 || channels > 1024 || rate < 1 || rate > 0x7FFFFFFF ||
        align != channels * bytes)
        return nullptr;

    std::unique_ptr<WavReader> r(new WavReader);
    r->m_file = std::fopen(path.c_str(), "rb");
    if (!r->m_file)
        return nullptr;
    // A host reads a few kilobytes a call: a long file then costs one system call per call, where
    // a 64 KiB buffer takes sixteen calls' worth at once (a short one keeps the small default,
    // whose one page is all it touches).
    constexpr unsigned long kLong = 1 << 20;
    constexpr size_t kBuffer = 1 << 16;
    if (data->available > kLong) {
        r->m_buffer = std::make_unique<char[]>(kBuffer);
        std::setvbuf(r->m_file, r->m_buffer.get(), _IOFBF, kBuffer);
    }
    if (std::fseek(r->m_file, static_cast<long>(data->offset), SEEK_SET) != 0)
        return nullptr;
    r->m_path = path;
    r->m_data = static_cast<long>(data->offset);
    r->m_bytes = bytes;
    r->m_float = floats;
    r->m_declared = static_cast<sf_count_t>(data->declared / align);
    SF_INFO& info = r->m_info;
    info.frames = static_cast<sf_count_t>(data->available / align);
    info.samplerate = static_cast<int>(rate);
    info.channels = channels;
    info.format =
        (extensible ? SF_FORMAT_WAVEX : SF_FORMAT_WAV) | (floats       ? SF_FORMAT_FLOAT
                                                          : bits == 16 ? SF_FORMAT_PCM_16
                                                          : bits == 24 ? SF_FORMAT_PCM_24
                                                                       : SF_FORMAT_PCM_32);
    info.sections = 1;
    info.seekable = 1;
    for (const CChunkFile::Chunk& c : chunks.Chunks())
        if (c.id == "LIST")
            WavTags::Parse(chunks.Body(c, 1 << 16), r->m_tags);
    return r;
}

WavReader::~WavReader() {
    if (m_file)
        std::fclose(m_file);
}

sf_count_t WavReader::Read(float* interleaved, sf_count_t frames) {
    frames = std::clamp<sf_count_t>(frames, 0, m_info.frames - m_next);
    if (frames == 0)
        return 0;
    const size_t samples = static_cast<size_t>(frames) * m_info.channels;
    const size_t want = samples * m_bytes;
    unsigned char* raw;
    if (m_float) { // read in place: the floats are the file's own
        raw = reinterpret_cast<unsigned char*>(interleaved);
    } else {
        if (m_raw.size() < want)
            m_raw.resize(want);
        raw = m_raw.data();
    }
    const size_t got = std::fread(raw, 1, want, m_file);
    if (got != want && std::ferror(m_file))
        throw std::runtime_error("cannot read " + m_path + ": " + std::strerror(errno));
    const sf_count_t whole = static_cast<sf_count_t>(got / (m_bytes * m_info.channels));
    const long n = static_cast<long>(whole * m_info.channels);
    if (m_bytes == 2)
        FromShorts(raw, n, interleaved);
    else if (!m_float)
        FromInts(raw, n, m_bytes, interleaved);
    m_next += whole;
    return whole;
}

bool WavReader::Seek(sf_count_t frame) {
    frame = std::clamp<sf_count_t>(frame, 0, m_info.frames);
    const long at = m_data + static_cast<long>(frame * m_bytes * m_info.channels);
    if (std::fseek(m_file, at, SEEK_SET) != 0)
        return false;
    m_next = frame;
    return true;
}
