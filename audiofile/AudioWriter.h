#pragma once

#include <sndfile.h>

#include <map>
#include <memory>
#include <string>

#include "CReplaceFile.h"

class WavWriter;

// Writes an audio file so that no partial file is ever left under the target's name, nor any
// other file once the process is gone, however it ends: the frames go to a file that replaces
// the target whole on Commit() (CReplaceFile). Destroying a writer that was not committed
// discards what it wrote. A target of "-" is standard output: the file is spooled in an unnamed
// file and copied there on Commit.
class AudioWriter {
public:
    // Throws std::runtime_error with a sentence for the user. durable: the file reaches the disk
    // before it is named, and its name after.
    AudioWriter(const std::string& target, int format, int channels, int sampleRate,
                bool durable = false);
    ~AudioWriter();
    AudioWriter(const AudioWriter&) = delete;
    AudioWriter& operator=(const AudioWriter&) = delete;

    // Text tags by libsndfile's SF_STR_ numbers, where the container holds them; before Write.
    void SetTags(const std::map<int, std::string>& tags);
    // Throws when the frames cannot be written (a full disk, among others).
    void Write(const float* interleaved, sf_count_t frames);
    // Closes and puts the file in place; throws on failure, leaving the target as it was.
    void Commit();

    // Every temporary name of this process not yet committed; removed on a fatal signal.
    static void RemoveAllTemporary() { CReplaceFile::RemoveAllTemporary(); }

private:
    void Discard();
    void CopyToStandardOutput();
    static std::string WhyNot(); // errno's, as a clause

    std::string m_target;
    CReplaceFile m_replace;
    SNDFILE* m_file = nullptr;
    std::unique_ptr<WavWriter> m_wav; // plain WAV, written here without libsndfile
    int m_channels = 0;
    bool m_durable = false;
    long m_writes = 0;
};
