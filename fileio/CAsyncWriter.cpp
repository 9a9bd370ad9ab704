#include "CAsyncWriter.h"

#include <algorithm>
#include <cstring>

CAsyncWriter::CAsyncWriter(Sink sink, int channels, long blockFrames, int blocks)
    : CBlockPipe(channels, blockFrames, blocks), m_sink(std::move(sink)) {
    Start([this] { Consume(); });
}

CAsyncWriter::~CAsyncWriter() {
    Stop();
}

void CAsyncWriter::Consume() {
    for (;;) {
        Block* b;
        {
            std::unique_lock lock(m_mutex);
            // the blocks before the one being filled are full; with none, it rests until a
            // batch is, or the caller finishes
            if (m_tail - m_head <= 1) {
                m_resting = true;
                m_changed.wait(lock,
                               [&] { return m_stop || m_finishing || m_tail - m_head > Batch(); });
                m_resting = false;
                m_changed.wait(lock, [&] { return m_stop || m_tail - m_head > 1; });
            }
            if (m_stop) // Finish has waited for everything, or the frames are abandoned
                return;
            b = &At(m_head);
        }
        try {
            m_sink(b->samples.get(), b->frames);
        } catch (...) {
            std::lock_guard lock(m_mutex);
            m_error = std::current_exception();
            m_stop = true;
            m_changed.notify_all();
            return;
        }
        std::lock_guard lock(m_mutex);
        ++m_head;
        m_changed.notify_all();
    }
}

// The block at m_tail - 1 is the one being filled; the consumer takes those before it.
void CAsyncWriter::RethrowLocked() {
    if (m_error)
        std::rethrow_exception(m_error);
}

void CAsyncWriter::Submit(std::unique_lock<std::mutex>& lock) {
    ++m_tail;
    if (!m_resting || m_finishing || m_tail - m_head > Batch())
        m_changed.notify_all();
    m_changed.wait(lock, [&] { return m_error || m_tail - m_head <= m_blocks.size(); });
    RethrowLocked();
    At(m_tail - 1).frames = 0;
}

float* CAsyncWriter::Room(long* frames) {
    std::unique_lock lock(m_mutex);
    RethrowLocked();
    if (m_tail == m_head) { // the first block to fill
        ++m_tail;
        At(m_tail - 1).frames = 0;
    }
    // (a block is handed over as soon as it is full: the one being filled has room)
    Block& b = At(m_tail - 1);
    *frames = m_blockFrames - b.frames;
    return b.samples.get() + b.frames * m_channels;
}

void CAsyncWriter::Commit(long frames) {
    std::unique_lock lock(m_mutex);
    Block& b = At(m_tail - 1);
    b.frames += frames;
    if (b.frames == m_blockFrames)
        Submit(lock);
}

void CAsyncWriter::Write(const float* in, long frames) {
    while (frames > 0) {
        long room = 0;
        float* to = Room(&room); // the filling block is the caller's alone
        const long n = std::min(frames, room);
        std::memcpy(to, in, sizeof(float) * static_cast<size_t>(n) * m_channels);
        Commit(n);
        in += n * m_channels;
        frames -= n;
    }
}

void CAsyncWriter::Finish() {
    std::unique_lock lock(m_mutex);
    RethrowLocked();
    m_finishing = true;
    m_changed.notify_all();
    if (m_tail != m_head && At(m_tail - 1).frames > 0)
        Submit(lock); // hands over the part-filled block, and opens an empty one
    m_changed.wait(lock, [&] { return m_error || m_tail - m_head <= 1; });
    RethrowLocked();
}
