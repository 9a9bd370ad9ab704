#pragma once

#include <cmath>
#include <cstdint>

// Levels, correlations and the detector's windowing work on integers at a 16-bit scale: a float
// sample x counts as x * 32768, rounded half away from zero. Inside full scale that is exact.
// Beyond it the value saturates at +-2^24 (512 x full scale) and NaN counts as silence, so the
// integer arithmetic downstream (64-bit products and sums) can never overflow.
namespace Scale16 {

constexpr int32_t kLimit = 1 << 24;

inline int32_t Round(float x) {
    const double v = static_cast<double>(x) * 32768.0;
    if (!(v > -kLimit)) // also catches NaN
        return std::isnan(v) ? 0 : -kLimit;
    if (v >= kLimit)
        return kLimit;
    return static_cast<int32_t>(v < 0.0 ? v - 0.5 : v + 0.5);
}

// |x| * 32768 + 0.5, truncated: the block stretcher's loudness measure.
inline uint32_t Magnitude(float x) {
    const double v = std::fabs(static_cast<double>(x)) * 32768.0 + 0.5;
    if (!(v < kLimit))
        return std::isnan(v) ? 0u : static_cast<uint32_t>(kLimit);
    return static_cast<uint32_t>(v);
}

} // namespace Scale16
