#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// Reads interleaved float frames on a thread of its own, a few blocks ahead of the caller, so
// that decoding a file overlaps with what the caller does with the frames.
class CAsyncReader {
public:
    // Fills up to frames interleaved frames; returns how many, 0 at the end. May throw: the
    // exception reaches the caller's next Read.
    using Source = std::function<long(float* interleaved, long frames)>;

    CAsyncReader(Source source, int channels, long blockFrames = 32768, int blocks = 4);
    ~CAsyncReader();
    CAsyncReader(const CAsyncReader&) = delete;
    CAsyncReader& operator=(const CAsyncReader&) = delete;

    // As the source's: up to frames frames, fewer only at the end; 0 after it.
    long Read(float* interleaved, long frames);

private:
    struct Block {
        std::vector<float> samples;
        long frames = 0;
    };
    void Produce();

    Source m_source;
    const int m_channels;
    const long m_blockFrames;
    std::vector<Block> m_blocks;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    size_t m_head = 0, m_tail = 0; // blocks read from and written to, counted without end
    long m_headAt = 0;             // frames of the head block already read
    bool m_ended = false, m_stop = false;
    std::exception_ptr m_error;
    std::thread m_thread;
};
