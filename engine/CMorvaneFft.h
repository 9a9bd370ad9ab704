#pragma once

#include "CMorvaneIsa.h"
#include "Zeroed.h"

// The engine's double-precision transform (the free function fft() in fft.h) with its tables
// prepared once: the bit-reversal swaps and, for every stage and both directions, the twiddles
// taken of the same accumulated angles. The butterflies are the same operations in the same
// order per element, so the output is the same to the bit; the AVX2 path runs two butterflies
// per instruction, the AVX-512 path four.
class CMorvaneFft {
public:
    static constexpr int kMaxPoints = 8192;

    explicit CMorvaneFft(CMorvaneIsa::Level isa = CMorvaneIsa::Detected());
    ~CMorvaneFft();
    CMorvaneFft(const CMorvaneFft&) = delete;
    CMorvaneFft& operator=(const CMorvaneFft&) = delete;

    // Fills the tables for n points, without allocating. Returns false, and leaves the plan
    // doing nothing, unless n is a power of two from 1 to kMaxPoints.
    bool Prepare(int n);
    int Points() const { return m_nPoints; }

    // In place on m_nPoints interleaved (re, im) pairs; see fft().
    void Transform(double* data, bool forward) const;

    // The parts of Transform, for callers that place their input in bit-reversed order
    // themselves (Reversal()[i] is the natural index that goes to position i) and divide by
    // Scale() only what they use: Transform is the swaps, Butterflies, then each value / Scale().
    // Butterflies runs the stages from size `from` (1, 2, 4, ...) on; a caller may do the first
    // ones itself with the twiddles of Twiddles(): stage m's k-th pair at index 2 * (m - 1 + k).
    const int* Reversal() const { return m_pRev; }
    void Butterflies(double* data, bool forward, int from = 1) const;
    double Scale() const { return m_dScale; }
    const double* Twiddles(bool forward) const { return forward ? m_pForward : m_pInverse; }

private:
    void PlainButterflies(double* data, const double* twiddles, int from) const;
    // stages from <= m < until
    void Butterflies256(double* data, const double* twiddles, int from, int until = 1 << 30) const;
    void Butterflies512(double* data, const double* twiddles, int from) const;
    static void Divide256(double* data, int count, double divisor);

    CMorvaneIsa::Level m_Isa;
    int m_nPoints = 0;
    int m_nSwaps = 0;
    double m_dScale = 1.0;
    // Sized for kMaxPoints; a plan of fewer points touches only the pages it fills.
    Zeroed<int> m_pSwaps;      // pairs of indices to exchange
    Zeroed<int> m_pRev;        // bit reversal of each index
    Zeroed<double> m_pForward; // per stage m, m pairs (wr, wi); stage m starts at 2 * (m - 1)
    Zeroed<double> m_pInverse;
};
