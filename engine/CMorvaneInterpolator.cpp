#include "CMorvaneInterpolator.h"

#include <cmath>

// GCC 12's AVX-512 headers build some vectors from a deliberately undefined value, which its
// uninitialised-use warnings then report inside the header (GCC bug 105593).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop

namespace {

constexpr int kRowStride = CMorvaneInterpolator::kRowStride;
constexpr int kRowLen = 2 * kRowStride;    // products per point, a pair per tap
constexpr float kScale = 3.0517578125e-5f; // 2^-15

// The coefficients of 16 taps, scaled by 2^-15: base + delta * sub / 32768 with the quotient
// truncated toward zero as integer division is. The product delta * sub * 2^-30, rounded toward
// zero to a float, truncates to the same multiple of 2^-15 as the exact one (the multiples of
// 2^15 below 2^31 are all floats), and adding the base is exact.
__attribute__((target("avx512f"), always_inline)) inline __m512
Coefficients512(const float* base, const float* delta, __m512 sub) {
    const __m512 q =
        _mm512_mul_round_ps(_mm512_loadu_ps(delta), sub, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    return _mm512_add_ps(
        _mm512_loadu_ps(base),
        _mm512_roundscale_ps(q, (15 << 4) | _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC));
}

// Eight taps of eight points, from rows of kRowLen / 2 (left, right) pairs, turned into eight
// vectors, each holding one tap of every point.
__attribute__((target("avx512f"), always_inline)) inline void Transpose8(const double* row,
                                                                         __m512d* col) {
    constexpr int kStride = kRowLen / 2;
    __m512d r[8];
#pragma GCC unroll 8
    for (int k = 0; k < 8; ++k)
        r[k] = _mm512_load_pd(row + k * kStride);
    // taps 0 2 4 6 and 1 3 5 7 of points (0, 1), (2, 3), (4, 5), (6, 7)
    const __m512d a0 = _mm512_unpacklo_pd(r[0], r[1]);
    const __m512d a1 = _mm512_unpackhi_pd(r[0], r[1]);
    const __m512d a2 = _mm512_unpacklo_pd(r[2], r[3]);
    const __m512d a3 = _mm512_unpackhi_pd(r[2], r[3]);
    const __m512d a4 = _mm512_unpacklo_pd(r[4], r[5]);
    const __m512d a5 = _mm512_unpackhi_pd(r[4], r[5]);
    const __m512d a6 = _mm512_unpacklo_pd(r[6], r[7]);
    const __m512d a7 = _mm512_unpackhi_pd(r[6], r[7]);
    // taps (0, 4), (1, 5), (2, 6), (3, 7) of points 0-3 and of points 4-7
    const __m512i lo = _mm512_set_epi64(13, 12, 5, 4, 9, 8, 1, 0);
    const __m512i hi = _mm512_set_epi64(15, 14, 7, 6, 11, 10, 3, 2);
    const __m512d b0 = _mm512_permutex2var_pd(a0, lo, a2);
    const __m512d b1 = _mm512_permutex2var_pd(a1, lo, a3);
    const __m512d b2 = _mm512_permutex2var_pd(a0, hi, a2);
    const __m512d b3 = _mm512_permutex2var_pd(a1, hi, a3);
    const __m512d b4 = _mm512_permutex2var_pd(a4, lo, a6);
    const __m512d b5 = _mm512_permutex2var_pd(a5, lo, a7);
    const __m512d b6 = _mm512_permutex2var_pd(a4, hi, a6);
    const __m512d b7 = _mm512_permutex2var_pd(a5, hi, a7);
    col[0] = _mm512_shuffle_f64x2(b0, b4, 0x44);
    col[1] = _mm512_shuffle_f64x2(b1, b5, 0x44);
    col[2] = _mm512_shuffle_f64x2(b2, b6, 0x44);
    col[3] = _mm512_shuffle_f64x2(b3, b7, 0x44);
    col[4] = _mm512_shuffle_f64x2(b0, b4, 0xEE);
    col[5] = _mm512_shuffle_f64x2(b1, b5, 0xEE);
    col[6] = _mm512_shuffle_f64x2(b2, b6, 0xEE);
    col[7] = _mm512_shuffle_f64x2(b3, b7, 0xEE);
}

} // namespace

CMorvaneInterpolator::CMorvaneInterpolator(CMorvaneIsa::Level isa)
    : m_Isa(CMorvaneIsa::Usable(isa)) {}

CMorvaneInterpolator::~CMorvaneInterpolator() = default;

void CMorvaneInterpolator::Prepare(const int16_t* table, int entries) {
    const auto at = [&](int i) { return i < entries ? int32_t{table[i]} : 0; };
    for (int row = 0; row < kRows; ++row) {
        for (int j = 0; j < kMaxTaps; ++j) {
            const int32_t a = at(row + 8 * j + 1);
            const int32_t d = at(row + 8 * j) - a;
            m_Base[row * kRowStride + j] = a;
            m_Delta[row * kRowStride + j] = d;
            m_BiasUp[row * kRowStride + j] = d < 0 ? 32767 : 0;
            m_BiasDown[row * kRowStride + j] = d > 0 ? 32767 : 0;
            m_BaseScaled[row * kRowStride + j] = static_cast<float>(a) * kScale;
            m_DeltaScaled[row * kRowStride + j] = static_cast<float>(d) * kScale;
        }
    }
}

namespace {

// The same test on the bit patterns, eight samples at a time: for floats without their sign the
// patterns are ordered as the magnitudes, NaN above infinity.
__attribute__((target("avx2"))) long ExactPrefix(const float* x, long samples) {
    const __m256i magnitude = _mm256_set1_epi32(0x7FFFFFFF);
    const __m256i smallest = _mm256_set1_epi32(0x08000000); // 2^-111
    const __m256i largest = _mm256_set1_epi32(0x71800000);  // 2^100
    const __m256i zero = _mm256_setzero_si256();
    long i = 0;
    for (; i + 8 <= samples; i += 8) {
        const __m256i a = _mm256_and_si256(
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(x + i)), magnitude);
        const __m256i tiny =
            _mm256_andnot_si256(_mm256_cmpeq_epi32(a, zero), _mm256_cmpgt_epi32(smallest, a));
        const __m256i bad = _mm256_or_si256(tiny, _mm256_cmpgt_epi32(a, largest));
        if (!_mm256_testz_si256(bad, bad))
            return -1;
    }
    return i;
}

} // namespace

