#pragma once

#include <cstdint>

#include "Zeroed.h"

// Keeps the crisp engine's output at or below the loudest input sample the job has had so far:
// a rebuilt attack can come out a hair above its input, and a vocoder's turned partials can line
// up into a higher peak, which a recording mastered to full scale would then clip. Ahead of such
// a peak the gain comes down over a short look-ahead to meet it exactly, holds, then recovers:
// no step that clicks, a steady gain for a tone whose every period rises, and both channels
// alike, so a centred source stays centred. It comes down by a dB at most: a waveform that rose
// further as a whole (a master already clipped) would only be made quieter. Everywhere else the
// output is the input, Delay() frames later.
class CCrispPeakGuard {
public:
    // Allocates for rate and restarts.
    void Configure(int rate);
    // A new job: nothing heard yet, nothing held.
    void Restart();
    // n frames of the job's input, as received (samples that cleaning takes as silence or
    // limits count as it takes them).
    void Watch(const float* left, const float* right, int n);
    // The same for frames whose loudest sample is known.
    void Hear(float loudest);
    // Guards in place the n frames of left and right that follow the Pending() frames there,
    // the new frames' largest magnitude being loudest: returns how many frames from index 0 are
    // done (a frame is done once Delay() frames follow it; the rest are pending). Sets over
    // when one done went above full scale.
    int Run(float* left, float* right, int n, float loudest, bool* over);
    // Frames that Run left pending, which its next call wants in front of its new frames.
    int Pending() const { return m_nPending; }
    // Keeps the pending frames (at left and right) for a call with other buffers ...
    void Stash(const float* left, const float* right);
    // ... and puts them back at left and right, in front of where the next frames go.
    void Resume(float* left, float* right) const;
    // Frames held back: that many more, silent, bring out the last.
    int Delay() const { return m_nAhead; }

private:
    static constexpr int kChunk = 256;
    // the n frames from start of left and right, each the gain of the frame Delay() before it
    void Slow(float* left, float* right, int start, int n);
    void Release(float* left, float* right, int start, int n);
    // The cut a frame on: recovering, and never below ramp.
    void Recover(float ramp);
    // The gain of a frame going out whose louder channel is out: 1 less the cut, lowered (and
    // the cut with it) while the frame would stay over the peak, as far as the cut may go.
    float GainFor(float out);
    // Frame u wants the gain want: into the queue, behind the wants no greater.
    void Want(float want, int64_t u);
    // From frame j of those, the frames that change nothing but their gain: none wanting a
    // deeper cut, none letting one go, the ring all one value and the cut at its mean. Returns
    // how many, done in place.
    int Steady(float* left, float* right, int start, int j, int n);
    static constexpr int kSteady = 32;

    int m_nAhead = 0;         // look-ahead, frames
    int m_nHold = 0;          // a cut held after its peak, frames
    float m_fRecover = 0;     // per frame, what stays of a reduction
    float m_fPeak = 0;        // loudest input so far
    float m_fCut = 0;         // 1 less the gain applied to the frame going out (small cuts keep
                              // their precision this way)
    int64_t m_nAt = 0;        // frames taken this job
    int m_nPending = 0;       // frames in front of the next ones, not yet done
    int64_t m_nHotUntil = 0;  // done frames before this one may be above full scale
    int64_t m_nClearFrom = 0; // from this frame on, no reduction is wanted ahead
    Zeroed<float> m_pStore;
    float* m_pStash[2] = {}; // the pending frames between two calls
    // the wanted gains ahead, least first (a window's minimum in a queue), and the rolling mean
    // of their minima, as what each falls short of 1
    float* m_pWant = nullptr;
    int64_t* m_pWantAt = nullptr;
    Zeroed<int64_t> m_pAtStore;
    int m_nWantFirst = 0, m_nWantCount = 0, m_nWantMask = 0;
    float* m_pShort = nullptr; // ring of m_nAhead; m_nShortAt the next to write
    int m_nShortAt = 0;
    double m_dShort = 0;    // their sum
    float m_fShortLast = 0; // the last value written there ...
    int m_nShortSame = 0;   // ... and how many times running (up to m_nAhead)
};
