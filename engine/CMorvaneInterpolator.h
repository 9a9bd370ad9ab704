#pragma once

#include <cstdint>

#include "CMorvaneIsa.h"
#include "Zeroed.h"

// The resampler's stereo inner loop, several output frames at once. Each output frame is
//   acc = 0; for each tap j: acc = float(acc + (x[j] * c[j]) * 2^-15)
// per channel, with c[j] interpolated from two table entries, in exactly that order. Vector
// lanes hold different frames, so one vector add carries the running sums of many frames and
// the order of each sum is kept. Each vector holds one channel of 16 frames (AVX-512) or 8
// (AVX2): the samples come from de-interleaved copies, each tap's samples of all the frames
// picked out of a window of twice as many, and each tap's coefficients picked from a table of
// that tap's rows.
//
// Adding in single precision gives the same bits as the double-then-float of the plain loop
// (float sums rounded through double round the same way), as long as (x * c) * 2^-15 is exact in
// float: the caller uses these kernels only when every input sample is zero or between 2^-111
// and 2^100 in magnitude. (Then the scale can also go on the coefficient first.)
class CMorvaneInterpolator {
public:
    static constexpr int kMaxTaps = 104; // the resampler's 101, rounded up to whole vectors
    static constexpr int kRows = 11;     // table offsets 0..10 occur (see CMorvaneResample)
    static constexpr int kBatch = 16;

    struct Point {
        const float* x; // first of the taps' interleaved stereo frames
        int32_t row;    // table offset of tap 0
        int32_t sub;    // fraction between the two table entries, in 1/32768
    };

    explicit CMorvaneInterpolator(CMorvaneIsa::Level isa = CMorvaneIsa::Detected());
    ~CMorvaneInterpolator();
    CMorvaneInterpolator(const CMorvaneInterpolator&) = delete;
    CMorvaneInterpolator& operator=(const CMorvaneInterpolator&) = delete;

    // Lays out a table of 8 entries per tap for the kernels: for each tap, both entries of each
    // row. Entries at or past the table's end count as 0.
    void Prepare(const int16_t* table, int entries);

    // False on the baseline: the caller keeps its plain loop.
    bool Available() const { return m_Isa != CMorvaneIsa::Baseline; }

    // Declares that the coming points read interleaved stereo frames within [begin, end). Call
    // it whenever the input changes: the kernels keep copies of what they read.
    void Source(const float* begin, const float* end);

    // Running sums of count <= kBatch points: left[i] and right[i] for points[i]. False when a
    // point reads outside the declared source or the kernels are not available (left and right
    // then hold nothing useful).
    bool Run(const Point* points, int count, int taps, float* left, float* right);

    // True when every sample of x[0..samples) may go through the kernels.
    static bool Exact(const float* x, long samples);

private:
    static constexpr int kPlane = 1024; // frames of each de-interleaved copy
    static constexpr int kWindow = 32;  // frames one tap of 16 points may span (8 points: 16)

    // Up to a vector of points (16 or 8), in two halves when they span more than a window.
    bool Group(const Point* points, int count, int taps, float* left, float* right);
    // Makes the copies hold [first, end), starting on a frame of theirs, when the source has it;
    // false otherwise.
    bool Copies(const float* first, const float* end);
    // De-interleaves from first on, as far as the source and the copies reach.
    void Fill(const float* first);

    CMorvaneIsa::Level m_Isa;
    // The tables and copies below live on pages of their own, touched only once a resampling
    // job prepares or reads them: a plug-in that never changes the pitch never pays for them.
    static constexpr int kTapRows = kMaxTaps * 16;
    Zeroed<float> m_pStore{4 * kTapRows + 2 * (kPlane + kWindow)};
    // Per tap, the 16 rows (those past kRows are 0): table[row + 8j + 1] and
    // table[row + 8j] - table[row + 8j + 1], as integers (AVX2) and scaled by 2^-15 (AVX-512).
    // (Each a whole number of cache lines from the page-aligned start.)
    int32_t* const m_TapBaseInt = reinterpret_cast<int32_t*>(m_pStore.get());
    int32_t* const m_TapDeltaInt = reinterpret_cast<int32_t*>(m_pStore.get() + kTapRows);
    float* const m_TapBase = m_pStore.get() + 2 * kTapRows;
    float* const m_TapDelta = m_pStore.get() + 3 * kTapRows;
    const float* m_pSourceBegin = nullptr;
    const float* m_pSourceEnd = nullptr;
    const float* m_pCopyFrom = nullptr; // interleaved frames [from, to) are in the copies
    const float* m_pCopyTo = nullptr;
    // one window past the copied frames, so that whole windows load at every tap
    float* const m_Left = m_pStore.get() + 4 * kTapRows;
    float* const m_Right = m_Left + kPlane + kWindow;
    static_assert(kTapRows % 16 == 0 && (kPlane + kWindow) % 16 == 0, "64-byte aligned parts");
    static_assert(sizeof(float) * (4 * kTapRows + 2 * (kPlane + kWindow)) >=
                      Zeroed<float>::kMapFrom,
                  "mapped, so page-aligned");
};
