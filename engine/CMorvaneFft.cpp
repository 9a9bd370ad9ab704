#include "CMorvaneFft.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "Intrinsics.h"

namespace {

// The angle accumulates by one step per index k, and cos/sin are taken of that accumulated
// angle (pi is the 10-digit 3.1415926535).
void FillTwiddles(double* w, int n, bool forward) {
    for (int m = 1; m < n; m <<= 1) {
        const double step = forward ? -3.1415926535 / m : 3.1415926535 / m;
        double theta = 0;
        double* stage = w + 2 * (m - 1);
        for (int k = 0; k < m; ++k) {
            stage[2 * k] = std::cos(theta);
            stage[2 * k + 1] = std::sin(theta);
            theta += step;
        }
    }
}

// Four butterflies: a +- w * b for four complex values each, w as (re, im) pairs. AVX-512 has no
// addsub: the sum of both products is taken in every lane and the real lanes then take the
// difference instead.
__attribute__((target("avx512f"), always_inline)) inline void Butterfly4(__m512d& a, __m512d& b,
                                                                         __m512d w) {
    const __m512d p = _mm512_mul_pd(_mm512_movedup_pd(w), b);
    const __m512d q = _mm512_mul_pd(_mm512_permute_pd(w, 0xFF), _mm512_permute_pd(b, 0x55));
    const __m512d t = _mm512_mask_sub_pd(_mm512_add_pd(p, q), 0x55, p, q);
    b = _mm512_sub_pd(a, t);
    a = _mm512_add_pd(a, t);
}

} // namespace

CMorvaneFft::CMorvaneFft(CMorvaneIsa::Level isa)
    : m_Isa(CMorvaneIsa::Usable(isa)), m_pSwaps(kMaxPoints), m_pRev(kMaxPoints),
      m_pForward(2 * kMaxPoints), m_pInverse(2 * kMaxPoints) {}

CMorvaneFft::~CMorvaneFft() = default;

bool CMorvaneFft::Prepare(int n) {
    if (n == m_nPoints && n > 0)
        return true; // the tables already fit
    m_nPoints = 0;
    if (n < 1 || n > kMaxPoints || (n & (n - 1)) != 0)
        return false;
    int bits = 0;
    while ((1 << bits) < n)
        ++bits;
    m_nSwaps = 0;
    for (int i = 0; i < n; ++i) {
        int j = 0;
        for (int b = 0; b < bits; ++b)
            j |= ((i >> b) & 1) << (bits - 1 - b);
        m_pRev[i] = j;
        if (i < j) {
            m_pSwaps[m_nSwaps++] = i;
            m_pSwaps[m_nSwaps++] = j;
        }
    }
    FillTwiddles(m_pForward, n, true);
    FillTwiddles(m_pInverse, n, false);
    m_dScale = std::sqrt(static_cast<double>(n));
    m_nPoints = n;
    return true;
}

void CMorvaneFft::Transform(double* data, bool forward) const {
    const int n = m_nPoints;
    if (n == 0)
        return;
    for (int s = 0; s < m_nSwaps; s += 2) {
        const int i = m_pSwaps[s];
        const int j = m_pSwaps[s + 1];
        std::swap(data[2 * i], data[2 * j]);
        std::swap(data[2 * i + 1], data[2 * j + 1]);
    }
    Butterflies(data, forward);
    if (m_Isa != CMorvaneIsa::Baseline) {
        Divide256(data, 2 * n, m_dScale);
    } else {
        for (int i = 0; i < 2 * n; ++i)
            data[i] /= m_dScale;
    }
}

void CMorvaneFft::Butterflies(double* data, bool forward, int from) const {
    if (m_nPoints == 0)
        return;
    const double* twiddles = forward ? m_pForward : m_pInverse;
    from = std::max(from, 1);
    if (m_Isa == CMorvaneIsa::Avx512)
        Butterflies512(data, twiddles, from);
    else if (m_Isa != CMorvaneIsa::Baseline)
        Butterflies256(data, twiddles, from);
    else
        PlainButterflies(data, twiddles, from);
}

// A true division per element, four at a time: the divisor is not a power of two for odd
// exponents, so a multiplication by its reciprocal would round differently.
__attribute__((target("avx2"))) void CMorvaneFft::Divide256(double* data, int count,
                                                            double divisor) {
    const __m256d d = _mm256_set1_pd(divisor);
    int i = 0;
    for (; i + 4 <= count; i += 4)
        _mm256_storeu_pd(data + i, _mm256_div_pd(_mm256_loadu_pd(data + i), d));
    for (; i < count; ++i)
        data[i] /= divisor;
}

void CMorvaneFft::PlainButterflies(double* data, const double* twiddles, int from) const {
    const int n = m_nPoints;
#if defined(__SSE2__)
    // One butterfly a vector: w * b as wr * b + (-(wi * bi), wi * br), which is wr*br - wi*bi and
    // wr*bi + wi*br to the bit (x - y is x + -y), without SSE3's addsub.
    const __m128d negateRe = _mm_set_pd(0.0, -0.0);
#endif
    for (int m = from; m < n; m <<= 1) {
        const double* w = twiddles + 2 * (m - 1);
        for (int g = 0; g < n; g += 2 * m) {
            for (int k = 0; k < m; ++k) {
                double* a = data + 2 * (g + k);
                double* b = data + 2 * (g + k + m);
#if defined(__SSE2__)
                const __m128d vw = _mm_loadu_pd(w + 2 * k);
                const __m128d vb = _mm_loadu_pd(b);
                const __m128d va = _mm_loadu_pd(a);
                const __m128d q = _mm_xor_pd(
                    _mm_mul_pd(_mm_unpackhi_pd(vw, vw), _mm_shuffle_pd(vb, vb, 1)), negateRe);
                const __m128d t = _mm_add_pd(_mm_mul_pd(_mm_unpacklo_pd(vw, vw), vb), q);
                _mm_storeu_pd(b, _mm_sub_pd(va, t));
                _mm_storeu_pd(a, _mm_add_pd(va, t));
#else
                const double wr = w[2 * k];
                const double wi = w[2 * k + 1];
                const double tr = wr * b[0] - wi * b[1];
                const double ti = wr * b[1] + wi * b[0];
                b[0] = a[0] - tr;
                b[1] = a[1] - ti;
                a[0] = a[0] + tr;
                a[1] = a[1] + ti;
#endif
            }
        }
    }
}

