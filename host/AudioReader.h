#pragma once

#include <sndfile.h>

#include <string>
#include <vector>

// Reads an audio file of any format libsndfile knows, as float frames.
class AudioReader {
public:
    // Throws std::runtime_error with a sentence for the user.
    explicit AudioReader(const std::string& path);
    ~AudioReader();
    AudioReader(const AudioReader&) = delete;
    AudioReader& operator=(const AudioReader&) = delete;

    int Channels() const { return m_info.channels; }
    int SampleRate() const { return m_info.samplerate; }
    int Format() const { return m_info.format; }
    sf_count_t Frames() const { return m_info.frames; }
    const std::string& Path() const { return m_path; }

    // Reads up to frames interleaved frames; returns the frames read (0 at the end).
    sf_count_t Read(float* interleaved, sf_count_t frames);

private:
    std::string m_path;
    SNDFILE* m_file = nullptr;
    SF_INFO m_info{};
    bool m_wav16 = false;        // 16-bit WAV: read as integers, scaled here
    std::vector<short> m_shorts; // those integers
};
