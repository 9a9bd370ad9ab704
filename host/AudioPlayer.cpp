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
    for (auto& s : m_stopping)
        s->thread.join();
}

void AudioPlayer::Play(const std::string& path, double fraction) {
    Stop();
    m_error.clear();
    m_current = std::make_unique<Session>();
    m_current->path = m_lastPath = path;
    m_current->position = std::clamp(fraction, 0.0, 1.0);
    m_current->thread = std::thread(&AudioPlayer::Run, std::ref(*m_current));
}

void AudioPlayer::Stop() {
    Reap();
    if (!m_current)
        return;
    m_current->stop = true;
    m_stopping.push_back(std::move(m_current));
}

void AudioPlayer::Reap() {
    for (auto it = m_stopping.begin(); it != m_stopping.end();) {
        if ((*it)->done) {
            (*it)->thread.join();
            it = m_stopping.erase(it);
        } else {
            ++it;
        }
    }
    if (m_current && m_current->done) {
        m_current->thread.join();
        m_error = m_current->error;
        m_current.reset();
    }
}

bool AudioPlayer::Playing() const {
    return m_current && !m_current->done;
}

double AudioPlayer::Position() const {
    return m_current ? m_current->position.load() : 0.0;
}

std::string AudioPlayer::TakeError() {
    Reap();
    std::string e;
    e.swap(m_error);
    return e;
}

void AudioPlayer::Run(Session& s) {
    const std::string& path = s.path;
    const double fraction = s.position;
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
        while (!s.stop) {
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
            s.position =
                length > 0 ? std::clamp(heard / static_cast<double>(length), 0.0, 1.0) : 0.0;
        }
        if (s.stop)
            pa_simple_flush(stream, &err);
        else
            pa_simple_drain(stream, &err);
    } catch (const std::exception& e) {
        error = e.what();
    }
    if (stream)
        pa_simple_free(stream);
    if (error.empty() && !s.stop)
        s.position = 1.0;
    s.error = error;
    s.done = true;
}
