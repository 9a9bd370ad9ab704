#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// Writes interleaved float frames on a thread of its own: Write copies them into one of a few
// blocks and returns, so that encoding a file overlaps with what the caller does next.
class CAsyncWriter {
public:
    // Writes all the frames or throws; the exception reaches the caller's next Write or Finish.
    using Sink = std::function<void(const float* interleaved, long frames)>;

    CAsyncWriter(Sink sink, int channels, long blockFrames = 32768, int blocks = 4);
    // Without Finish, frames not yet written are dropped.
    ~CAsyncWriter();
    CAsyncWriter(const CAsyncWriter&) = delete;
    CAsyncWriter& operator=(const CAsyncWriter&) = delete;

    void Write(const float* interleaved, long frames);
    // Waits until every frame is written; rethrows the sink's failure.
    void Finish();

private:
    struct Block {
        std::vector<float> samples;
        long frames = 0;
    };
    void Consume();
    void Submit(std::unique_lock<std::mutex>& lock);
    void RethrowLocked();

    Sink m_sink;
    const int m_channels;
    const long m_blockFrames;
    std::vector<Block> m_blocks;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    size_t m_head = 0, m_tail = 0; // blocks written out, and handed over, counted without end
    bool m_stop = false;
    std::exception_ptr m_error;
    std::thread m_thread;
};
