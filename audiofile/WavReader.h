#pragma once

#include <sndfile.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Plain WAV read directly: 16-, 24- and 32-bit integer or 32-bit float samples, in either
// header form. It is most of what people stretch, and reading it this way spares a short job
// loading libsndfile with all its codecs. The floats are the ones libsndfile gives for the same
// file, to the bit. Anything else (other encodings, RF64, a header it does not follow) is left
// to libsndfile.
class WavReader {
public:
    // nullptr when path is not plain WAV of that kind.
    static std::unique_ptr<WavReader> Open(const std::string& path);
    ~WavReader();
    WavReader(const WavReader&) = delete;
    WavReader& operator=(const WavReader&) = delete;

    // What libsndfile would report: SF_FORMAT_WAV or SF_FORMAT_WAVEX with the sample format,
    // and the frames the file holds.
    const SF_INFO& Info() const { return m_info; }
    // Frames the data chunk's header promises.
    sf_count_t Declared() const { return m_declared; }
    // The LIST/INFO texts by libsndfile's SF_STR_ numbers.
    const std::map<int, std::string>& Tags() const { return m_tags; }

    // As AudioReader's; Read throws std::runtime_error when the file cannot be read.
    sf_count_t Read(float* interleaved, sf_count_t frames);
    bool Seek(sf_count_t frame);

private:
    WavReader() = default;

    std::string m_path;
    std::unique_ptr<char[]> m_buffer; // the stream's, for a long file (outlives m_file)
    FILE* m_file = nullptr;
    SF_INFO m_info{};
    sf_count_t m_declared = 0;
    long m_data = 0;       // where the samples start
    int m_bytes = 0;       // of a sample
    bool m_float = false;  // else integers
    sf_count_t m_next = 0; // the next frame Read gives
    std::map<int, std::string> m_tags;
    std::vector<unsigned char> m_raw;
};
