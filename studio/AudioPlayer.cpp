#include "AudioPlayer.h"

#include <dlfcn.h>
#include <pulse/error.h>
#include <pulse/simple.h>

#include <algorithm>
#include <cmath>
#include <mutex>
#include <numbers>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include "AudioReader.h"
#include "BaseName.h"

namespace {

// Frames written to the server at a time: small enough that Stop, or A/B, is heard within
// about 20 ms.
constexpr int kChunkFrames = 1024;
// What the server holds ahead of the speaker.
constexpr int kBufferMs = 120;

// The sound server's client library, loaded on the first playback: a render, which never plays,
// does not load it and the dozen libraries it brings. Without it, playback says so.
struct Pulse {
    decltype(&pa_simple_new) simpleNew = nullptr;
    decltype(&pa_simple_write) write = nullptr;
    decltype(&pa_simple_drain) drain = nullptr;
    decltype(&pa_simple_flush) flush = nullptr;
    decltype(&pa_simple_free) free = nullptr;
    decltype(&pa_simple_get_latency) latency = nullptr;
    decltype(&pa_strerror) strerror = nullptr;
    decltype(&pa_bytes_per_second) bytesPerSecond = nullptr;

    // Throws when the library is missing.
    static const Pulse& Get() {
        static Pulse pulse;
        static std::once_flag once;
        std::call_once(once, [] {
            void* lib = dlopen("libpulse-simple.so.0", RTLD_NOW | RTLD_LOCAL);
            if (!lib)
                return;
            // the library's own dependencies answer for the common calls
            const auto find = [lib](auto& fn, const char* name) {
                fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(dlsym(lib, name));
                return fn != nullptr;
            };
            Pulse p;
            if (find(p.simpleNew, "pa_simple_new") && find(p.write, "pa_simple_write") &&
                find(p.drain, "pa_simple_drain") && find(p.flush, "pa_simple_flush") &&
                find(p.free, "pa_simple_free") && find(p.latency, "pa_simple_get_latency") &&
                find(p.strerror, "pa_strerror") && find(p.bytesPerSecond, "pa_bytes_per_second"))
                pulse = p;
        });
        if (!pulse.simpleNew)
            throw std::runtime_error(
                "no sound server client (install libpulse0, which PipeWire and PulseAudio use)");
        return pulse;
    }
};

} // namespace

AudioPlayer::~AudioPlayer() {
    Stop();
    for (auto& s : m_stopping)
        s->thread.join();
}

void AudioPlayer::Play(const std::string& path, double fraction) {
    auto s = std::make_unique<Session>();
    s->path = path;
    s->position = std::clamp(fraction, 0.0, 1.0);
    Start(std::move(s));
}

void AudioPlayer::Play(std::shared_ptr<PreviewStream> stream, const std::string& path) {
    auto s = std::make_unique<Session>();
    s->path = path;
    s->stream = std::move(stream);
    Start(std::move(s));
}

void AudioPlayer::Start(std::unique_ptr<Session> session) {
    Stop();
    m_error.clear();
    m_current = std::move(session);
    m_lastPath = m_current->path;
    m_current->thread = std::thread(&AudioPlayer::Run, std::ref(*m_current));
}

