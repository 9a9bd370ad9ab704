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

#include "AudioLibraries.h"
#include "AudioReader.h"
#include "WavWriter.h"

namespace {

const AudioLibraries::SndfileTable& Sf() {
    return AudioLibraries::Sndfile();
}

} // namespace

AudioWriter::AudioWriter(const std::string& target, int format, int channels, int sampleRate,
                         bool durable)
    : m_target(target), m_durable(durable) {
    SF_INFO info{};
    info.format = format;
    info.channels = channels;
    info.samplerate = sampleRate;
    const bool native = WavWriter::Writes(format) && channels > 0 && sampleRate > 0;
    if (!native && !Sf().sf_format_check(&info))
        throw std::runtime_error("cannot write " + target +
                                 ": the format cannot hold this audio (try another --format)");
    if (!(target == "-" ? m_replace.OpenSpool() : m_replace.Open(target)))
        throw std::runtime_error((target == "-" ? std::string("cannot write to standard output: ")
                                                : "cannot write " + target + ": ") +
                                 AudioReader::Clause(std::strerror(errno)));
    m_channels = channels;
    if (native) {
        m_wav = std::make_unique<WavWriter>(m_replace.Descriptor(), format, channels, sampleRate);
        return;
    }
    m_file = Sf().sf_open_fd(m_replace.Descriptor(), SFM_WRITE, &info, SF_FALSE);
    if (!m_file) {
        Discard();
        throw std::runtime_error("cannot write " + target + ": " +
                                 AudioReader::Clause(Sf().sf_strerror(nullptr)));
    }
    // Integer formats clip rather than wrap what lies beyond full scale.
    Sf().sf_command(m_file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
}

AudioWriter::~AudioWriter() {
    Discard();
}

void AudioWriter::Discard() {
    m_wav.reset();
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
    if (m_wav) {
        if (!m_wav->Write(interleaved, static_cast<long>(frames)))
            throw std::runtime_error("cannot write " + m_target + ": " + WhyNot());
        return;
    }
    if (Sf().sf_writef_float(m_file, interleaved, frames) != frames)
        throw std::runtime_error("cannot write " + m_target + ": " +
                                 AudioReader::Clause(Sf().sf_strerror(m_file)));
}

void AudioWriter::Commit() {
    if (m_wav) {
        if (!m_wav->Finish())
            throw std::runtime_error("cannot write " + m_target + ": " + WhyNot());
        m_wav.reset();
    } else {
        const int closed = Sf().sf_close(m_file);
        m_file = nullptr;
        if (closed != 0)
            throw std::runtime_error("cannot write " + m_target + ": " +
                                     AudioReader::Clause(Sf().sf_error_number(closed)));
    }
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

std::string AudioWriter::WhyNot() {
    if (errno == EFBIG)
        return "a WAV file holds at most 4 GiB; write RF64 or W64 (-f rf64) for more";
    return AudioReader::Clause(std::strerror(errno));
}

void AudioWriter::SetTags(const std::map<int, std::string>& tags) {
    if (m_wav) {
        m_wav->SetTags(tags);
        return;
    }
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
