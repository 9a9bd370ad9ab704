#pragma once

#include <cmath>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// A damaged recording must not spread: non-finite samples are taken as silence, and finite ones
// beyond 120 dB above full scale are limited there, so every sum stays finite. Both engines take
// their input through these.
namespace SampleClean {

constexpr float kMaxSample = 1.0e6f;

inline float Clean(float x) {
    if (std::fabs(x) <= kMaxSample)
        return x;
    if (!std::isfinite(x))
        return 0.0f;
    return x > 0 ? kMaxSample : -kMaxSample;
}

#if defined(__SSE2__)
// Clean() of four samples.
inline __m128 Clean4(__m128 x) {
    const __m128 limit = _mm_set1_ps(kMaxSample);
    const __m128 sign = _mm_set1_ps(-0.0f);
    const __m128 a = _mm_andnot_ps(sign, x);
    const __m128 ok = _mm_cmple_ps(a, limit);                     // false for NaN
    const __m128 finite = _mm_cmplt_ps(a, _mm_set1_ps(INFINITY)); // false for NaN, inf
    const __m128 limited = _mm_and_ps(finite, _mm_or_ps(_mm_and_ps(x, sign), limit));
    return _mm_or_ps(_mm_and_ps(ok, x), _mm_andnot_ps(ok, limited));
}
#endif

// dst[i] = Clean(src[i]) for n samples.
inline void CleanCopy(const float* src, float* dst, int n) {
    int i = 0;
#if defined(__SSE2__)
    for (; i + 4 <= n; i += 4)
        _mm_storeu_ps(dst + i, Clean4(_mm_loadu_ps(src + i)));
#endif
    for (; i < n; ++i)
        dst[i] = Clean(src[i]);
}

// Both channels cleaned and interleaved.
inline void CleanInterleave(const float* left, const float* right, float* dst, int n) {
    int i = 0;
#if defined(__SSE2__)
    for (; i + 4 <= n; i += 4) {
        const __m128 l = Clean4(_mm_loadu_ps(left + i));
        const __m128 r = Clean4(_mm_loadu_ps(right + i));
        _mm_storeu_ps(dst + 2 * i, _mm_unpacklo_ps(l, r));
        _mm_storeu_ps(dst + 2 * i + 4, _mm_unpackhi_ps(l, r));
    }
#endif
    for (; i < n; ++i) {
        dst[2 * i] = Clean(left[i]);
        dst[2 * i + 1] = Clean(right[i]);
    }
}

} // namespace SampleClean
