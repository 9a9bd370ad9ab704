#include "PreviewStream.h"

#include <algorithm>
#include <chrono>
#include <cmath>

PreviewStream::PreviewStream(int channels, int rate, int64_t sourceFrames, int capacity)
    : m_nChannels(std::clamp(channels, 1, 2)), m_nRate(rate), m_nSourceFrames(sourceFrames),
      m_nCapacity(std::max(capacity, 1)), m_ring(static_cast<size_t>(m_nCapacity) * m_nChannels) {}

void PreviewStream::Begin(int64_t sourceFrom, double timeRate) {
    std::lock_guard lock(m_lock);
    // runs that every read has passed are no longer asked about
    while (m_runs.size() > 1 && m_runs[1].frame <= m_nRead)
        m_runs.erase(m_runs.begin());
    m_runs.push_back({m_nMade, sourceFrom, timeRate});
}

bool PreviewStream::Push(const float* left, const float* right, int frames) {
    std::unique_lock lock(m_lock);
    for (int done = 0; done < frames;) {
        m_changed.wait(lock, [&] { return m_bCancelled || m_nMade - m_nRead < m_nCapacity; });
        if (m_bCancelled)
            return false;
        // frames a seek has passed are dropped as they come
        const int64_t skipped = std::clamp<int64_t>(m_nRead - m_nMade, 0, frames - done);
        done += static_cast<int>(skipped);
        m_nMade += skipped;
        const int n = static_cast<int>(std::min<int64_t>(
            frames - done, m_nCapacity - std::max<int64_t>(m_nMade - m_nRead, 0)));
        for (int i = 0; i < n; ++i) {
            float* to = &m_ring[static_cast<size_t>((m_nMade + i) % m_nCapacity) * m_nChannels];
            to[0] = left[done + i];
            if (m_nChannels == 2)
                to[1] = right[done + i];
        }
        done += n;
        m_nMade += n;
        m_changed.notify_all();
    }
    return true;
}

void PreviewStream::End(const std::string& error) {
    std::lock_guard lock(m_lock);
    m_bEnded = true;
    m_error = error;
    m_changed.notify_all();
}

int PreviewStream::Read(float* interleaved, int frames, int waitMs) {
    std::unique_lock lock(m_lock);
    m_changed.wait_for(lock, std::chrono::milliseconds(waitMs),
                       [&] { return m_bCancelled || m_bEnded || m_nMade > m_nRead; });
    const int n = static_cast<int>(std::clamp<int64_t>(m_nMade - m_nRead, 0, frames));
    for (int i = 0; i < n; ++i) {
        const float* from = &m_ring[static_cast<size_t>((m_nRead + i) % m_nCapacity) * m_nChannels];
        std::copy(from, from + m_nChannels, interleaved + static_cast<size_t>(i) * m_nChannels);
    }
    m_nRead += n;
    m_changed.notify_all();
    return n;
}

void PreviewStream::SeekTo(int64_t frame) {
    std::lock_guard lock(m_lock);
    m_nRead = std::max<int64_t>(frame, 0);
    m_changed.notify_all();
}

int64_t PreviewStream::ReadAt() const {
    std::lock_guard lock(m_lock);
    return m_nRead;
}

int64_t PreviewStream::Made() const {
    std::lock_guard lock(m_lock);
    return m_nMade;
}

bool PreviewStream::Finished() const {
    std::lock_guard lock(m_lock);
    return m_bEnded && m_nRead >= m_nMade;
}

std::string PreviewStream::Error() const {
    std::lock_guard lock(m_lock);
    return m_error;
}

void PreviewStream::Cancel() {
    std::lock_guard lock(m_lock);
    m_bCancelled = true;
    m_changed.notify_all();
}

bool PreviewStream::Cancelled() const {
    std::lock_guard lock(m_lock);
    return m_bCancelled;
}

double PreviewStream::SourceAt(double frame) const {
    std::lock_guard lock(m_lock);
    for (auto it = m_runs.rbegin(); it != m_runs.rend(); ++it)
        if (frame >= static_cast<double>(it->frame))
            return static_cast<double>(it->source) +
                   (frame - static_cast<double>(it->frame)) / it->rate;
    return -1;
}

int64_t PreviewStream::FrameAt(double sourceFrame) const {
    std::lock_guard lock(m_lock);
    if (m_runs.empty())
        return -1;
    // a point before the run is met at its start rather than never
    const Run& r = m_runs.back();
    return r.frame +
           std::llround(std::max(sourceFrame - static_cast<double>(r.source), 0.0) * r.rate);
}
