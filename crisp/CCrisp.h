#pragma once

#include <cstdint>
#include <memory>

#include "CCrispOnsets.h"
#include "CCrispPeakGuard.h"
#include "CCrispPolyphase.h"
#include "CCrispTimeMap.h"
#include "CCrispVocoder.h"
#include "CCriticalSection.h"
#include "Zeroed.h"

// The second engine: attacks kept once and in place. A phase vocoder stretches by
// time x pitch rate, reading each attack 1:1 (CCrispTimeMap) with its phases rebuilt
// (CCrispVocoder); its resampler (CCrispPolyphase) then reads the result at the pitch rate. A job
// that starts transposed up far enough has its input read at the pitch rate first instead, and
// the stages on half the window, so that the vocoder makes no more frames than at that time rate
// alone and the resampler reads fewer; the resampler after it then reads at the rest of the
// pitch rate (1 until the pitch changes). Takes
// the same calls from the effect as the splice engine, with the same locking: every public
// operation but construction takes the engine lock. The output of a job is exactly
// round(input frames x time rate) long.
//
// Below a crossover a second vocoder with a window four times as long takes over, so that the
// partials of low notes stay apart; its frames follow the same time map. Around each onset it
// hands the low bins back to the short window, whose frames keep the attack in its place, and
// when it takes them again it joins its phases to the short window's (those of
// a low note's partials by one time shift, so that its waveform stays as it was).
//
// LowSound on looks for onsets and keeps them; off stretches everything alike, which suits
// material without attacks (pads, strings, drones).
class CCrisp {
public:
    CCrisp();
    CCrisp(const CCrisp&) = delete;
    CCrisp& operator=(const CCrisp&) = delete;

    // Changes during a job apply at the next call, from where the job stands.
    void SetTimeRate(double rate, bool running);
    void SetPitchRate(double rate, bool running);
    // Sizes every buffer for rate (held to the splice engine's range) and restarts.
    void SetSamplingRate(int rate);
    void StartToProcess();
    void SetActive(bool on);
    void SetLowSound(float v); // only -1 turns it off, as in the splice engine; at the next job
    // Whether the next job's two inputs are one and the same (a mono recording): its work is
    // then done once, on the left, whose output the right copies, and the right input is not
    // read. The output is the same, to the bit, as for the two identical inputs.
    void SetMono(bool mono);
    // Whether some output went above full scale since the last call.
    bool TakeOver();

    // count frames of in[0] and in[1], last on the block that ends the recording; returns the
    // frames written from index 0 of out[0] and out[1], at most MaxOutput(count).
    int Process(float** out, float** in, int count, bool last);
    // With a step (frames, 0 for none, the default), the block that ends the recording stops
    // flushing once it has written that many frames and Flush gives the rest, a step or a little
    // more a call, so that a host's output can pass through the same few pages. Set before a job.
    void SetFlushStep(int frames);
    int Flush(float** out); // the frames written from index 0, at most MaxOutput(0)
    bool Flushing();        // whether some of the job's flush is still to come
    // All the input the ring may hold unturned plus this call's, at a time rate of at most 2,
    // plus half a second for the resampler's flush and the rounding of the job's length.
    int MaxOutput(int count) const;
    int SampleRate() const { return m_nRate; }

private:
    void Restart();
    void Size();                // the buffers and stages, for m_nRate and m_dPre
    void Rebuild();             // the rest of a restart, once sized
    int64_t Target() const;     // the job's output frames, for the input so far
    int64_t StretchEnd() const; // the vocoder output the job needs, once its input has ended
    double OutputCentre(int64_t frame) const; // of a synthesis frame
    void ApplyRates();
    // n frames from at of each channel: where the ring holds them in one run, or copied into
    // m_pFrame (zeros where it holds none)
    void Gather(int64_t at, int n, const float** frame) const;
    const float* GatherMono(int64_t at, int n);    // the channels' mean, into m_pMono
    const float* DetectorFrame(int64_t at, int n); // the same, into m_pDetect
    void FeedDetector();
    void KeepLowAway(double t); // no low frame heard within half its window of t
    bool MainCentre(double* c); // of the next synthesis frame, asked of the map once
    bool NextFrame(float** out, int* produced);
    bool StepDone(int produced) const; // the flush has written a step in this call
    // What the input so far allows: the detector and the low band fed, then frames until none
    // can be made or a step is done; whether any was.
    bool MakeFrames(float** out, int* produced);
    bool NextLowFrame();
    double LowOutputCentre(int64_t frame) const;
    double LowShare(double c, double o) const; // of a low frame at input centre c, output o
    double LowWeight(double o) const;          // what the low frames made give output centre o
    void Decimate();
    int64_t Room() const; // input frames the rings can take now
    bool
    Grow(); // the wrap of the ring that is full doubled, when frames wait on more than it holds
    void GatherDown(int64_t at, const float** frame); // a low frame, the same way
    void AddLow(int64_t from, int n);
    void Emit(float** out, int* produced, const float* left, const float* right, int n);
    // Up to count frames of in into the ring, read at m_dPre, as far as the ring has room; at
    // the input's end also the silence that brings out the last. Returns the frames taken.
    int TakeRead(float* const* in, int count, bool last, bool* fed);
    void Finish(float** out, int* produced);
    // The guard hears the input up to frame until of the ring: up to where the frames made so
    // far needed it, so that its peak, and the output, are the same whatever the blocks were.
    void WatchTo(int64_t until);
    // n frames of the input as received, from frame at: their loudest into the buckets
    void Bucket(const float* left, const float* right, int64_t at, int n);

