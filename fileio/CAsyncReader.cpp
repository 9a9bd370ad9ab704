#include "CAsyncReader.h"

#include <algorithm>
#include <cstring>
#include <utility>

CAsyncReader::CAsyncReader(Source source, int channels, long blockFrames, int blocks)
    : CBlockPipe(channels, blockFrames, blocks), m_source(std::move(source)) {
    Start([this] { Produce(); });
}

CAsyncReader::~CAsyncReader() {
    Stop();
}

void CAsyncReader::Produce() {
    for (;;) {
        Block* b;
        {
            std::unique_lock lock(m_mutex);
            if (m_tail - m_head == m_blocks.size()) { // full: rests until a batch is free
                m_resting = true;
                m_changed.wait(
                    lock, [&] { return m_stop || m_blocks.size() - (m_tail - m_head) >= Batch(); });
                m_resting = false;
            }
            if (m_stop)
                return;
            b = &At(m_tail);
        }
        // The block is the producer's alone until the tail moves past it.
        long got = 0;
        std::exception_ptr error;
        try {
            while (got < m_blockFrames) {
                const long n = m_source(b->samples.get() + got * m_channels, m_blockFrames - got);
                if (n <= 0)
                    break;
                got += n;
            }
        } catch (...) {
            error = std::current_exception();
        }
        std::lock_guard lock(m_mutex);
        b->frames = got;
        if (got > 0)
            ++m_tail;
        if (got < m_blockFrames || error) {
            m_ended = true;
            m_error = error;
            m_changed.notify_all();
            return;
        }
        m_changed.notify_all();
    }
}

long CAsyncReader::Read(float* out, long frames) {
    long done = 0;
    std::unique_lock lock(m_mutex);
    while (done < frames) {
        m_changed.wait(lock, [&] { return m_head != m_tail || m_ended; });
        if (m_head == m_tail) { // the end, or the source's failure
            if (m_error && done == 0)
                std::rethrow_exception(std::exchange(m_error, nullptr));
            break;
        }
        const Block& b = At(m_head);
        const long n = std::min(frames - done, b.frames - m_headAt);
        std::memcpy(out + done * m_channels, b.samples.get() + m_headAt * m_channels,
                    sizeof(float) * static_cast<size_t>(n) * m_channels);
        done += n;
        m_headAt += n;
        if (m_headAt == b.frames) {
            ++m_head;
            m_headAt = 0;
            if (m_resting && m_blocks.size() - (m_tail - m_head) >= Batch())
                m_changed.notify_all();
        }
    }
    return done;
}
