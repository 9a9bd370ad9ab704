#pragma once

#include <functional>
#include <mutex>

#include "CBlockPipe.h"

// Writes interleaved float frames on a thread of its own: Write copies them into one of a few
// blocks and returns, so that encoding a file overlaps with what the caller does next.
class CAsyncWriter : private CBlockPipe {
public:
    // Writes all the frames or throws; the exception reaches the caller's next Write or Finish.
    using Sink = std::function<void(const float* interleaved, long frames)>;

    CAsyncWriter(Sink sink, int channels, long blockFrames = 32768, int blocks = 4);
    // Without Finish, frames not yet written are dropped.
    ~CAsyncWriter();
    CAsyncWriter(const CAsyncWriter&) = delete;
    CAsyncWriter& operator=(const CAsyncWriter&) = delete;

    void Write(const float* interleaved, long frames);
    // Room in the block being filled, for a caller that makes its frames in place rather than
    // copying them in: where the next frame goes, and how many fit (at least one). Commit hands
    // over the frames written there. Either may throw as Write does.
    float* Room(long* frames);
    void Commit(long frames);
    // Waits until every frame is written; rethrows the sink's failure.
    void Finish();

private:
    void Consume();
    void Submit(std::unique_lock<std::mutex>& lock);
    void RethrowLocked();

    Sink m_sink;
    bool m_finishing = false;
};