bool CMorvaneInterpolator::Exact(const float* x, long samples) {
    static const bool avx2 = CMorvaneIsa::Supported(CMorvaneIsa::Avx2);
    long i = 0;
    if (avx2) {
        i = ExactPrefix(x, samples);
        if (i < 0)
            return false;
    }
    for (; i < samples; ++i) {
        const float a = std::fabs(x[i]);
        if (!(a <= 0x1p100f) || (a != 0.0f && a < 0x1p-111f))
            return false;
    }
    return true;
}

void CMorvaneInterpolator::Run(const Point* points, int count, int taps, float* acc) const {
    if (count <= 0 || taps <= 0)
        return;
    if (taps > kMaxTaps)
        taps = kMaxTaps;
    if (m_Isa == CMorvaneIsa::Avx512) {
        Run512(points, count, taps, acc);
    } else {
        for (int k = 0; k < count; k += 4)
            Run256(points + k, count - k < 4 ? count - k : 4, taps, acc + 2 * k);
    }
}

// Up to 8 points: the products of each point's taps go to one row of q, (left, right) pairs
// as 64-bit units; an 8 x 8 transpose of those units turns 8 taps of 8 points into 8 vectors,
// each holding one tap of every point, added in tap order.
__attribute__((target("avx512f"))) void CMorvaneInterpolator::Run512(const Point* points, int count,
                                                                     int taps, float* acc) const {
    alignas(64) float q[kBatch][kRowLen];
    const __m512i pairsLo = _mm512_set_epi32(7, 7, 6, 6, 5, 5, 4, 4, 3, 3, 2, 2, 1, 1, 0, 0);
    const __m512i pairsHi =
        _mm512_set_epi32(15, 15, 14, 14, 13, 13, 12, 12, 11, 11, 10, 10, 9, 9, 8, 8);
    const int samples = 2 * taps;
    for (int k = 0; k < kBatch; ++k) {
        if (k >= count) {
            for (int i = 0; i < samples; i += 16)
                _mm512_store_ps(q[k] + i, _mm512_setzero_ps());
            continue;
        }
        const Point& p = points[k];
        const float* base = m_BaseScaled + p.row * kRowStride;
        const float* delta = m_DeltaScaled + p.row * kRowStride;
        const __m512 sub = _mm512_set1_ps(static_cast<float>(p.sub) * kScale);
        int j = 0;
        for (; j + 16 <= taps; j += 16) { // whole vectors: plain loads
            const __m512 c = Coefficients512(base + j, delta + j, sub);
            const float* x = p.x + 2 * j;
            float* out = q[k] + 2 * j;
            _mm512_store_ps(out,
                            _mm512_mul_ps(_mm512_loadu_ps(x), _mm512_permutexvar_ps(pairsLo, c)));
            _mm512_store_ps(out + 16, _mm512_mul_ps(_mm512_loadu_ps(x + 16),
                                                    _mm512_permutexvar_ps(pairsHi, c)));
        }
        if (j < taps) { // the rest through masks, which never read past the last tap
            const __m512 c = Coefficients512(base + j, delta + j, sub);
#pragma GCC unroll 2
            for (int h = 0; h < 2; ++h) {
                const int i = 2 * j + 16 * h;
                const int left = samples - i;
                if (left <= 0)
                    break; // past the last tap: the transpose never reads there
                const __mmask16 m = left >= 16 ? __mmask16(0xFFFF) : __mmask16((1u << left) - 1);
                const __m512 x = _mm512_maskz_loadu_ps(m, p.x + i);
                const __m512 cc = _mm512_permutexvar_ps(h == 0 ? pairsLo : pairsHi, c);
                _mm512_store_ps(q[k] + i, _mm512_mul_ps(x, cc));
            }
        }
    }

    __m512 sum = _mm512_setzero_ps();
    __m512d col[8];
    int j0 = 0;
    for (; j0 + 8 <= taps; j0 += 8) {
        Transpose8(reinterpret_cast<const double*>(q[0] + 2 * j0), col);
#pragma GCC unroll 8
        for (int t = 0; t < 8; ++t)
            sum = _mm512_add_ps(sum, _mm512_castpd_ps(col[t]));
    }
    if (j0 < taps) {
        Transpose8(reinterpret_cast<const double*>(q[0] + 2 * j0), col);
        for (int t = 0; t < taps - j0; ++t)
            sum = _mm512_add_ps(sum, _mm512_castpd_ps(col[t]));
    }
    alignas(64) float out[16];
    _mm512_store_ps(out, sum);
    for (int i = 0; i < 2 * count; ++i)
        acc[i] = out[i];
}

