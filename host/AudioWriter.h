#pragma once

#include <sndfile.h>

#include <map>
#include <string>
#include <vector>

// Writes an audio file so that no partial file is ever left under the target's name: frames go
// to a hidden temporary file beside the target, which Commit() renames over it. Destroying a
// writer that was not committed removes the temporary file. A target of "-" is standard
// output: the finished file is copied there on Commit.
class AudioWriter {
public:
    // Throws std::runtime_error with a sentence for the user.
    AudioWriter(const std::string& target, int format, int channels, int sampleRate);
    ~AudioWriter();
    AudioWriter(const AudioWriter&) = delete;
    AudioWriter& operator=(const AudioWriter&) = delete;

    // Text tags by libsndfile's SF_STR_ numbers, where the container holds them; before Write.
    void SetTags(const std::map<int, std::string>& tags);
    // Throws when the frames cannot be written (a full disk, among others).
    void Write(const float* interleaved, sf_count_t frames);
    // Closes and renames; throws on failure, leaving the target as it was.
    void Commit();

    const std::string& TemporaryPath() const { return m_temp; }
    // Every temporary file of this process not yet committed; removed on a fatal signal.
    static void RemoveAllTemporary();

private:
    void Discard();
    void CopyToStandardOutput();

    std::string m_target;
    std::string m_temp;
    SNDFILE* m_file = nullptr;
    int m_channels = 0;
    bool m_wav16 = false;        // 16-bit WAV: converted here, written as integers
    std::vector<short> m_shorts; // those integers
};
