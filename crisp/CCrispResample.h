#pragma once

#include "CMorvaneResample.h"
#include "mvArg.h"

// The splice engine's resampler as the crisp engine uses it: interleaved stereo read at a step
// of the pitch rate, at unity gain, with the resampler's cleaner design. Takes rates and lengths;
// the settings record the resampler reads stays inside.
class CCrispResample {
public:
    // The most history Read may want in front of its frames.
    static constexpr int kMaxHistory = CMorvaneResample::kMaxTaps;

    CCrispResample();

    // Designs the filter for reading at pitchRate; the read position starts again at 0.
    void Design(double pitchRate);
    // Reads n frames at in, with kMaxHistory frames before it, into out[0] and out[1] from index
    // 0; returns the frames written. Sets over when one went above full scale.
    int Read(float** out, float* in, int n, bool* over);
    // Input frames it holds back: that many more, silent, bring out the last frame's output.
    int Delay() const;

private:
    CMorvaneResample m_Resample;
    mvArg m_Arg;
};
