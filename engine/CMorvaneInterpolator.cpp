#include "CMorvaneInterpolator.h"

#include <algorithm>
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
constexpr int kRowLen = 2 * kRowStride;    // products per point, a pair per tap (AVX2)
constexpr float kScale = 3.0517578125e-5f; // 2^-15

// Sixteen coefficients scaled by 2^-15: base + delta * sub / 32768 with the quotient truncated
// toward zero as integer division is (all three arguments scaled by 2^-15). The product
// delta * sub * 2^-30, rounded toward zero to a float, truncates to the same multiple of 2^-15
// as the exact one (the multiples of 2^15 below 2^31 are all floats), and adding the base is
// exact.
__attribute__((target("avx512f"), always_inline)) inline __m512
Coefficients512(__m512 base, __m512 delta, __m512 sub) {
    const __m512 q = _mm512_mul_round_ps(delta, sub, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    return _mm512_add_ps(
        base, _mm512_roundscale_ps(q, (15 << 4) | _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC));
}

// Frames [0, frames) of interleaved stereo into two channels, 16 at a time, the rest one by
// one.
__attribute__((target("avx512f"))) void Deinterleave512(const float* x, int frames, float* left,
                                                        float* right) {
    const __m512i evens =
        _mm512_set_epi32(30, 28, 26, 24, 22, 20, 18, 16, 14, 12, 10, 8, 6, 4, 2, 0);
    const __m512i odds =
        _mm512_set_epi32(31, 29, 27, 25, 23, 21, 19, 17, 15, 13, 11, 9, 7, 5, 3, 1);
    int i = 0;
    for (; i + 16 <= frames; i += 16) {
        const __m512 a = _mm512_loadu_ps(x + 2 * i);
        const __m512 b = _mm512_loadu_ps(x + 2 * i + 16);
        _mm512_store_ps(left + i, _mm512_permutex2var_ps(a, evens, b));
        _mm512_store_ps(right + i, _mm512_permutex2var_ps(a, odds, b));
    }
    for (; i < frames; ++i) {
        left[i] = x[2 * i];
        right[i] = x[2 * i + 1];
    }
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
            m_TapBase[j * 16 + row] = static_cast<float>(a) * kScale;
            m_TapDelta[j * 16 + row] = static_cast<float>(d) * kScale;
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

void CMorvaneInterpolator::Source(const float* begin, const float* end) {
    m_pSourceBegin = begin;
    m_pSourceEnd = end;
    m_pCopyFrom = m_pCopyTo = nullptr;
}

bool CMorvaneInterpolator::Run(const Point* points, int count, int taps, float* left,
                               float* right) {
    if (count <= 0 || taps <= 0)
        return true;
    if (count > kBatch)
        count = kBatch;
    if (taps > kMaxTaps)
        taps = kMaxTaps;
    if (m_Isa == CMorvaneIsa::Avx512) {
        const float* lo = points[0].x;
        const float* hi = points[0].x;
        bool frames = true;
        for (int k = 1; k < count; ++k) {
            lo = std::min(lo, points[k].x);
            hi = std::max(hi, points[k].x);
            frames = frames && (points[k].x - points[0].x) % 2 == 0;
        }
        if (!frames)
            return false;
        if ((hi - lo) / 2 >= kWindow) { // wider than one window: in two halves
            const int h = count / 2;
            return Run(points, h, taps, left, right) &&
                   Run(points + h, count - h, taps, left + h, right + h);
        }
        return Run512(points, count, lo, hi + 2 * taps, taps, left, right);
    }
    for (int k = 0; k < count; k += 4)
        Run256(points + k, count - k < 4 ? count - k : 4, taps, left + k, right + k);
    return true;
}

void CMorvaneInterpolator::Fill(const float* first) {
    const long frames = std::min<long>(kPlane, (m_pSourceEnd - first) / 2);
    if (frames <= 0) {
        m_pCopyFrom = m_pCopyTo = nullptr;
        return;
    }
    Deinterleave512(first, static_cast<int>(frames), m_Left, m_Right);
    m_pCopyFrom = first;
    m_pCopyTo = first + 2 * frames;
}

// Up to 16 points, all reading within [first, end) and starting less than a window apart: per
// tap, the samples of all points picked out of the window that starts at first for that tap,
// and the coefficients out of the tap's 16 rows; one running sum per channel.
__attribute__((target("avx512f"))) bool CMorvaneInterpolator::Run512(const Point* points, int count,
                                                                     const float* first,
                                                                     const float* end, int taps,
                                                                     float* left, float* right) {
    if (first < m_pCopyFrom || end > m_pCopyTo) {
        if (first < m_pSourceBegin || end > m_pSourceEnd)
            return false;
        Fill(first);
        if (end > m_pCopyTo)
            return false;
    }
    alignas(64) int32_t offset[16];
    alignas(64) int32_t row[16];
    alignas(64) float sub[16];
    for (int k = 0; k < 16; ++k) {
        const Point& p = points[k < count ? k : 0];
        offset[k] = static_cast<int32_t>((p.x - first) / 2);
        row[k] = p.row;
        sub[k] = static_cast<float>(p.sub) * kScale;
    }
    const __m512i at = _mm512_load_si512(offset);
    const __m512i rows = _mm512_load_si512(row);
    const __m512 s = _mm512_load_ps(sub);
    const long start = (first - m_pCopyFrom) / 2;
    const float* l = m_Left + start;
    const float* r = m_Right + start;
    __m512 sumL = _mm512_setzero_ps();
    __m512 sumR = _mm512_setzero_ps();
    for (int j = 0; j < taps; ++j) {
        const __m512 c =
            Coefficients512(_mm512_permutexvar_ps(rows, _mm512_load_ps(m_TapBase + 16 * j)),
                            _mm512_permutexvar_ps(rows, _mm512_load_ps(m_TapDelta + 16 * j)), s);
        const __m512 xl =
            _mm512_permutex2var_ps(_mm512_loadu_ps(l + j), at, _mm512_loadu_ps(l + j + 16));
        const __m512 xr =
            _mm512_permutex2var_ps(_mm512_loadu_ps(r + j), at, _mm512_loadu_ps(r + j + 16));
        sumL = _mm512_add_ps(sumL, _mm512_mul_ps(xl, c));
        sumR = _mm512_add_ps(sumR, _mm512_mul_ps(xr, c));
    }
    const __mmask16 m = static_cast<__mmask16>((1u << count) - 1);
    _mm512_mask_storeu_ps(left, m, sumL);
    _mm512_mask_storeu_ps(right, m, sumR);
    return true;
}

// The same with 4 points and 4 x 4 transposes.
__attribute__((target("avx2"))) void CMorvaneInterpolator::Run256(const Point* points, int count,
                                                                  int taps, float* left,
                                                                  float* right) const {
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
    for (int i = 0; i < count; ++i) {
        left[i] = out[2 * i];
        right[i] = out[2 * i + 1];
    }
}
