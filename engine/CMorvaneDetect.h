#pragma once

#include <cstdint>

#include "CMorvaneFft.h"
#include "Zeroed.h"
#include "mvArg.h"

// Finds where the next segment of held audio ends: at the next onset (a sudden rise of spectral
// energy such as a note attack or a drum hit), so that the block stretcher never splices across
// an attack and each segment begins at one. Spectral flux of 20 ms Hann frames at a hop of half
// a frame, each frame compared with the one a full frame earlier.
class CMorvaneDetect {
public:
    static constexpr int kMaxFrame = 8192; // largest frame and transform the arrays hold
    static constexpr int kCurveLen = 1024; // analysis frames per Detect call
    static_assert(kMaxFrame <= CMorvaneFft::kMaxPoints);

    explicit CMorvaneDetect(CMorvaneIsa::Level isa = CMorvaneIsa::Detected());
    ~CMorvaneDetect();
    CMorvaneDetect(const CMorvaneDetect&) = delete;
    CMorvaneDetect& operator=(const CMorvaneDetect&) = delete;

    // Prepares the window for frame length F and returns the transform size. A frame length
    // above kMaxFrame is treated as kMaxFrame; Detect then finds no onsets for longer frames.
    int IniDetect(int F);

    // Length in frames of the next segment of the count interleaved frames at in: up to the next
    // onset; else everything when arg->bFinal is set, or 90 % plus one. Between 1 and count for
    // count >= 1. A frame length of 0 (low-sound option off) or one that does not match the
    // prepared transform skips the search and takes the no-onset answer.
    int Detect(float* in, int count, mvArg* arg);

    // Tests whether analysis frame t - 1 of curve c is an onset; returns its position in
    // frames, or 0.
    int checkPoint(double* c, int t, int pos, int F, double level, double ratio);

    int FFTSize() const { return m_nFFT; }
    int32_t Window(int i) const { return m_Window[i]; }

    // The two flux curves of the last Detect call, index 1 up to the last frame it analysed.
    const double* FluxPos() const { return m_pFluxPos; }
    const double* FluxAbs() const { return m_pFluxAbs; }

private:
    void WindowFrame(const float* frame, int ch, int F, double* out) const;
    void Magnitudes(int bins, double scale, double norm);

    CMorvaneIsa::Level m_Isa;
    int32_t m_nFFT = 1;
    int32_t m_nWindowLen = 0; // the frame m_Window was made for
    CMorvaneFft m_Fft;
    Zeroed<int32_t> m_Window{kMaxFrame + 1}; // a short frame touches only its own pages
    Zeroed<double> m_pFluxPos;               // net magnitude rise per frame, floored at 0
    Zeroed<double> m_pFluxAbs;               // total absolute magnitude change per frame
    Zeroed<double> m_pFrame;    // the windowed frame amid its zero padding, in natural order
    Zeroed<double> m_pSpectrum; // transform work buffer, interleaved (re, im)
    Zeroed<double> m_pDiff;     // each bin's change of magnitude in the current frame
    Zeroed<double> m_pMag1;     // magnitudes one hop back ...
    Zeroed<double> m_pMag2;     // ... and two hops back, which is what each frame is compared with
};
