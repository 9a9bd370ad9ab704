#pragma once

#include <sndfile.h>

#include <map>
#include <memory>
#include <string>

struct mpg123_handle_struct;
class WavReader;

// Reads an audio file as float frames: every format libsndfile knows, and MP3 through libmpg123
// so that its length is the stream's own rather than an estimate. Plain WAV is read directly
// (WavReader), libsndfile then not loaded.
class AudioReader {
public:
    // Throws std::runtime_error with a sentence for the user, which names what the file is
    // when it is not audio this build reads.
    explicit AudioReader(const std::string& path);
    ~AudioReader();
    AudioReader(const AudioReader&) = delete;
    AudioReader& operator=(const AudioReader&) = delete;

    int Channels() const { return m_info.channels; }
    int SampleRate() const { return m_info.samplerate; }
    int Format() const { return m_info.format; }
    sf_count_t Frames() const { return m_info.frames; }
    const std::string& Path() const { return m_path; }
    // Frames the file's header promises beyond those it holds (a file cut short); 0 when whole.
    sf_count_t MissingFrames() const { return m_missing; }
    // The file's text tags by libsndfile's SF_STR_ numbers.
    const std::map<int, std::string>& Tags() const { return m_tags; }

    // Goes to a frame (clamped to the file), where the next Read starts; false when the file
    // cannot be sought.
    bool Seek(sf_count_t frame);
    // Reads up to frames interleaved frames; returns the frames read (0 at the end).
    sf_count_t Read(float* interleaved, sf_count_t frames);

    // libsndfile's words for an error, as a clause: "unsupported encoding" for
    // "Unsupported encoding ."
    static std::string Clause(const char* libraryText);

private:
    void OpenMp3();

    std::string m_path;
    SNDFILE* m_file = nullptr;
    mpg123_handle_struct* m_mp3 = nullptr;
    std::unique_ptr<WavReader> m_wav;
    SF_INFO m_info{};
    sf_count_t m_missing = 0;
    std::map<int, std::string> m_tags;
};
