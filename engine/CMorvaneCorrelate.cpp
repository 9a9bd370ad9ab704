#include "CMorvaneCorrelate.h"

#include <algorithm>

#include "Scale16Avx2.h"

namespace {

// Lags done per pass over b: b is loaded once for all of them. AVX-512's 32 registers hold the
// running sums of 8.
constexpr int kBatch = 4;
constexpr int kWideBatch = 8;

// Each shifted product lies in -1024..1024, so 16-bit lanes can add 31 of them before they are
// widened into the 32-bit sums.
constexpr int kRun = 31;

int64_t Scalar32(const int32_t* a, const int32_t* b, int n) {
    int32_t sum = 0; // at most 2^16 terms of at most 2^10 in magnitude
    for (int i = 0; i < n; ++i)
        sum += (a[i] * b[i]) >> 20;
    return sum;
}

int64_t Scalar16(const int16_t* a, const int16_t* b, int n) {
    int32_t sum = 0;
    for (int i = 0; i < n; ++i)
        sum += (int32_t{a[i]} * b[i]) >> 20;
    return sum;
}

int64_t Scalar64(const int32_t* a, const int32_t* b, int n) {
    int64_t sum = 0;
    for (int i = 0; i < n; ++i)
        sum += (int64_t{a[i]} * b[i]) >> 20;
    return sum;
}

template <typename T, int64_t (*Dot)(const T*, const T*, int)>
void PlainLags(const T* a, const T* b, int n, int stride, int count, int64_t* out) {
    for (int j = 0; j < count; ++j)
        out[j] = Dot(a + static_cast<long>(j) * stride, b, n);
}

#if defined(__SSE2__)

// pmulhw keeps the high 16 bits of each 32-bit product; shifting them down by 4 more gives the
// product shifted by 20, rounded the same way (toward minus infinity). Runs of these add up in
// 16-bit lanes; pmaddwd with ones then sums neighbouring pairs into 32-bit lanes.
template <int L>
void Narrow128(const int16_t* a, const int16_t* b, int n, int stride, int64_t* out) {
    const __m128i ones = _mm_set1_epi16(1);
    __m128i s[L];
#pragma GCC unroll 4
    for (int k = 0; k < L; ++k)
        s[k] = _mm_setzero_si128();
    int i = 0;
    while (i + 8 <= n) {
        __m128i t[L];
#pragma GCC unroll 4
        for (int k = 0; k < L; ++k)
            t[k] = _mm_setzero_si128();
        const int end = std::min(n - 7, i + kRun * 8);
        for (; i < end; i += 8) {
            const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i));
#pragma GCC unroll 4
            for (int k = 0; k < L; ++k) {
                const __m128i va =
                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + k * stride + i));
                t[k] = _mm_add_epi16(t[k], _mm_srai_epi16(_mm_mulhi_epi16(va, vb), 4));
            }
        }
#pragma GCC unroll 4
        for (int k = 0; k < L; ++k)
            s[k] = _mm_add_epi32(s[k], _mm_madd_epi16(t[k], ones));
    }
#pragma GCC unroll 4
    for (int k = 0; k < L; ++k) {
        alignas(16) int32_t lane[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(lane), s[k]);
        out[k] = int64_t{lane[0]} + lane[1] + lane[2] + lane[3] +
                 Scalar16(a + k * stride + i, b + i, n - i);
    }
}

__attribute__((target("avx2"))) int64_t Sum256(__m256i v) {
    alignas(32) int32_t lane[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lane), v);
    int64_t sum = 0;
    for (int32_t x : lane)
        sum += x;
    return sum;
}

template <int L>
__attribute__((target("avx2"))) void Narrow256(const int16_t* a, const int16_t* b, int n,
                                               int stride, int64_t* out) {
    const __m256i ones = _mm256_set1_epi16(1);
    __m256i s[L];
#pragma GCC unroll 4
    for (int k = 0; k < L; ++k)
        s[k] = _mm256_setzero_si256();
    int i = 0;
    while (i + 16 <= n) {
        __m256i t[L];
#pragma GCC unroll 4
        for (int k = 0; k < L; ++k)
            t[k] = _mm256_setzero_si256();
        const int end = std::min(n - 15, i + kRun * 16);
        for (; i < end; i += 16) {
            const __m256i vb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + i));
#pragma GCC unroll 4
            for (int k = 0; k < L; ++k) {
                const __m256i va =
                    _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + k * stride + i));
                t[k] = _mm256_add_epi16(t[k], _mm256_srai_epi16(_mm256_mulhi_epi16(va, vb), 4));
            }
        }
