#pragma once

#include "Zeroed.h"

// The crisp engine's resampler: both channels read at a step of the pitch rate through a
// Kaiser-windowed sinc, in single precision, from a table of kPhases phases with a line between
// each two neighbours. The cutoff sits at half the lower of the two rates, the transition from
// 0.45 to 0.55 of it: flat (0.1 dB) to 0.45 and, measured, at least 80 dB down on every image
// and alias of what lies below. Compiled for each of the kernels' levels, the same to the bit
// at each; identical channels stay identical.
class CCrispPolyphase {
public:
    // Taps at a pitch rate of 2, the highest crisp takes (the most any design has); every design
    // has a multiple of 16.
    static constexpr int kMaxTaps = 112;
    // The most history Read may want in front of its frames.
    static constexpr int kMaxHistory = kMaxTaps - 1;
    static constexpr int kPhases = 256;

    CCrispPolyphase();

    // Designs the filter for reading at pitchRate (between 1/4 and 2: after an input read at up
    // to 2, the rest of a pitch rate down to 1/2; the table is made only when the design changes)
    // and starts the read position again at 0.
    void Design(double pitchRate);
    // Reads n frames of left and right, each with kMaxHistory frames before it, into out[0] and
    // out[1] from index 0; returns the frames written. Raises loudest to the largest magnitude
    // written.
    int Read(float** out, const float* left, const float* right, int n, float* loudest);
    // Input frames it holds back: that many more, silent, bring out the last frame's output.
    int Delay() const { return m_nTaps / 2 + 1; }
    int Taps() const { return m_nTaps; }
    // Whether it reads at 1: it copies its input, and wants no history in front of it.
    bool AsItIs() const { return m_dRate == 1.0; }

private:
    // per phase, the taps' coefficients, then their steps to the next phase's (pages touched only
    // by a design: an engine that never transposes never pays for them)
    Zeroed<float> m_pTable;
    int m_nTaps = 0;
    double m_dRate = 0; // the rate designed for (at 1 there is no table)
    double m_dPos = 0;  // read position of the next output frame, relative to the next input
};
