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
#include "HelperThread.h"

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

void AudioPlayer::Play(const std::string& path, double fraction, Loop loop) {
    auto s = std::make_unique<Session>();
    s->path = path;
    s->start = std::clamp(fraction, 0.0, 1.0);
    s->position = s->start;
    s->loop = {std::clamp(loop.from, 0.0, 1.0), std::clamp(loop.to, 0.0, 1.0)};
    Start(std::move(s));
}

void AudioPlayer::Play(const std::string& path, double fraction) {
    Play(path, fraction, Loop{});
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
    m_current->thread = StartHelperThread([&current = *m_current] { Run(current); });
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

void AudioPlayer::Runs::Add(int64_t frames, double from, double to) {
    runs.push_back({written, frames, from, to});
    written += frames;
}

double AudioPlayer::Runs::At(double heard) {
    while (runs.size() > 1 && static_cast<double>(runs[1].stream) <= heard)
        runs.pop_front();
    if (runs.empty())
        return 0;
    const Run& r = runs.front();
    const double t = std::clamp(
        (heard - static_cast<double>(r.stream)) / std::max<int64_t>(r.frames, 1), 0.0, 1.0);
    return r.from + (r.to - r.from) * t;
}

void AudioPlayer::Run(Session& s) {
    pa_simple* server = nullptr;
    std::string error;
    try {
        // what plays: the file, or a stream rendered as it plays
        std::unique_ptr<AudioReader> file;
        std::shared_ptr<PreviewStream> live = s.stream;
        int channels = 0, rate = 0;
        sf_count_t length = 0, at = 0, loopFrom = 0, loopTo = 0;
        bool looping = false;
        if (live) {
            channels = live->Channels();
            rate = live->Rate();
        } else {
            file = std::make_unique<AudioReader>(s.path);
            channels = file->Channels();
            rate = file->SampleRate();
            length = file->Frames();
            at = static_cast<sf_count_t>(s.start * length);
            if (at >= length)
                at = 0; // a file played from its end starts again
            // the loop's frames; it repeats only when playback starts before its end
            loopFrom = static_cast<sf_count_t>(std::llround(s.loop.from * length));
            loopTo = static_cast<sf_count_t>(std::llround(s.loop.to * length));
            looping = s.loop.Active() && loopTo > loopFrom && at < loopTo;
            file->Seek(at);
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
        Runs runs;
        // the share of the music at the next frame to be read
        const auto share = [&]() -> double {
            if (file)
                return length > 0 ? static_cast<double>(at) / length : 0.0;
            const double source = live->SourceAt(static_cast<double>(live->ReadAt()));
            return source >= 0 && live->SourceFrames() > 0 ? source / live->SourceFrames() : -1.0;
        };
        // a chunk of what plays, from the share before it; returns the frames read
        const auto read = [&](float* to, int waitMs, double* from) -> sf_count_t {
            *from = share();
            if (!file)
                return live->Read(to, kChunkFrames, waitMs);
            const sf_count_t want = looping ? std::min<sf_count_t>(kChunkFrames, loopTo - at)
                                            : sf_count_t{kChunkFrames};
            const sf_count_t got = file->Read(to, want);
            at += std::max<sf_count_t>(got, 0);
            if (looping && at >= loopTo) {
                looping = file->Seek(loopFrom); // a file that cannot seek plays on
                if (looping)
                    at = loopFrom;
            }
            return got;
        };
        while (!s.stop) {
            std::shared_ptr<PreviewStream> next;
            {
                std::lock_guard lock(s.lock);
                next = s.next;
            }
            sf_count_t got = 0;
            double from = 0;
            const double point = next ? share() : -1;
            const int64_t into = point >= 0 ? next->FrameAt(point * next->SourceFrames()) : -1;
            if (next && next->Channels() == channels && next->Rate() == rate && into >= 0 &&
                next->Made() >= into + kChunkFrames) {
                // over one chunk, from what played to the stream at the same point
                next->SeekTo(into);
                std::fill(chunk.begin(), chunk.end(), 0.0f);
                read(chunk.data(), 0, &from);
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
                std::lock_guard lock(s.lock);
                if (s.next == next)
                    s.next.reset();
            } else {
                got = read(chunk.data(), 50, &from);
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
            // where the chunk ends in the music, before any loop goes round
            double to = from + static_cast<double>(got) / std::max<sf_count_t>(length, 1);
            if (!file && live->SourceFrames() > 0)
                to = live->SourceAt(static_cast<double>(live->ReadAt() - 1)) / live->SourceFrames();
            runs.Add(got, from, to);
            const pa_usec_t latency = pa.latency(server, &err);
            const double heard =
                static_cast<double>(runs.written) - static_cast<double>(latency) * rate / 1e6;
            if (from >= 0)
                s.position = std::clamp(runs.At(std::max(0.0, heard)), 0.0, 1.0);
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