#pragma GCC unroll 4
        for (int k = 0; k < L; ++k)
            s[k] = _mm256_add_epi32(s[k], _mm256_madd_epi16(t[k], ones));
    }
#pragma GCC unroll 4
    for (int k = 0; k < L; ++k)
        out[k] = Sum256(s[k]) + Scalar16(a + k * stride + i, b + i, n - i);
}

template <int L>
__attribute__((target("avx2"))) void Full256(const int32_t* a, const int32_t* b, int n, int stride,
                                             int64_t* out) {
    __m256i s[L];
#pragma GCC unroll 4
    for (int k = 0; k < L; ++k)
        s[k] = _mm256_setzero_si256();
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256i vb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + i));
#pragma GCC unroll 4
        for (int k = 0; k < L; ++k) {
            const __m256i va =
                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + k * stride + i));
            s[k] = _mm256_add_epi32(s[k], _mm256_srai_epi32(_mm256_mullo_epi32(va, vb), 20));
        }
    }
#pragma GCC unroll 4
    for (int k = 0; k < L; ++k)
        out[k] = Sum256(s[k]) + Scalar32(a + k * stride + i, b + i, n - i);
}

// AVX-512 reads the last partial vector through a mask, which never touches memory past n; the
// whole vectors before it go without masks.
template <int L>
__attribute__((target("avx512f,avx512bw"))) void Narrow512(const int16_t* a, const int16_t* b,
                                                           int n, int stride, int64_t* out) {
    const __m512i ones = _mm512_set1_epi16(1);
    __m512i s[L];
#pragma GCC unroll 8
    for (int k = 0; k < L; ++k)
        s[k] = _mm512_setzero_si512();
    const int whole = n / 32;
    for (int v = 0; v < whole;) {
        __m512i t[L];
#pragma GCC unroll 8
        for (int k = 0; k < L; ++k)
            t[k] = _mm512_setzero_si512();
        const int end = std::min(whole, v + kRun);
        for (; v < end; ++v) {
            const int i = 32 * v;
            const __m512i vb = _mm512_loadu_si512(b + i);
#pragma GCC unroll 8
            for (int k = 0; k < L; ++k) {
                const __m512i va = _mm512_loadu_si512(a + k * stride + i);
                t[k] = _mm512_add_epi16(t[k], _mm512_srai_epi16(_mm512_mulhi_epi16(va, vb), 4));
            }
        }
#pragma GCC unroll 8
        for (int k = 0; k < L; ++k)
            s[k] = _mm512_add_epi32(s[k], _mm512_madd_epi16(t[k], ones));
    }
    const int i = 32 * whole;
    if (i < n) {
        const __mmask32 m = (__mmask32{1} << (n - i)) - 1;
        const __m512i vb = _mm512_maskz_loadu_epi16(m, b + i);
#pragma GCC unroll 8
        for (int k = 0; k < L; ++k) {
            const __m512i va = _mm512_maskz_loadu_epi16(m, a + k * stride + i);
            const __m512i t = _mm512_srai_epi16(_mm512_mulhi_epi16(va, vb), 4);
            s[k] = _mm512_add_epi32(s[k], _mm512_madd_epi16(t, ones));
        }
    }
#pragma GCC unroll 8
    for (int k = 0; k < L; ++k)
        out[k] = _mm512_reduce_add_epi32(s[k]);
}

template <int L>
__attribute__((target("avx512f"))) void Full512(const int32_t* a, const int32_t* b, int n,
                                                int stride, int64_t* out) {
    __m512i s[L];
#pragma GCC unroll 4
    for (int k = 0; k < L; ++k)
        s[k] = _mm512_setzero_si512();
    for (int i = 0; i < n; i += 16) {
        const __mmask16 m = n - i >= 16 ? __mmask16(0xFFFF) : __mmask16((1u << (n - i)) - 1);
        const __m512i vb = _mm512_maskz_loadu_epi32(m, b + i);
#pragma GCC unroll 4
        for (int k = 0; k < L; ++k) {
            const __m512i va = _mm512_maskz_loadu_epi32(m, a + k * stride + i);
            s[k] = _mm512_add_epi32(s[k], _mm512_srai_epi32(_mm512_mullo_epi32(va, vb), 20));
        }
    }
#pragma GCC unroll 4
    for (int k = 0; k < L; ++k)
        out[k] = _mm512_reduce_add_epi32(s[k]);
}

