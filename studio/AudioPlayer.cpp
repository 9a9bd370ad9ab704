#include "AudioPlayer.h"

#include <dlfcn.h>
#include <pulse/error.h>
#include <pulse/simple.h>

#include <algorithm>
#include <cmath>
#include <mutex>
#include <stdexcept>
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

void AudioPlayer::Play(const std::string& path, double fraction, Loop loop) {
    Stop();
    m_error.clear();
    m_current = std::make_unique<Session>();
    m_current->path = m_lastPath = path;
    m_current->start = std::clamp(fraction, 0.0, 1.0);
    m_current->position = m_current->start;
    m_current->loop = {std::clamp(loop.from, 0.0, 1.0), std::clamp(loop.to, 0.0, 1.0)};
    m_current->thread = std::thread(&AudioPlayer::Run, std::ref(*m_current));
}

void AudioPlayer::Play(const std::string& path, double fraction) {
    Play(path, fraction, Loop{});
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

void AudioPlayer::Runs::Add(int64_t file, int64_t frames) {
    if (!runs.empty() && runs.back().file + runs.back().frames == file)
        runs.back().frames += frames;
    else
        runs.push_back({written, file, frames});
    written += frames;
}

int64_t AudioPlayer::Runs::FileFrame(int64_t heard) {
    while (runs.size() > 1 && runs[1].stream <= heard)
        runs.pop_front();
    if (runs.empty())
        return 0;
    const Run& r = runs.front();
    return r.file + std::clamp<int64_t>(heard - r.stream, 0, r.frames);
}

void AudioPlayer::Run(Session& s) {
    const std::string& path = s.path;
    pa_simple* stream = nullptr;
    std::string error;
    try {
        AudioReader in(path);
        const sf_count_t length = in.Frames();
        sf_count_t at = static_cast<sf_count_t>(s.start * length);
        if (at >= length)
            at = 0; // a file played from its end starts again
        // the loop's frames; it repeats only when playback starts before its end
        const sf_count_t loopFrom = static_cast<sf_count_t>(std::llround(s.loop.from * length));
        const sf_count_t loopTo = static_cast<sf_count_t>(std::llround(s.loop.to * length));
        bool looping = s.loop.Active() && loopTo > loopFrom && at < loopTo;
        in.Seek(at);
        const Pulse& pa = Pulse::Get();
        pa_sample_spec format{PA_SAMPLE_FLOAT32LE, static_cast<uint32_t>(in.SampleRate()),
                              static_cast<uint8_t>(in.Channels())};
        if (in.SampleRate() <= 0 || in.SampleRate() > static_cast<int>(PA_RATE_MAX) ||
            in.Channels() <= 0 || in.Channels() > static_cast<int>(PA_CHANNELS_MAX))
            throw std::runtime_error("the sound server cannot play " +
                                     std::to_string(in.Channels()) + " channels at " +
                                     std::to_string(in.SampleRate()) + " Hz");
        const uint32_t bytesPerMs = static_cast<uint32_t>(pa.bytesPerSecond(&format) / 1000);
        pa_buffer_attr attr{static_cast<uint32_t>(-1), kBufferMs * bytesPerMs,
                            static_cast<uint32_t>(-1), static_cast<uint32_t>(-1),
                            static_cast<uint32_t>(-1)};
        int err = 0;
        stream = pa.simpleNew(nullptr, "Morvane", PA_STREAM_PLAYBACK, nullptr,
                              BaseName(path).c_str(), &format, nullptr, &attr, &err);
        if (!stream)
            throw std::runtime_error(std::string("no sound server (") + pa.strerror(err) + ")");
        std::vector<float> chunk(static_cast<size_t>(kChunkFrames) * in.Channels());
        Runs runs;
        while (!s.stop) {
            const sf_count_t want = looping ? std::min<sf_count_t>(kChunkFrames, loopTo - at)
                                            : sf_count_t{kChunkFrames};
            const sf_count_t got = in.Read(chunk.data(), want);
            if (got <= 0)
                break;
            // a damaged file's NaNs and overs never reach the speakers
            for (float& x : chunk)
                x = std::isfinite(x) ? std::clamp(x, -1.0f, 1.0f) : 0.0f;
            if (pa.write(stream, chunk.data(),
                         static_cast<size_t>(got) * in.Channels() * sizeof(float), &err) < 0)
                throw std::runtime_error(std::string("playback failed: ") + pa.strerror(err));
            runs.Add(at, got);
            at += got;
            if (looping && at >= loopTo) {
                looping = in.Seek(loopFrom); // a file that cannot seek plays on
                if (looping)
                    at = loopFrom;
            }
            const pa_usec_t latency = pa.latency(stream, &err);
            const double heard = static_cast<double>(runs.written) -
                                 static_cast<double>(latency) * in.SampleRate() / 1e6;
            const int64_t frame = runs.FileFrame(static_cast<int64_t>(std::max(0.0, heard)));
            s.position =
                length > 0 ? std::clamp(static_cast<double>(frame) / length, 0.0, 1.0) : 0.0;
        }
        if (s.stop)
            pa.flush(stream, &err);
        else
            pa.drain(stream, &err);
    } catch (const std::exception& e) {
        error = e.what();
    }
    if (stream)
        Pulse::Get().free(stream);
    if (error.empty() && !s.stop)
        s.position = 1.0;
    s.error = error;
    s.done = true;
}
