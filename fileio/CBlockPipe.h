#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// A ring of blocks of interleaved float frames between a caller and a thread of its own: the
// common part of CAsyncReader and CAsyncWriter. Blocks [m_head, m_tail) are in flight, counted
// without end.
class CBlockPipe {
protected:
    struct Block {
        // Left uninitialised: only the frames written into a block are ever read from it.
        std::unique_ptr<float[]> samples;
        long frames = 0;
    };

    CBlockPipe(int channels, long blockFrames, int blocks);
    ~CBlockPipe() = default;
    CBlockPipe(const CBlockPipe&) = delete;
    CBlockPipe& operator=(const CBlockPipe&) = delete;

    // A derived class starts its thread once it is whole, and stops it before it is not.
    void Start(std::function<void()> work);
    void Stop();
    Block& At(size_t index) { return m_blocks[index % m_blocks.size()]; }

    const int m_channels;
    const long m_blockFrames;
    std::vector<Block> m_blocks;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    size_t m_head = 0, m_tail = 0;
    bool m_stop = false;
    // The thread waits for most of the ring rather than for each block: on a virtual machine a
    // wake-up on another processor costs tens of microseconds, more than the block's copy. While
    // it rests, the caller wakes it only once that much is ready.
    bool m_resting = false;
    size_t Batch() const { return m_blocks.size() - 1; }
    std::exception_ptr m_error;

private:
    std::thread m_thread;
};
