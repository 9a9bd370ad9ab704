#pragma once

#include <cstdint>

#include "CMorvaneIsa.h"
#include "Zeroed.h"

// The splice search's correlation at many lags at once:
//   R(j) = sum over i < n of (a[j * stride + i] * b[i]) >> 20
// where a and b are samples rounded to the 16-bit scale and each product is shifted down
// (arithmetically) on its own. The numbers are integers, so every path gives the same sums;
// which path runs depends on how wide the samples are and what the CPU offers:
//   - samples in -32768..32767: 16-bit products (pmulhw: the high half shifted by 4 is
//     exactly the product shifted by 20), for SSE2, AVX2 and AVX-512;
//   - samples within +-32768: 32-bit products, for AVX2 and AVX-512, plain code otherwise;
//   - anything wider (floats beyond full scale): 64-bit products, plain code.
class CMorvaneCorrelate {
public:
    using Isa = CMorvaneIsa::Level;
    enum class Width { Narrow16, Full32, Wide64 };

    // Samples one search may hold: a region of up to this many samples and as many in b.
    static constexpr int kCapacity = 1 << 16;

    explicit CMorvaneCorrelate(Isa isa = CMorvaneIsa::Detected());
    ~CMorvaneCorrelate();
    CMorvaneCorrelate(const CMorvaneCorrelate&) = delete;
    CMorvaneCorrelate& operator=(const CMorvaneCorrelate&) = delete;

    // Rounds aSamples samples of a and n of b (both at most kCapacity) and picks the width.
    // Returns false, holding nothing, when either is too long.
    bool Load(const float* a, int aSamples, const float* b, int n);

    // out[j] = R(first + j) for j < count, lags counted in steps of stride samples. The caller
    // keeps (first + count - 1) * stride + n within the loaded a.
    void Lags(int first, int count, int stride, int64_t* out) const;
    // The same sums over i in [from, to) only (0 <= from <= to <= n): the parts add up to R.
    void Lags(int first, int count, int stride, int from, int to, int64_t* out) const;

    // Sums of squares of the rounded samples of a and b over [from, to) widened to whole blocks
    // of kBlock samples (so at least the sums over [from, to)), for bounding a sum before
    // computing it: |sum of a[j * stride + i] * b[i]| <= sqrt(Ea * Eb). Exact integers in
    // double. Only while the samples are within +-32768 (Narrow16 and Full32); 0 otherwise.
    static constexpr int kBlock = 8;
    double EnergyA(long from, long to) const { return Energy(m_pEA, m_nA, from, to); }
    double EnergyB(long from, long to) const { return Energy(m_pEB, m_nB, from, to); }

    Width LoadedWidth() const { return m_Width; }
    Isa UsedIsa() const { return m_Isa; }

private:
    Isa m_Isa;
    Width m_Width = Width::Narrow16;
    int m_nA = 0;
    int m_nB = 0;
    // Sized for kCapacity; a search touches only the pages it fills.
    Zeroed<int32_t> m_pA32;
    Zeroed<int32_t> m_pB32;
    Zeroed<int16_t> m_pA16;
    Zeroed<int16_t> m_pB16;
    double Energy(const double* sums, int n, long from, long to) const;

    Zeroed<double> m_pEA; // running sums of squares: m_pEA[k] over a[0..kBlock * k)
    Zeroed<double> m_pEB;
};
