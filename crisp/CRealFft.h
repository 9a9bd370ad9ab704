#pragma once

#include <memory>

#include "CMorvaneIsa.h"
#include "Zeroed.h"

// A transform of n real samples through a complex transform of n / 2 points: even and odd
// samples ride as one complex sequence and are told apart afterwards. The complex transform is a
// radix-4 Stockham one (with one radix-3 stage for three times a power of two) on separate real
// and imaginary arrays, whose stages are straight runs that vectorise; it is compiled for each
// instruction set the splice engine has kernels for (MORVANE_SIMD caps it), every path giving the
// same bits. It works in single precision (twice the lanes per instruction) or double; the samples
// it hands back are double either way, the spectrum double or single as the caller's arrays are,
// with the n / 2 + 1 bins from 0 to Nyquist as separate real and imaginary arrays. Forward is the
// plain DFT (a full-scale sine of amplitude A peaks near A n / 4 under a Hann window); Inverse
// returns its input.
class CRealFft {
public:
    static constexpr int kMaxPoints = 16384;

    enum class Precision { Single, Double };

    explicit CRealFft(CMorvaneIsa::Level isa = CMorvaneIsa::Detected(),
                      Precision precision = Precision::Single);
    CRealFft(const CRealFft&) = delete;
    CRealFft& operator=(const CRealFft&) = delete;

    // Prepares n points (a power of two, or three times one, from 4 to kMaxPoints); false
    // otherwise. Allocates only the
    // first time the process prepares that size (its twiddles, shared from then on).
    bool Prepare(int n);
    int Points() const { return m_nPoints; }
    // Works in other's arrays from now on: transforms that one thread runs one after another
    // then touch one set of pages. other must outlive this one and never run at the same time.
    void ShareWork(const CRealFft& other);

    void Forward(const double* x, double* re, double* im);
    // The same of x[i] window[i] into a spectrum in single precision (a single-precision
    // transform's own values).
    void Forward(const float* x, const float* window, float* re, float* im);
    // Overwrites nothing it is given: re and im keep the spectrum. The imaginary parts of bins 0
    // and n / 2 are taken as zero, as for any real signal.
    void Inverse(const double* re, const double* im, double* x);
    // Adds the samples of Inverse times window and gain (those products in the transform's
    // precision), sample m to to[m] below split (even) and to rest[m - split] from there: an
    // overlap-add into two runs of a ring.
    void InverseAdd(const double* re, const double* im, const float* window, double gain, float* to,
                    int split, float* rest);
    void InverseAdd(const float* re, const float* im, const float* window, double gain, float* to,
                    int split, float* rest);

private:
    // The twiddles of one size, made once for the process by the first transform of that size
    // to be prepared and read by every other (CRealFft.cpp keeps them).
    template <typename R> struct Twiddles;
    // the work arrays, sized for kMaxPoints in the precision used (empty in the other; a transform
    // of fewer points touches only the pages it uses), and that size's twiddles
    template <typename R> struct Tables {
        explicit Tables(bool used);
        void Prepare(int n);
        Zeroed<R> work;            // two complex sequences of n / 2, real and imaginary apart
        const R* stages = nullptr; // each stage's twiddles, real parts then imaginary
        const R* twRe = nullptr;   // cos and sin of -2 pi k / n, k < n / 2
        const R* twIm = nullptr;
        const R* wide4 = nullptr; // the stage of stride 4's, each repeated 4 times
    };

    template <typename T, typename S> void Transform(const T* x, const float* window, S* re, S* im);
    template <typename S> void Backward(const S* re, const S* im, const void* output);

    CMorvaneIsa::Level m_Isa;
    Precision m_Precision;
    int m_nPoints = 0;
    Tables<float> m_Single;
    Tables<double> m_Double;
    float* m_pSingleWork = nullptr; // another's, or none: its own
    double* m_pDoubleWork = nullptr;
    float* SingleWork() const { return m_pSingleWork ? m_pSingleWork : m_Single.work.get(); }
    double* DoubleWork() const { return m_pDoubleWork ? m_pDoubleWork : m_Double.work.get(); }
};
