#pragma once

#include <memory>

#include "CMorvaneFft.h"
#include "Zeroed.h"

// A transform of n real samples through the engine's complex transform of n / 2 points: even and
// odd samples ride as one complex sequence and are told apart afterwards. The spectrum has the
// n / 2 + 1 bins from 0 to Nyquist as separate real and imaginary arrays. Forward is the plain
// DFT (a full-scale sine of amplitude A peaks near A n / 4 under a Hann window); Inverse
// returns its input.
class CRealFft {
public:
    static constexpr int kMaxPoints = 2 * CMorvaneFft::kMaxPoints;

    CRealFft();
    CRealFft(const CRealFft&) = delete;
    CRealFft& operator=(const CRealFft&) = delete;

    // Prepares n points (a power of two from 4 to kMaxPoints) without allocating; false otherwise.
    bool Prepare(int n);
    int Points() const { return m_nPoints; }

    void Forward(const double* x, double* re, double* im);
    // Overwrites nothing it is given: re and im keep the spectrum. The imaginary parts of bins 0
    // and n / 2 are taken as zero, as for any real signal.
    void Inverse(const double* re, const double* im, double* x);

private:
    CMorvaneFft m_Fft;
    int m_nPoints = 0;
    // sized for kMaxPoints; a transform of fewer points touches only the pages it uses
    Zeroed<double> m_pWork; // n / 2 complex values, interleaved
    Zeroed<double> m_pTwRe; // cos and sin of -2 pi k / n, k < n / 4 + 1
    Zeroed<double> m_pTwIm;
};