bool AudioPlayer::CrossTo(std::shared_ptr<PreviewStream> stream) {
    if (!Playing())
        return false;
    std::lock_guard lock(m_current->lock);
    m_current->next = std::move(stream);
    return true;
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
    pa_simple* server = nullptr;
    std::string error;
    try {
        // what plays: the file, or a stream rendered as it plays
        std::unique_ptr<AudioReader> file;
        std::shared_ptr<PreviewStream> live = s.stream;
        int channels = 0, rate = 0;
        sf_count_t length = 0, sent = 0;
        if (live) {
            channels = live->Channels();
            rate = live->Rate();
            sent = live->ReadAt();
        } else {
            file = std::make_unique<AudioReader>(s.path);
            channels = file->Channels();
            rate = file->SampleRate();
            length = file->Frames();
            sent = static_cast<sf_count_t>(std::clamp(s.position.load(), 0.0, 1.0) * length);
            if (sent >= length)
                sent = 0; // a file played from its end starts again
            file->Seek(sent);
        }
        const Pulse& pa = Pulse::Get();
        pa_sample_spec format{PA_SAMPLE_FLOAT32LE, static_cast<uint32_t>(rate),
                              static_cast<uint8_t>(channels)};
        if (rate <= 0 || rate > static_cast<int>(PA_RATE_MAX) || channels <= 0 ||
            channels > static_cast<int>(PA_CHANNELS_MAX))
            throw std::runtime_error("the sound server cannot play " + std::to_string(channels) +
                                     " channels at " + std::to_string(rate) + " Hz");
        const uint32_t bytesPerMs = static_cast<uint32_t>(pa.bytesPerSecond(&format) / 1000);
        pa_buffer_attr attr{static_cast<uint32_t>(-1), kBufferMs * bytesPerMs,
                            static_cast<uint32_t>(-1), static_cast<uint32_t>(-1),
                            static_cast<uint32_t>(-1)};
        int err = 0;
        server = pa.simpleNew(nullptr, "Morvane", PA_STREAM_PLAYBACK, nullptr,
                              BaseName(s.path).c_str(), &format, nullptr, &attr, &err);
        if (!server)
            throw std::runtime_error(std::string("no sound server (") + pa.strerror(err) + ")");
        const size_t samples = static_cast<size_t>(kChunkFrames) * channels;
        std::vector<float> chunk(samples), other(samples);
        // the source frame about to be sent, or heard
        const auto sourceAt = [&](double frame, const PreviewStream& into) {
            return live         ? live->SourceAt(frame)
                   : length > 0 ? frame / static_cast<double>(length) * into.SourceFrames()
                                : -1.0;
        };
        const auto readInto = [&](float* to, int waitMs) -> sf_count_t {
            return file ? file->Read(to, kChunkFrames) : live->Read(to, kChunkFrames, waitMs);
        };
        while (!s.stop) {
            std::shared_ptr<PreviewStream> next;
            {
                std::lock_guard lock(s.lock);
                next = s.next;
            }
            sf_count_t got = 0;
            const double point = next ? sourceAt(static_cast<double>(sent), *next) : -1;
            const int64_t at = point >= 0 ? next->FrameAt(point) : -1;
            if (next && next->Channels() == channels && next->Rate() == rate && at >= 0 &&
                next->Made() >= at + kChunkFrames) {
                // over one chunk, from what played to the stream at the same point
                next->SeekTo(at);
                std::fill(chunk.begin(), chunk.end(), 0.0f);
                readInto(chunk.data(), 0);
                got = next->Read(other.data(), kChunkFrames, 0);
                for (int i = 0; i < kChunkFrames; ++i) {
                    const double g = std::sin(0.5 * std::numbers::pi * i / kChunkFrames);
                    for (int c = 0; c < channels; ++c) {
                        float& x = chunk[static_cast<size_t>(i) * channels + c];
                        x = static_cast<float>(
                            x * (1 - g * g) + other[static_cast<size_t>(i) * channels + c] * g * g);
                    }
                }
                live = next;
                file.reset();
                sent = at;
                std::lock_guard lock(s.lock);
                if (s.next == next)
                    s.next.reset();
            } else {
                got = readInto(chunk.data(), 50);
                if (got <= 0) {
                    const bool over = file || live->Finished() ||
                                      (live->Cancelled() && live->Made() <= live->ReadAt());
                    if (over && !next)
                        break;
                    if (over)
                        std::this_thread::sleep_for(std::chrono::milliseconds(5));
                    continue;
                }
            }
            // a damaged file's NaNs and overs never reach the speakers
            for (float& x : chunk)
                x = std::isfinite(x) ? std::clamp(x, -1.0f, 1.0f) : 0.0f;
            if (pa.write(server, chunk.data(), static_cast<size_t>(got) * channels * sizeof(float),
                         &err) < 0)
                throw std::runtime_error(std::string("playback failed: ") + pa.strerror(err));
            sent += got;
            const pa_usec_t latency = pa.latency(server, &err);
            const double heard =
                static_cast<double>(sent) - static_cast<double>(latency) * rate / 1e6;
            if (file) {
                s.position =
                    length > 0 ? std::clamp(heard / static_cast<double>(length), 0.0, 1.0) : 0.0;
            } else if (const double source = live->SourceAt(heard); source >= 0) {
                s.position = live->SourceFrames() > 0
                                 ? std::clamp(source / live->SourceFrames(), 0.0, 1.0)
                                 : 0.0;
            }
        }
        if (s.stop)
            pa.flush(server, &err);
        else
            pa.drain(server, &err);
    } catch (const std::exception& e) {
        error = e.what();
    }
    if (server)
        Pulse::Get().free(server);
    if (error.empty() && !s.stop)
        s.position = 1.0;
    s.error = error;
    s.done = true;
}
