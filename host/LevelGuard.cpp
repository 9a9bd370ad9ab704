#include "LevelGuard.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>

#include "HostError.h"

namespace {

std::string Why() {
    return std::string("cannot keep the render for --guard: ") + std::strerror(errno);
}

} // namespace

LevelGuard::LevelGuard(int channels) : m_channels(channels) {
    if (!m_spool.OpenSpool())
        throw OutputError(Why());
}

void LevelGuard::Write(const float* interleaved, sf_count_t frames) {
    const size_t samples = static_cast<size_t>(frames) * m_channels;
    for (size_t i = 0; i < samples; ++i)
        if (std::fabs(interleaved[i]) > m_peak) // NaN never counts
            m_peak = std::fabs(interleaved[i]);
    const char* bytes = reinterpret_cast<const char*>(interleaved);
    for (size_t done = 0, size = samples * sizeof(float); done < size;) {
        const ssize_t n = write(m_spool.Descriptor(), bytes + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw OutputError(Why());
        done += static_cast<size_t>(n);
    }
    m_frames += frames;
}

float LevelGuard::Gain() const {
    if (!(m_peak > 1.0f))
        return 1.0f;
    // the largest gain whose product with the peak, rounded to float, stays at full scale
    float gain = 1.0f / m_peak;
    while (gain * m_peak > 1.0f)
        gain = std::nextafter(gain, 0.0f);
    return gain;
}

void LevelGuard::Replay(const std::function<void(const float*, sf_count_t)>& sink) const {
    constexpr sf_count_t kFrames = 16384;
    const auto buffer = std::make_unique<float[]>(static_cast<size_t>(kFrames) * m_channels);
    const float gain = Gain();
    const size_t frameBytes = sizeof(float) * m_channels;
    for (sf_count_t at = 0; at < m_frames;) {
        const sf_count_t frames = std::min(kFrames, m_frames - at);
        char* to = reinterpret_cast<char*>(buffer.get());
        const size_t size = static_cast<size_t>(frames) * frameBytes;
        for (size_t done = 0; done < size;) {
            const ssize_t n = pread(m_spool.Descriptor(), to + done, size - done,
                                    static_cast<off_t>(at * frameBytes + done));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                throw OutputError(Why());
            done += static_cast<size_t>(n);
        }
        for (sf_count_t i = 0; i < frames * m_channels; ++i)
            buffer[i] *= gain;
        sink(buffer.get(), frames);
        at += frames;
    }
}
