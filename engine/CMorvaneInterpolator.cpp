#include "CMorvaneInterpolator.h"

#include <algorithm>
#include <cmath>

#include "Intrinsics.h"

namespace {

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

// The same, 8 at a time.
__attribute__((target("avx2"))) void Deinterleave256(const float* x, int frames, float* left,
                                                     float* right) {
    int i = 0;
    for (; i + 8 <= frames; i += 8) {
        const __m256 a = _mm256_loadu_ps(x + 2 * i);
        const __m256 b = _mm256_loadu_ps(x + 2 * i + 8);
        // frames 0 1 4 5 | 2 3 6 7, then the middle pairs swapped
        const __m256 l = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
        const __m256 r = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
        _mm256_store_ps(left + i, _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(l),
                                                                         _MM_SHUFFLE(3, 1, 2, 0))));
        _mm256_store_ps(right + i, _mm256_castpd_ps(_mm256_permute4x64_pd(
                                       _mm256_castps_pd(r), _MM_SHUFFLE(3, 1, 2, 0))));
    }
    for (; i < frames; ++i) {
        left[i] = x[2 * i];
        right[i] = x[2 * i + 1];
    }
}

// Eight points' running sums over the taps. Each tap's samples are picked out of the 8 frames
// from l + j, or the 16 (Wide) when the points span more than 8; its coefficients out of the
// tap's rows 0..7, or all 16 (High) when some point has a higher row. The coefficient is
// computed as the plain loop does, in integers: the bias of 32767 on negative products makes
// the shift truncate toward zero as the division does.
template <bool Wide, bool High>
__attribute__((target("avx2"))) void Taps256(const float* l, const float* r, const int32_t* base,
                                             const int32_t* delta, const int32_t* offset,
                                             const int32_t* row, const int32_t* sub, int taps,
                                             int count, float* left, float* right) {
    const __m256i at = _mm256_load_si256(reinterpret_cast<const __m256i*>(offset));
    const __m256 second = _mm256_castsi256_ps(_mm256_slli_epi32(at, 28)); // offsets 8..15
    const __m256i rows = _mm256_load_si256(reinterpret_cast<const __m256i*>(row));
    const __m256 upper = _mm256_castsi256_ps(_mm256_slli_epi32(rows, 28)); // rows 8..15
    const __m256i s = _mm256_load_si256(reinterpret_cast<const __m256i*>(sub));
    const __m256 scale = _mm256_set1_ps(kScale);
    __m256 sumL = _mm256_setzero_ps();
    __m256 sumR = _mm256_setzero_ps();
    for (int j = 0; j < taps; ++j) {
        const float* tb = reinterpret_cast<const float*>(base + 16 * j);
        const float* td = reinterpret_cast<const float*>(delta + 16 * j);
        __m256 b = _mm256_permutevar8x32_ps(_mm256_load_ps(tb), rows);
        __m256 d = _mm256_permutevar8x32_ps(_mm256_load_ps(td), rows);
        if constexpr (High) {
            b = _mm256_blendv_ps(b, _mm256_permutevar8x32_ps(_mm256_load_ps(tb + 8), rows), upper);
            d = _mm256_blendv_ps(d, _mm256_permutevar8x32_ps(_mm256_load_ps(td + 8), rows), upper);
        }
        __m256i t = _mm256_mullo_epi32(_mm256_castps_si256(d), s);
        t = _mm256_add_epi32(t, _mm256_srli_epi32(_mm256_srai_epi32(t, 31), 17));
        const __m256 c = _mm256_mul_ps(
            _mm256_cvtepi32_ps(_mm256_add_epi32(_mm256_castps_si256(b), _mm256_srai_epi32(t, 15))),
            scale);
        __m256 xl = _mm256_permutevar8x32_ps(_mm256_loadu_ps(l + j), at);
        __m256 xr = _mm256_permutevar8x32_ps(_mm256_loadu_ps(r + j), at);
        if constexpr (Wide) {
            xl = _mm256_blendv_ps(xl, _mm256_permutevar8x32_ps(_mm256_loadu_ps(l + j + 8), at),
                                  second);
            xr = _mm256_blendv_ps(xr, _mm256_permutevar8x32_ps(_mm256_loadu_ps(r + j + 8), at),
                                  second);
        }
        sumL = _mm256_add_ps(sumL, _mm256_mul_ps(xl, c));
        sumR = _mm256_add_ps(sumR, _mm256_mul_ps(xr, c));
    }
    const __m256i m =
        _mm256_cmpgt_epi32(_mm256_set1_epi32(count), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    _mm256_maskstore_ps(left, m, sumL);
    _mm256_maskstore_ps(right, m, sumR);
}

// Sixteen points' running sums: per tap, the samples of all points picked out of the window of
// 32 frames from l + j, and the coefficients out of the tap's 16 rows.
__attribute__((target("avx512f"))) void Taps512(const float* l, const float* r, const float* base,
                                                const float* delta, const int32_t* offset,
                                                const int32_t* row, const int32_t* sub, int taps,
                                                int count, float* left, float* right) {
    const __m512i at = _mm512_load_si512(offset);
    const __m512i rows = _mm512_load_si512(row);
    const __m512 s =
        _mm512_mul_ps(_mm512_cvtepi32_ps(_mm512_load_si512(sub)), _mm512_set1_ps(kScale));
    __m512 sumL = _mm512_setzero_ps();
    __m512 sumR = _mm512_setzero_ps();
    for (int j = 0; j < taps; ++j) {
        const __m512 c =
            Coefficients512(_mm512_permutexvar_ps(rows, _mm512_load_ps(base + 16 * j)),
                            _mm512_permutexvar_ps(rows, _mm512_load_ps(delta + 16 * j)), s);
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
            m_TapBaseInt[j * 16 + row] = a;
            m_TapDeltaInt[j * 16 + row] = d;
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
    if (m_Isa == CMorvaneIsa::Baseline)
        return false;
    if (count > kBatch)
        count = kBatch;
    if (taps > kMaxTaps)
        taps = kMaxTaps;
    const int lanes = m_Isa == CMorvaneIsa::Avx512 ? 16 : 8;
    for (int k = 0; k < count; k += lanes) {
        if (!Group(points + k, std::min(lanes, count - k), taps, left + k, right + k))
            return false;
    }
    return true;
}

bool CMorvaneInterpolator::Group(const Point* points, int count, int taps, float* left,
                                 float* right) {
    const bool avx512 = m_Isa == CMorvaneIsa::Avx512;
    const int lanes = avx512 ? 16 : 8;
    // Offsets in frames from the first point in one pass (the points usually come in order).
    alignas(64) int32_t offset[16];
    alignas(64) int32_t row[16];
    alignas(64) int32_t sub[16];
    const float* x0 = points[0].x;
    long lo = 0;
    long hi = 0;
    long odd = 0;
    int32_t highest = 0;
    for (int k = 0; k < count; ++k) {
        const long d = points[k].x - x0;
        odd |= d;
        lo = std::min(lo, d);
        hi = std::max(hi, d);
        offset[k] = static_cast<int32_t>(d >> 1);
        row[k] = points[k].row;
        sub[k] = points[k].sub;
        highest = std::max(highest, points[k].row);
    }
    if (odd & 1)
        return false;
    const long span = (hi - lo) >> 1;
    if (span >= (avx512 ? kWindow : kWindow / 2)) { // wider than a window: in two halves
        const int h = count / 2;
        return Group(points, h, taps, left, right) &&
               Group(points + h, count - h, taps, left + h, right + h);
    }
    const float* first = x0 + lo;
    if (!Copies(first, x0 + hi + 2 * taps))
        return false;
    if (lo < 0) {
        for (int k = 0; k < count; ++k)
            offset[k] -= static_cast<int32_t>(lo >> 1);
    }
    for (int k = count; k < lanes; ++k) { // the unused lanes repeat the first point
        offset[k] = offset[0];
        row[k] = row[0];
        sub[k] = sub[0];
    }
    const long start = (first - m_pCopyFrom) / 2;
    const float* l = m_Left + start;
    const float* r = m_Right + start;
    if (avx512) {
        Taps512(l, r, m_TapBase, m_TapDelta, offset, row, sub, taps, count, left, right);
    } else {
        const bool wide = span >= 8;
        const bool high = highest >= 8;
        const auto kernel = wide ? (high ? Taps256<true, true> : Taps256<true, false>)
                                 : (high ? Taps256<false, true> : Taps256<false, false>);
        kernel(l, r, m_TapBaseInt, m_TapDeltaInt, offset, row, sub, taps, count, left, right);
    }
    return true;
}

bool CMorvaneInterpolator::Copies(const float* first, const float* end) {
    if (first >= m_pCopyFrom && end <= m_pCopyTo && (first - m_pCopyFrom) % 2 == 0)
        return true;
    if (first < m_pSourceBegin || end > m_pSourceEnd)
        return false;
    Fill(first);
    return end <= m_pCopyTo;
}

void CMorvaneInterpolator::Fill(const float* first) {
    const long frames = std::min<long>(kPlane, (m_pSourceEnd - first) / 2);
    if (frames <= 0) {
        m_pCopyFrom = m_pCopyTo = nullptr;
        return;
    }
    (m_Isa == CMorvaneIsa::Avx512 ? Deinterleave512 : Deinterleave256)(
        first, static_cast<int>(frames), m_Left, m_Right);
    m_pCopyFrom = first;
    m_pCopyTo = first + 2 * frames;
}
