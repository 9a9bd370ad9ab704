#pragma once

#include <functional>

#include "CBlockPipe.h"

// Reads interleaved float frames on a thread of its own, a few blocks ahead of the caller, so
// that decoding a file overlaps with what the caller does with the frames.
class CAsyncReader : private CBlockPipe {
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
    void Produce();

    Source m_source;
    long m_headAt = 0; // frames of the head block already read
    bool m_ended = false;
};
