#pragma once

#include <cstdint>
#include <memory>

#include "CRealFft.h"

// Finds attacks ahead of the vocoder: the rise of log-compressed magnitudes from one short frame
// to the next, each bin against the largest of its three neighbours in the frame before (so
// vibrato and slides do not count), summed over the band. A frame is an onset when that sum
// is a local peak standing clearly above its recent average. Frames are a quarter of their
// length apart; a decision waits for three frames after its own.
class CCrispOnsets {
public:
    static constexpr int kLead = 3; // frames a decision waits for

    CCrispOnsets() = default;

    // Allocates for frames of frame samples (a power of two or three times one) at rate and
    // restarts.
    void Configure(int frame, int rate);
    void Restart();
    // Both transforms' work arrays are another's (see CRealFft::ShareWork).
    void ShareWork(const CRealFft& with) {
        m_Fft.ShareWork(with);
        m_Long.ShareWork(with);
    }
    int FrameLength() const { return m_nFrame; }
    int Hop() const { return m_nFrame / 4; }

    // The input time the next frame is centred on.
    int64_t NextCentre() const { return m_nNext * Hop(); }
    // Analyses FrameLength() mono samples centred on NextCentre(). Returns the centre of the
    // frame this confirms as an onset, or -1.
    int64_t Analyse(const float* x);
    // Frames centred at or after this time are still undecided.
    int64_t Undecided() const { return (m_nNext - kLead) * Hop(); }

    // Where in x (n samples) the attack starts: the short block at which the energy of the
    // signal's slope rises most.
    static int Refine(const float* x, int n, int block);
    // Whether a sound stops short in x (n samples): its second half 40 dB or more below its
    // first, which is above -70 dBFS. No natural decay falls that fast.
    static bool Stops(const float* x, int n);
    // The same from the energies of its halves.
    static bool Stops(double first, double second, int n);
    // The sum of squares of n samples.
    static double Energy(const float* x, int n);
    // Whether an onset found at centre holds in frames twice as long, which span a low note's
    // period: their spectra, ending at before and starting at after (LongFrame() samples each,
    // LongGap() apart), rise as the short frames' did. The partials of a bright low note beat
    // in the short frames' bins as the hop slides along the period, and read as attacks.
    bool Holds(const float* before, const float* after);
    int LongFrame() const { return 2 * m_nFrame; }
    // where those frames start, from the onset's centre
    int LongBefore() const { return -2 * m_nFrame - m_nFrame / 4; }
    int LongAfter() const { return -3 * m_nFrame / 4; }

private:
    static constexpr int kHistory = 32;
    double Flux(int64_t j) const { return m_dFlux[j & (kHistory - 1)]; }

    CRealFft m_Fft;
    CRealFft m_Long;
    int m_nFrame = 0;
    int m_nLow = 1, m_nHigh = 1;        // band of bins summed
    int m_nBass = 1;                    // the last bin of its bass end
    double m_dNorm = 1;                 // full-scale sine to magnitude 1
    std::unique_ptr<double[]> m_pStore; // the rows of magnitudes are views into it
    std::unique_ptr<float[]> m_pFloats; // and the spectra into this
    const float* m_pWin = nullptr;      // Hann windows (shared)
    float* m_pRe = nullptr;
    float* m_pIm = nullptr;
    double* m_pLog = nullptr; // this frame's compressed magnitudes
    const float* m_pLongWin = nullptr;
    double* m_pLongLog = nullptr; // the long frames' compressed magnitudes, before and after
    float* m_pLongSpectrum = nullptr;
    double* m_pPrev = nullptr;  // the last frame's, each the largest of three neighbours ...
    double* m_pOlder = nullptr; // ... and the one's before
    double m_dFlux[kHistory] = {};
    int64_t m_nNext = 0;
    int64_t m_nLastOnset = -1000;
    int m_nMinGap = 4; // frames between two onsets
    int m_nRepeat = 7; // frames looked back at for a repeated rise
};
