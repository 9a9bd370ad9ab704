#include "AudioWriter.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <set>
#include <stdexcept>

namespace {

std::mutex gTempMutex;
std::set<std::string>& TempFiles() {
    static std::set<std::string> files;
    return files;
}

std::string TemporaryName(const std::string& target) {
    static std::atomic<int> counter{0};
    const size_t slash = target.rfind('/');
    const std::string dir = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
    return dir + "." + name + ".morvane-" + std::to_string(getpid()) + "-" +
           std::to_string(counter++) + ".tmp";
}

} // namespace

AudioWriter::AudioWriter(const std::string& target, int format, int channels, int sampleRate)
    : m_target(target), m_temp(TemporaryName(target)) {
    SF_INFO info{};
    info.format = format;
    info.channels = channels;
    info.samplerate = sampleRate;
    if (!sf_format_check(&info))
        throw std::runtime_error("cannot write " + target +
                                 ": the format cannot hold this audio (try another --format)");
    {
        std::lock_guard lock(gTempMutex);
        TempFiles().insert(m_temp);
    }
    m_file = sf_open(m_temp.c_str(), SFM_WRITE, &info);
    if (!m_file) {
        Discard();
        throw std::runtime_error("cannot write " + target + ": " + sf_strerror(nullptr));
    }
    // Integer formats clip rather than wrap what lies beyond full scale.
    sf_command(m_file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
}

AudioWriter::~AudioWriter() {
    Discard();
}

void AudioWriter::Discard() {
    if (m_file) {
        sf_close(m_file);
        m_file = nullptr;
    }
    if (!m_temp.empty()) {
        std::remove(m_temp.c_str());
        std::lock_guard lock(gTempMutex);
        TempFiles().erase(m_temp);
        m_temp.clear();
    }
}

void AudioWriter::Write(const float* interleaved, sf_count_t frames) {
    if (frames > 0 && sf_writef_float(m_file, interleaved, frames) != frames)
        throw std::runtime_error("cannot write " + m_target + ": " + sf_strerror(m_file));
}

void AudioWriter::Commit() {
    const int closed = sf_close(m_file);
    m_file = nullptr;
    if (closed != 0)
        throw std::runtime_error("cannot write " + m_target + ": " + sf_error_number(closed));
    if (std::rename(m_temp.c_str(), m_target.c_str()) != 0)
        throw std::runtime_error("cannot write " + m_target +
                                 ": the file could not be put in place");
    std::lock_guard lock(gTempMutex);
    TempFiles().erase(m_temp);
    m_temp.clear();
}

void AudioWriter::RemoveAllTemporary() {
    // Called from a signal handler: unlink is async-signal-safe; the set is not modified.
    for (const auto& f : TempFiles())
        unlink(f.c_str());
}
