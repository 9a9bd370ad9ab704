#pragma once

#include "Intrinsics.h"

#include "Scale16.h"

namespace Scale16 {

// Scale16::Round of four samples, before the final truncation toward zero: x * 32768 in double
// is exact, saturation first leaves +-2^24 unchanged by the half-away step, NaN becomes 0, and
// -0.0 and +0.0 both end at 0. Truncating the result gives Round's integers.
__attribute__((target("avx2"), always_inline)) inline __m256d Halfway4(__m128 x) {
    const __m256d v = _mm256_mul_pd(_mm256_cvtps_pd(x), _mm256_set1_pd(32768.0));
    const __m256d number = _mm256_cmp_pd(v, v, _CMP_ORD_Q);
    const __m256d c = _mm256_and_pd(
        _mm256_min_pd(_mm256_max_pd(v, _mm256_set1_pd(-kLimit)), _mm256_set1_pd(kLimit)), number);
    // v < 0 ? v - 0.5 : v + 0.5
    return _mm256_add_pd(c,
                         _mm256_or_pd(_mm256_set1_pd(0.5), _mm256_and_pd(c, _mm256_set1_pd(-0.0))));
}

} // namespace Scale16
