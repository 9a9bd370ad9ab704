#pragma once

#include <map>
#include <string>
#include <vector>

// Plain WAV written directly (16-, 24- and 32-bit integers, 32-bit float), the commonest
// output, so that a short job need not load libsndfile. The samples are those libsndfile writes
// with clipping on; the header is the usual one (fmt, for float a fact chunk, LIST/INFO texts,
// data), and libsndfile reads the file back as it would its own. The file stays below 4 GiB, as
// the format's lengths need.
class WavWriter {
public:
    // Whether format (libsndfile's numbers) is one that this writes.
    static bool Writes(int format);

    // Writes to fd, which it does not own, from its start.
    WavWriter(int fd, int format, int channels, int rate);
    // Before the first Write.
    void SetTags(const std::map<int, std::string>& tags) { m_tags = tags; }
    // False with errno set when the frames cannot be written (EFBIG past the format's size).
    bool Write(const float* interleaved, long frames);
    // Writes what is held and the lengths into the header; false with errno set on failure.
    bool Finish();

private:
    bool Put(const unsigned char* bytes, size_t n);
    bool Flush();
    std::vector<unsigned char> Header(uint32_t dataBytes) const;

    int m_fd;
    int m_format, m_channels, m_rate, m_bytes;
    std::map<int, std::string> m_tags;
    bool m_started = false;
    uint64_t m_dataBytes = 0;
    size_t m_headerBytes = 0;
    std::vector<unsigned char> m_buffer; // converted samples on their way to the file
    size_t m_held = 0;
};