// The same with 4 points and 4 x 4 transposes.
__attribute__((target("avx2"))) void CMorvaneInterpolator::Run256(const Point* points, int count,
                                                                  int taps, float* acc) const {
    alignas(32) float q[4][kRowLen];
    const __m256 scale = _mm256_set1_ps(kScale);
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256i pairsLo = _mm256_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3);
    const __m256i pairsHi = _mm256_setr_epi32(4, 4, 5, 5, 6, 6, 7, 7);
    const int samples = 2 * taps;
    for (int k = 0; k < 4; ++k) {
        if (k >= count) {
            for (int i = 0; i < samples; i += 8)
                _mm256_store_ps(q[k] + i, _mm256_setzero_ps());
            continue;
        }
        const Point& p = points[k];
        const int32_t* base = m_Base + p.row * kRowStride;
        const int32_t* delta = m_Delta + p.row * kRowStride;
        const int32_t* bias = (p.sub < 0 ? m_BiasDown : m_BiasUp) + p.row * kRowStride;
        const __m256i sub = _mm256_set1_epi32(p.sub);
        for (int j = 0; j < taps; j += 8) {
            __m256i t = _mm256_mullo_epi32(
                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(delta + j)), sub);
            t = _mm256_add_epi32(t, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bias + j)));
            t = _mm256_add_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(base + j)),
                                 _mm256_srai_epi32(t, 15));
            const __m256 c = _mm256_mul_ps(_mm256_cvtepi32_ps(t), scale);
#pragma GCC unroll 2
            for (int h = 0; h < 2; ++h) {
                const int i = 2 * j + 8 * h;
                const __m256i m = _mm256_cmpgt_epi32(_mm256_set1_epi32(samples - i), lane);
                const __m256 x = _mm256_maskload_ps(p.x + i, m);
                const __m256 cc = _mm256_permutevar8x32_ps(c, h == 0 ? pairsLo : pairsHi);
                _mm256_store_ps(q[k] + i, _mm256_mul_ps(x, cc));
            }
        }
    }

    __m256 sum = _mm256_setzero_ps();
    for (int j0 = 0; j0 < taps; j0 += 4) {
        __m256d r[4];
#pragma GCC unroll 4
        for (int k = 0; k < 4; ++k)
            r[k] = _mm256_load_pd(reinterpret_cast<const double*>(q[k] + 2 * j0));
        const __m256d a0 = _mm256_unpacklo_pd(r[0], r[1]); // taps 0 2 of points 0, 1
        const __m256d a1 = _mm256_unpackhi_pd(r[0], r[1]); // taps 1 3
        const __m256d a2 = _mm256_unpacklo_pd(r[2], r[3]);
        const __m256d a3 = _mm256_unpackhi_pd(r[2], r[3]);
        const __m256d col[4] = {
            _mm256_permute2f128_pd(a0, a2, 0x20), _mm256_permute2f128_pd(a1, a3, 0x20),
            _mm256_permute2f128_pd(a0, a2, 0x31), _mm256_permute2f128_pd(a1, a3, 0x31)};
        if (taps - j0 >= 4) {
#pragma GCC unroll 4
            for (int t = 0; t < 4; ++t)
                sum = _mm256_add_ps(sum, _mm256_castpd_ps(col[t]));
        } else {
            for (int t = 0; t < taps - j0; ++t)
                sum = _mm256_add_ps(sum, _mm256_castpd_ps(col[t]));
        }
    }
    alignas(32) float out[8];
    _mm256_store_ps(out, sum);
    for (int i = 0; i < 2 * count; ++i)
        acc[i] = out[i];
}
