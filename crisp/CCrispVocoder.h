#pragma once

#include <cstdint>
#include <limits>
#include <memory>

#include "CRealFft.h"
#include "Zeroed.h"

// A stereo phase vocoder with identity phase locking. Each frame's phases move on from the last
// output frame's at the pace of each spectral peak's own frequency, and the bins around a peak
// keep their phase relation to it, so partials stay whole instead of smearing into phasiness.
// Both channels are turned by the same phase per bin, taken from their sum: what sits in the
// centre stays in the centre, and two identical channels come out identical. At an attack the
// bins that rise take the input's phases again, which rebuilds the attack as it was.
//
// Frames are a fixed synthesis hop of a quarter window apart; Hann windows on both sides.
//
// Two vocoders of different lengths can split the spectrum between them: the longer one takes
// the bins below a crossover (a raised-cosine fade), the shorter one the rest, each frame at a
// share of the split that the caller sets, so that the two outputs add up to the whole.
class CCrispVocoder {
public:
    CCrispVocoder() = default;
    CCrispVocoder(const CCrispVocoder&) = delete;
    CCrispVocoder& operator=(const CCrispVocoder&) = delete;

    // Allocates for window samples (a power of two or three times one, 16 to CRealFft::kMaxPoints)
    // and restarts.
    void Configure(int window);
    int Window() const { return m_nWindow; }
    int Hop() const { return m_nWindow / 4; }
    // The transform's work arrays are another's (see CRealFft::ShareWork).
    const CRealFft& Transform() const { return m_Fft; }
    void ShareWork(const CRealFft& with) { m_Fft.ShareWork(with); }

    // A new stream: the next frame keeps its input phases, and the output starts silent.
    void Restart();

    // Splits the spectrum at a crossover fading from from to to (cycles per sample): the low
    // side keeps share x the bins below, the other side the rest. No split: every bin, whole.
    void Split(double from, double to, bool low);

    // The spectrum just after an attack, for the next Frame with reset: the frame's bins that
    // rise 6 dB or more towards it take their input phases.
    void Attack(const float* left, const float* right);

    // Analyses window samples of each channel, read hop samples after the last frame's, and
    // adds the synthesised frame to the output, one synthesis hop after the last. share: of the
    // split's low side (see Split). align: when finite, each peak's phase becomes its input
    // phase as if read align samples later, which joins this frame to another vocoder's
    // phases after a reset there. steady: a frame whose spectrum differs more than this from the
    // last one analysed (1 alike, 0 apart; a glide moving on) is not heard, and a Join waits.
    // Returns the share the frame was heard at.
    double Frame(const float* left, const float* right, int hop, bool reset, double share = 1,
                 double align = std::numeric_limits<double>::quiet_NaN(), double steady = 0);

    // For the next Frame: each peak takes the phase that other (a vocoder at down times this
    // one's rate, whose last frame is centred shift of its samples before the next one here)
    // gives a partial of its frequency there, moved on to this frame's centre. Peaks that other
    // does not hold keep their own. With near finite, peaks too close together for other's
    // window to tell apart (a low note's partials, which it blends) move as one instead, so that
    // they keep their phases to one another, and with them the note's waveform: by the time
    // shift nearest near (this one's samples, as align) that gives the strongest of them its
    // join.
    void Join(const CCrispVocoder* other, double shift, double down,
              double near = std::numeric_limits<double>::quiet_NaN());

    // Analyses a frame that is not heard, for the next Frame to measure its peaks' frequencies
    // against (with align: a frame that joins another vocoder's phases).
    void Prime(const float* left, const float* right);

    // The hop of output that no later frame adds to; then moves on by a hop.
    void Take(float* left, float* right);

private:
    // false: a silent frame, whose spectrum is zero without a transform
    bool Analyse(const float* x, float* re, float* im);
    void Lock(int hop, double align);
    // A peak's frequency (radians a sample) from its phase's advance over hop since the last
    // frame, or its bin's centre when the last frame did not hold it.
    double Frequency(int bin, int hop) const;

    CRealFft m_Fft;
    int m_nWindow = 0;
    int m_nBins = 0;
    int m_nActive = 0; // bins processed: all, or those the low side of a split keeps
    int m_nSplit = 0;  // 0: none; 1: low side; -1: high side
    int m_nFade = 0;   // the first bin past the split's fade
    const CCrispVocoder* m_pJoin = nullptr; // see Join
    double m_dJoinShift = 0;
    double m_dJoinDown = 1;
    double m_dJoinNear = std::numeric_limits<double>::quiet_NaN(); // see Join
    int m_nNarrow = 0; // peaks below this bin need stand out of one neighbour each side, not two
    bool m_bFirst = true;
    bool m_bClean = false;         // the rings and the last spectra hold zeros
    Zeroed<double> m_pStore;       // the arrays below are views into it; pages touched as reached
    const float* m_pWin = nullptr; // Hann window (shared)
    double* m_pScratch = nullptr;  // a window's room for the phase lock
    double* m_pMask = nullptr;     // the low side's fade
    // The spectra in single precision, the transform's own: views into one more store.
    Zeroed<float> m_pSpectra;
    float* m_pLre = nullptr; // left spectrum ...
    float* m_pLim = nullptr;
    float* m_pRre = nullptr; // ... right spectrum ...
    float* m_pRim = nullptr;
    float* m_pMre = nullptr; // ... and their sum
    float* m_pMim = nullptr;
    float* m_pPower = nullptr;  // |sum|^2
    float* m_pAttack = nullptr; // |sum|^2 after the attack
    float* m_pPrevRe = nullptr; // the last frame's sum, as analysed ...
    float* m_pPrevIm = nullptr;
    float* m_pOutRe = nullptr; // ... and as turned
    float* m_pOutIm = nullptr;
    float* m_pZre = nullptr; // the turn of each bin
    float* m_pZim = nullptr;
    std::unique_ptr<int[]> m_pPeaks;
    // the peaks that join the other vocoder: their bins, the other's bins and their places among
    // the peaks; their own turns over the shift; and their turns (view into m_pStore)
    std::unique_ptr<int[]> m_pJoins;
    std::unique_ptr<float[]> m_pJoinTurn;
    double* m_pJoinZ = nullptr;
    float* m_pAcc[2] = {}; // overlap-add, a ring of two windows
    int m_nAccAt = 0;
};
