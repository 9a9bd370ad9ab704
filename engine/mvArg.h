#pragma once

#include <cstdint>

// Settings and per-stream flags shared by every stage of the engine. The engine object derives
// from this record and hands itself to the detector, the block stretcher and the resampler, so
// all stages read the same values without copies. Written and read only under the engine lock.
struct mvArg {
    int32_t nChannels =
        2;              // the working buffers are always two floats a frame; the stages also take 1
    uint8_t bFinal = 0; // no more input: the detector must consume everything held
    int32_t nFrameLen = 882;     // onset analysis frame, 20 ms, always even
    int32_t nSampleRate = 44100; // also the capacity in frames of the input holding area
    double dOnsetLevel1 = 40.0;  // threshold of the positive spectral-flux curve
    double dOnsetRatio1 = 1.5;   // peak-to-neighbour ratio for that curve
    double dOnsetLevel2 = 40.0;  // threshold of the absolute spectral-flux curve
    double dOnsetRatio2 = 1.5;
    double dStretch = 1.0;       // time rate x pitch rate
    int32_t nSubBlockLen = 1587; // nominal sub-block of the block stretcher (1.8 frames of 20 ms)
    uint8_t bWeighted = 1;       // spread the length change by loudness
    double dHeadRatio = 0.3;     // shares of a sub-block's output length ...
    double dTailRatio = 0.4;
    double dSearchBack = 0.18; // ... and of the splice search around the head
    double dSearchFwd = 0.16;
    double dLagWeight = 0.4;
    double dPitchRate = 1.0;
    double dTimeRate = 1.0;
    double dPitchRateNext = 1.0; // requested while a job runs, applied at the next block
    double dTimeRateNext = 1.0;
    uint8_t bLastSegment = 0; // the resampler flushes its filter on this segment
    float fOutputLevel = 1.0f;
    uint8_t bOver = 0;    // sticky: some output sample went above +1.0
    uint8_t bDrum = 0;    // stored only
    uint8_t bPreServ = 1; // when clear the resampler passes the stretched signal through
    uint8_t bActive = 1;
    uint8_t bLowSound = 1;
};