// Runs a kernel over count lags, Many at a time and the rest one by one.
template <typename T, int Many, void (*Kernel)(const T*, const T*, int, int, int64_t*),
          void (*One)(const T*, const T*, int, int, int64_t*)>
void Batched(const T* a, const T* b, int n, int stride, int count, int64_t* out) {
    int j = 0;
    for (; j + Many <= count; j += Many)
        Kernel(a + static_cast<long>(j) * stride, b, n, stride, out + j);
    for (; j < count; ++j)
        One(a + static_cast<long>(j) * stride, b, n, stride, out + j);
}

#endif

// Scale16::Round of each sample, tracking the smallest and largest result; also kept as 16 bits
// (saturated), which is the value itself whenever the range found allows it.
void RoundPlain(const float* x, int n, int32_t* out, int16_t* out16, int32_t& lo, int32_t& hi) {
    for (int i = 0; i < n; ++i) {
        out[i] = Scale16::Round(x[i]);
        out16[i] = static_cast<int16_t>(std::clamp(out[i], -32768, 32767));
        lo = std::min(lo, out[i]);
        hi = std::max(hi, out[i]);
    }
}

// The same, four samples at a time: x * 32768 in double is exact, saturation first leaves
// +-2^24 unchanged by the half-away rounding, and NaN becomes 0.
__attribute__((target("avx2"))) void RoundAvx2(const float* x, int n, int32_t* out, int16_t* out16,
                                               int32_t& lo, int32_t& hi) {
    __m128i vlo = _mm_set1_epi32(lo);
    __m128i vhi = _mm_set1_epi32(hi);
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m128i q = _mm256_cvttpd_epi32(Scale16::Halfway4(_mm_loadu_ps(x + i)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), q);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out16 + i), _mm_packs_epi32(q, q));
        vlo = _mm_min_epi32(vlo, q);
        vhi = _mm_max_epi32(vhi, q);
    }
    alignas(16) int32_t l[4];
    alignas(16) int32_t h[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(l), vlo);
    _mm_store_si128(reinterpret_cast<__m128i*>(h), vhi);
    for (int k = 0; k < 4; ++k) {
        lo = std::min(lo, l[k]);
        hi = std::max(hi, h[k]);
    }
    RoundPlain(x + i, n - i, out + i, out16 + i, lo, hi);
}

// sums[k] = the sum of x[i]^2 over i < 8k, for k up to n / 8 rounded up (the last block as far
// as n). The squares (at most 2^30) and their sums (at most 2^46) are exact in double.
void BlockSums(const int32_t* x, int n, double* sums) {
    static_assert(CMorvaneCorrelate::kBlock == 8);
    double total = 0.0;
    sums[0] = 0.0;
    int k = 0;
    for (; 8 * k + 8 <= n; ++k) {
        const int32_t* b = x + 8 * k;
        double block = 0.0;
        for (int i = 0; i < 8; ++i)
            block += static_cast<double>(b[i]) * b[i];
        total += block;
        sums[k + 1] = total;
    }
    if (8 * k < n) {
        for (int i = 8 * k; i < n; ++i)
            total += static_cast<double>(x[i]) * x[i];
        sums[k + 1] = total;
    }
}

// The same, a block at a time in vectors: the sum of a block's squares is below 2^33, exact in
// double whatever the order.
__attribute__((target("avx2"))) void BlockSumsAvx2(const int32_t* x, int n, double* sums) {
    double total = 0.0;
    sums[0] = 0.0;
    int k = 0;
    for (; 8 * k + 8 <= n; ++k) {
        const __m256d lo =
            _mm256_cvtepi32_pd(_mm_loadu_si128(reinterpret_cast<const __m128i*>(x + 8 * k)));
        const __m256d hi =
            _mm256_cvtepi32_pd(_mm_loadu_si128(reinterpret_cast<const __m128i*>(x + 8 * k + 4)));
        const __m256d q = _mm256_add_pd(_mm256_mul_pd(lo, lo), _mm256_mul_pd(hi, hi));
        const __m128d h = _mm_add_pd(_mm256_castpd256_pd128(q), _mm256_extractf128_pd(q, 1));
        total += _mm_cvtsd_f64(_mm_add_sd(h, _mm_unpackhi_pd(h, h)));
        sums[k + 1] = total;
    }
    if (8 * k < n) {
        for (int i = 8 * k; i < n; ++i)
            total += static_cast<double>(x[i]) * x[i];
        sums[k + 1] = total;
    }
}

} // namespace

