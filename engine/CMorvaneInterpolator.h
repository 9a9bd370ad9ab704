#pragma once

#include <cstdint>

#include "CMorvaneIsa.h"

// The resampler's stereo inner loop, several output frames at once. Each output frame is
//   acc = 0; for each tap j: acc = float(acc + (x[j] * c[j]) * 2^-15)
// per channel, with c[j] interpolated from two table entries, in exactly that order. The taps of
// one frame are computed side by side; a transpose then lets one vector add carry the running
// sums of 8 (AVX-512) or 4 (AVX2) frames, so the order of each sum is kept.
//
// Adding in single precision gives the same bits as the double-then-float of the plain loop
// (float sums rounded through double round the same way), as long as (x * c) * 2^-15 is exact in
// float: the caller uses these kernels only when every input sample is zero or between 2^-111
// and 2^100 in magnitude. (Then the scale can also go on the coefficient first.)
class CMorvaneInterpolator {
public:
    static constexpr int kMaxTaps = 104; // the resampler's 101, rounded up to whole vectors
    static constexpr int kRows = 11;     // table offsets 0..10 occur (see CMorvaneResample)
    static constexpr int kBatch = 8;
    static constexpr int kRowStride = 112; // taps per table row, whole AVX-512 vectors
    static_assert(kRowStride >= kMaxTaps && kRowStride % 16 == 0);

    struct Point {
        const float* x; // first of the taps' interleaved stereo frames
        int32_t row;    // table offset of tap 0
        int32_t sub;    // fraction between the two table entries, in 1/32768
    };

    explicit CMorvaneInterpolator(CMorvaneIsa::Level isa = CMorvaneIsa::Detected());
    ~CMorvaneInterpolator();
    CMorvaneInterpolator(const CMorvaneInterpolator&) = delete;
    CMorvaneInterpolator& operator=(const CMorvaneInterpolator&) = delete;

    // Lays out a table of 8 entries per tap for the kernels: for each row, both entries of each
    // tap. Entries at or past the table's end count as 0.
    void Prepare(const int16_t* table, int entries);

    // False on the baseline: the caller keeps its plain loop.
    bool Available() const { return m_Isa != CMorvaneIsa::Baseline; }

    // Running sums of count <= kBatch points (left, right, left, ...) into acc.
    void Run(const Point* points, int count, int taps, float* acc) const;

    // True when every sample of x[0..samples) may go through the kernels.
    static bool Exact(const float* x, long samples);

private:
    void Run512(const Point* points, int count, int taps, float* acc) const;
    void Run256(const Point* points, int count, int taps, float* acc) const;

    CMorvaneIsa::Level m_Isa;
    int32_t m_Base[kRows * kRowStride] = {};  // per row and tap: table[row + 8j + 1]
    int32_t m_Delta[kRows * kRowStride] = {}; // table[row + 8j] - table[row + 8j + 1]
    // Added to delta * sub before the shift where that product is negative, so that the shift
    // truncates toward zero: for sub >= 0 and for sub < 0.
    int32_t m_BiasUp[kRows * kRowStride] = {};
    int32_t m_BiasDown[kRows * kRowStride] = {};
    float m_BaseScaled[kRows * kRowStride] = {};  // m_Base * 2^-15
    float m_DeltaScaled[kRows * kRowStride] = {}; // m_Delta * 2^-15
};