// Two butterflies per 256-bit vector of two complex values. addsub gives, lane by lane, exactly
// wr*br - wi*bi and wr*bi + wi*br: separate multiplies, then one rounding each, never fused.
__attribute__((target("avx2"))) void
CMorvaneFft::Butterflies256(double* data, const double* twiddles, int from, int until) const {
    const int n = m_nPoints;
    until = std::min(until, n);
    int m = from;
    if (until >= 2 && m == 1) {
        // First stage: twiddle pairs of neighbours, one butterfly a vector.
        const __m128d wr = _mm_set1_pd(twiddles[0]);
        const __m128d wi = _mm_set1_pd(twiddles[1]);
        for (int g = 0; g < n; g += 2) {
            double* a = data + 2 * g;
            const __m128d va = _mm_loadu_pd(a);
            const __m128d vb = _mm_loadu_pd(a + 2);
            const __m128d t =
                _mm_addsub_pd(_mm_mul_pd(wr, vb), _mm_mul_pd(wi, _mm_shuffle_pd(vb, vb, 1)));
            _mm_storeu_pd(a + 2, _mm_sub_pd(va, t));
            _mm_storeu_pd(a, _mm_add_pd(va, t));
        }
        m = 2;
    }
    for (; m < until; m <<= 1) {
        const double* w = twiddles + 2 * (m - 1);
        for (int g = 0; g < n; g += 2 * m) {
            double* a = data + 2 * g;
            double* b = a + 2 * m;
            for (int k = 0; k < m; k += 2) {
                const __m256d vw = _mm256_loadu_pd(w + 2 * k);
                const __m256d wr = _mm256_movedup_pd(vw);
                const __m256d wi = _mm256_permute_pd(vw, 0xF);
                const __m256d va = _mm256_loadu_pd(a + 2 * k);
                const __m256d vb = _mm256_loadu_pd(b + 2 * k);
                const __m256d t = _mm256_addsub_pd(_mm256_mul_pd(wr, vb),
                                                   _mm256_mul_pd(wi, _mm256_permute_pd(vb, 0x5)));
                _mm256_storeu_pd(b + 2 * k, _mm256_sub_pd(va, t));
                _mm256_storeu_pd(a + 2 * k, _mm256_add_pd(va, t));
            }
        }
    }
}

// From the stage of 4 on, four butterflies per 512-bit vector.
__attribute__((target("avx2,avx512f"))) void
CMorvaneFft::Butterflies512(double* data, const double* twiddles, int from) const {
    const int n = m_nPoints;
    if (n < 8) {
        Butterflies256(data, twiddles, from);
        return;
    }
    // The first two stages as in the AVX2 path: too short for 512-bit vectors.
    if (from < 4)
        Butterflies256(data, twiddles, from, 4);
    // Two stages per pass where two remain: a block of 4m values loaded once for stage m and
    // stage 2m, every butterfly the same operations as one stage at a time.
    int m = std::max(from, 4);
    for (; 2 * m < n; m <<= 2) {
        const double* w1 = twiddles + 2 * (m - 1);
        const double* w2 = twiddles + 2 * (2 * m - 1);
        for (int g = 0; g < n; g += 4 * m) {
            double* a = data + 2 * g;
            for (int k = 0; k < m; k += 4) {
                __m512d A = _mm512_loadu_pd(a + 2 * k);
                __m512d B = _mm512_loadu_pd(a + 2 * (k + m));
                __m512d C = _mm512_loadu_pd(a + 2 * (k + 2 * m));
                __m512d D = _mm512_loadu_pd(a + 2 * (k + 3 * m));
                const __m512d v1 = _mm512_loadu_pd(w1 + 2 * k);
                Butterfly4(A, B, v1);
                Butterfly4(C, D, v1);
                Butterfly4(A, C, _mm512_loadu_pd(w2 + 2 * k));
                Butterfly4(B, D, _mm512_loadu_pd(w2 + 2 * (k + m)));
                _mm512_storeu_pd(a + 2 * k, A);
                _mm512_storeu_pd(a + 2 * (k + m), B);
                _mm512_storeu_pd(a + 2 * (k + 2 * m), C);
                _mm512_storeu_pd(a + 2 * (k + 3 * m), D);
            }
        }
    }
    if (m < n) {
        const double* w = twiddles + 2 * (m - 1);
        for (int g = 0; g < n; g += 2 * m) {
            double* a = data + 2 * g;
            for (int k = 0; k < m; k += 4) {
                __m512d A = _mm512_loadu_pd(a + 2 * k);
                __m512d B = _mm512_loadu_pd(a + 2 * (k + m));
                Butterfly4(A, B, _mm512_loadu_pd(w + 2 * k));
                _mm512_storeu_pd(a + 2 * k, A);
                _mm512_storeu_pd(a + 2 * (k + m), B);
            }
        }
    }
}