    CCriticalSection m_cs;
    CCrispOnsets m_Onsets;
    CCrispTimeMap m_Map;
    CCrispVocoder m_Vocoder;
    CCrispTimeMap m_LowMap; // the same map, asked for the low frames' centres
    CCrispVocoder m_Low;
    CCrispPolyphase m_Resample;
    CCrispPolyphase m_Pre;   // in front of the ring, in a job that starts far enough up
    CCrispPeakGuard m_Guard; // last, on the output

    int m_nRate = 0;
    double m_dTime = 1, m_dPitch = 1;         // in force
    double m_dTimeNext = 1, m_dPitchNext = 1; // asked for
    double m_dPre = 1; // the input read at this step before the vocoder, for the whole job
    bool m_bActive = true;
    bool m_bOnsets = true;     // in force
    bool m_bOnsetsNext = true; // asked for
    bool m_bMono = false;      // in force: the right channel is the left
    bool m_bMonoNext = false;  // asked for
    bool m_bOver = false;
    bool m_bSized = false;      // the buffers and stages fit m_nRate
    bool m_bRestartDue = false; // a restart waits for the buffers

    Zeroed<float> m_pStore; // the buffers below are views into it; pages touched as reached

    // input: a ring of recent frames per channel
    float* m_pRing[2] = {};
    int64_t m_nRingSize = 0;        // room for the most any job needs ...
    int64_t m_nWrap = 0;            // ... and where this one's wraps (grown on demand)
    int64_t m_nIn = 0;              // frames the ring has taken this job
    int64_t m_nTaken = 0;           // input frames received (m_nIn x m_dPre, as near as it gets)
    int64_t m_nKeepFrom = 0;        // the oldest frame still needed
    int64_t m_nWatched = 0;         // the frames (read first, buckets) the guard has heard
    bool m_bFinal = false;          // the input has ended
    float* m_pFrame[2] = {};        // one window per channel (the longer of the two)
    float* m_pMono = nullptr;       // one detector frame (or a long one) ...
    float* m_pLongBefore = nullptr; // ... and another long one
    float* m_pSilence = nullptr;    // a frame of zeros: the right channel's in a mono job
    float* m_pDetect = nullptr;     // the detector's last frame, from m_nDetectAt
    int64_t m_nDetectAt = 0;
    double m_dHops[4] = {};    // the energies of the last detector frame's four hops ...
    int64_t m_nHopsCentre = 0; // ... and its centre

    // frames
    int64_t m_nFrame = 0;       // synthesis frames made
    int64_t m_nLastRead = 0;    // where the last one was read
    double m_dLastOnset = -1;   // the onset whose 1:1 stretch the last frame was in
    int64_t m_nStretched = 0;   // vocoder output taken, counted from the output's start
    int64_t m_nStretchEnd = -1; // the vocoder output the job needs, once the input has ended
    float* m_pHop[2] = {};
    double m_dMainCentre = 0;
    bool m_bMainCentre = false; // m_dMainCentre is the next frame's

    // the low band
    bool m_bLow = false;  // there is one (its window is longer)
    int m_nLowWindow = 0; // its window at the full rate
    static constexpr int kHalfTaps = 25;
    float m_fTaps[kHalfTaps] = {}; // the quarter rate's filter from its centre out (symmetric)
    static constexpr int kPhaseTaps = 13;
    float m_fPhase[4][kPhaseTaps] = {}; // the same, by phase, to interpolate
    float* m_pDown[2] = {};             // the input at a quarter of the rate, a ring ...
    int64_t m_nDownRing = 0;            // ... with room for this many, wrapping at ...
    int64_t m_nDownWrap = 0;            // ... this many (grown on demand, apart from m_nWrap) ...
    int64_t m_nDown = 0;                // ... holding this many so far
    int64_t m_nLowFrame = 0;            // its frames made
    int64_t m_nLowLastRead = 0;         // where the last one was read
    double m_dLowMadeAt = 0;            // the output centre of the last one analysed and turned
    bool m_bLowSkipped = false;         // the last one was not made (not heard)
    bool m_bLowSettling = false;        // an onset passed, its spectrum not yet still
    int64_t m_nLowEnd = 0;              // the output it has given ends here
    float* m_pLowOut[2] = {};           // a ring of its output at a quarter of the rate
    int m_nLowRing = 0;                 // (a power of two)
    static constexpr int kLowOnsets = 64;
    double m_dLowOnset[kLowOnsets] =
        {}; // onsets and stops ahead of the low frames and just behind them
    int m_nLowFirst = 0, m_nLowCount = 0;
    int64_t m_nLastStop = 0; // the last detector frame in which a sound stopped short
    double m_dLowPassed = 0; // the last onset a low frame passed
    static constexpr int kLowShares = 8;
    double m_dLowO[kLowShares] = {}, m_dLowS[kLowShares] = {}; // recent low frames' centres, shares

    // resampler input, left then right: history, then new frames
    float* m_pStretch = nullptr;
    int m_nStretchRoom = 0;
    // the input read before the ring: the same for its input, and its output
    static constexpr int kPreChunk = 1024;
    float* m_pPreIn[2] = {};
    float* m_pPreOut[2] = {};
    int m_nPreFlushed = 0; // silent frames given it after the input's end
    // the loudest sample of each kBucket frames of the input as received, a ring
    static constexpr int kBucket = 256, kBuckets = 1024;
    float* m_pBuckets = nullptr;

    // the job's output
    double m_dOutBase = 0; // output frames owed for the input before m_dInBase ...
    double m_dInBase = 0;  // ... at the rates before the last change
    int64_t m_nOut = 0;    // frames given this job
    bool m_bDone = false;
    int m_nFlushStep = 0;
};
