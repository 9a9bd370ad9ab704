#include "AudioPlayer.h"

#include <pulse/error.h>
#include <pulse/simple.h>

#include <algorithm>
#include <vector>

#include "AudioReader.h"

namespace {

// Frames written to the server at a time: small enough that Stop, or A/B, is heard within
// about 20 ms.
constexpr int kChunkFrames = 1024;
// What the server holds ahead of the speaker.
constexpr int kBufferMs = 120;

} // namespace

AudioPlayer::~AudioPlayer() {
    Stop();
}

void AudioPlayer::Play(const std::string& path, double fraction) {
    Stop();
    {
        std::lock_guard lock(m_lock);
        m_path = path;
        m_error.clear();
    }
    m_bStop = false;
    m_bPlaying = true;
    m_fPosition = std::clamp(fraction, 0.0, 1.0);
    m_thread = std::thread(&AudioPlayer::Run, this, path, fraction);
}

void AudioPlayer::Stop() {
    m_bStop = true;
    if (m_thread.joinable())
        m_thread.join();
    m_bPlaying = false;
}

std::string AudioPlayer::Path() const {
    std::lock_guard lock(m_lock);
    return m_path;
}

std::string AudioPlayer::TakeError() {
    std::lock_guard lock(m_lock);
    std::string e;
    e.swap(m_error);
    return e;
}

void AudioPlayer::Run(std::string path, double fraction) {
    pa_simple* stream = nullptr;
    std::string error;
    try {
        AudioReader in(path);
        const sf_count_t length = in.Frames();
        sf_count_t at = static_cast<sf_count_t>(std::clamp(fraction, 0.0, 1.0) * length);
        if (at >= length)
            at = 0; // a file played from its end starts again
        in.Seek(at);
        pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, static_cast<uint32_t>(in.SampleRate()),
                            static_cast<uint8_t>(in.Channels())};
        if (!pa_sample_spec_valid(&spec))
            throw std::runtime_error("the sound server cannot play " +
                                     std::to_string(in.Channels()) + " channels at " +
                                     std::to_string(in.SampleRate()) + " Hz");
        const uint32_t bytesPerMs = static_cast<uint32_t>(pa_bytes_per_second(&spec) / 1000);
        pa_buffer_attr attr{static_cast<uint32_t>(-1), kBufferMs * bytesPerMs,
                            static_cast<uint32_t>(-1), static_cast<uint32_t>(-1),
                            static_cast<uint32_t>(-1)};
        int err = 0;
        stream =
            pa_simple_new(nullptr, "Morvane", PA_STREAM_PLAYBACK, nullptr,
                          path.substr(path.rfind('/') + 1).c_str(), &spec, nullptr, &attr, &err);
        if (!stream)
            throw std::runtime_error(std::string("no sound server (") + pa_strerror(err) + ")");
        std::vector<float> chunk(static_cast<size_t>(kChunkFrames) * in.Channels());
        sf_count_t sent = at;
        while (!m_bStop) {
            const sf_count_t got = in.Read(chunk.data(), kChunkFrames);
            if (got <= 0)
                break;
            if (pa_simple_write(stream, chunk.data(),
                                static_cast<size_t>(got) * in.Channels() * sizeof(float), &err) < 0)
                throw std::runtime_error(std::string("playback failed: ") + pa_strerror(err));
            sent += got;
            const pa_usec_t latency = pa_simple_get_latency(stream, &err);
            const double heard =
                static_cast<double>(sent) - static_cast<double>(latency) * in.SampleRate() / 1e6;
            m_fPosition =
                length > 0 ? std::clamp(heard / static_cast<double>(length), 0.0, 1.0) : 0.0;
        }
        if (m_bStop)
            pa_simple_flush(stream, &err);
        else
            pa_simple_drain(stream, &err);
    } catch (const std::exception& e) {
        error = e.what();
    }
    if (stream)
        pa_simple_free(stream);
    {
        std::lock_guard lock(m_lock);
        m_error = error;
    }
    if (!m_bStop)
        m_fPosition = 1.0;
    m_bPlaying = false;
}