CMorvaneCorrelate::CMorvaneCorrelate(Isa isa)
    : m_Isa(CMorvaneIsa::Usable(isa)), m_pA32(kCapacity), m_pB32(kCapacity), m_pA16(kCapacity),
      m_pB16(kCapacity), m_pEA(kCapacity / kBlock + 2), m_pEB(kCapacity / kBlock + 2) {}

CMorvaneCorrelate::~CMorvaneCorrelate() = default;

bool CMorvaneCorrelate::Load(const float* a, int aSamples, const float* b, int n) {
    m_nA = m_nB = 0;
    if (aSamples < 0 || n < 0 || aSamples > kCapacity || n > kCapacity)
        return false;
    int32_t lo = 0;
    int32_t hi = 0;
    if (m_Isa != Isa::Baseline) {
        RoundAvx2(a, aSamples, m_pA32, m_pA16, lo, hi);
        RoundAvx2(b, n, m_pB32, m_pB16, lo, hi);
    } else {
        RoundPlain(a, aSamples, m_pA32, m_pA16, lo, hi);
        RoundPlain(b, n, m_pB32, m_pB16, lo, hi);
    }
    if (lo >= -32768 && hi <= 32767) {
        m_Width = Width::Narrow16;
    } else if (lo >= -32768 && hi <= 32768) {
        m_Width = Width::Full32; // products fit 32 bits
    } else {
        m_Width = Width::Wide64;
    }
    m_nA = aSamples;
    m_nB = n;
    if (m_Width != Width::Wide64) {
        const auto sums = m_Isa != Isa::Baseline ? BlockSumsAvx2 : BlockSums;
        sums(m_pA32, aSamples, m_pEA);
        sums(m_pB32, n, m_pEB);
    }
    return true;
}

double CMorvaneCorrelate::Energy(const double* sums, int n, long from, long to) const {
    if (m_Width == Width::Wide64 || from < 0 || to > n || from >= to)
        return 0.0;
    return sums[(to + kBlock - 1) / kBlock] - sums[from / kBlock];
}

void CMorvaneCorrelate::Lags(int first, int count, int stride, int64_t* out) const {
    Lags(first, count, stride, 0, m_nB, out);
}

void CMorvaneCorrelate::Lags(int first, int count, int stride, int from, int to,
                             int64_t* out) const {
    if (count <= 0)
        return;
    from = std::clamp(from, 0, m_nB);
    to = std::clamp(to, from, m_nB);
    const long offset = static_cast<long>(first) * stride + from;
    const int n = to - from;
    if (m_Width == Width::Wide64) {
        PlainLags<int32_t, Scalar64>(m_pA32 + offset, m_pB32 + from, n, stride, count, out);
        return;
    }
#if defined(__SSE2__)
    if (m_Width == Width::Narrow16) {
        const int16_t* a = m_pA16 + offset;
        switch (m_Isa) {
        case Isa::Avx512:
            Batched<int16_t, kWideBatch, Narrow512<kWideBatch>, Narrow512<1>>(a, m_pB16 + from, n,
                                                                              stride, count, out);
            return;
        case Isa::Avx2:
            Batched<int16_t, kBatch, Narrow256<kBatch>, Narrow256<1>>(a, m_pB16 + from, n, stride,
                                                                      count, out);
            return;
        case Isa::Baseline:
            Batched<int16_t, kBatch, Narrow128<kBatch>, Narrow128<1>>(a, m_pB16 + from, n, stride,
                                                                      count, out);
            return;
        }
    }
    const int32_t* a = m_pA32 + offset;
    switch (m_Isa) {
    case Isa::Avx512:
        Batched<int32_t, kBatch, Full512<kBatch>, Full512<1>>(a, m_pB32 + from, n, stride, count,
                                                              out);
        return;
    case Isa::Avx2:
        Batched<int32_t, kBatch, Full256<kBatch>, Full256<1>>(a, m_pB32 + from, n, stride, count,
                                                              out);
        return;
    case Isa::Baseline:
        break;
    }
#endif
    PlainLags<int32_t, Scalar32>(m_pA32 + offset, m_pB32 + from, n, stride, count, out);
}
