#pragma once

#include <cmath>
#include <numbers>

// The five parameters as every part names them: the effect, its panel, the command-line host,
// the factory bank's generator and the tests. Header-only, so that a host includes it without
// linking plug-in code.
namespace MorvaneParameters {

enum Index : int { kOnOff, kOutput, kPitch, kTime, kLowSound, kCount };

inline constexpr const char* kNames[kCount] = {"ON/OFF", "Output", "Pitch", "Time", "LowSound"};
inline constexpr const char* kLabels[kCount] = {"", "dB", "cent", "%", ""};

// Output: the host's value is a linear gain normalised over this range. The normalisation
// divides by the range held as a float, so a host that converts as GainToHost does gets a gain
// of exactly 1 back for 0 dB.
inline constexpr double kGainMin = 0.001;
inline constexpr double kGainMax = 2.0;
// Output on the panel and in the display: 6 dB per doubling of gain, exactly.
inline constexpr double kLevelMinDb = -100.0; // the floor of the conversion, below any gain
inline constexpr double kLevelMaxDb = 6.0;

// Pitch and Time from the host are rates; the panel shows cents and percent.
inline constexpr double kRateMin = 0.5;
inline constexpr double kRateMax = 2.0;
inline constexpr double kCentsMin = -1200.0;
inline constexpr double kCentsMax = 1200.0;
inline constexpr double kPercentMin = 50.0;
inline constexpr double kPercentMax = 200.0;

// pitch rate x time rate may not pass 2, judged on the two rates as they are stored (floats) and
// multiplied in float. In double, a pair stored at the bound (2 / 1.5 = 1.3333334f with 1.5)
// comes to 2.00000006 and would be refused when it comes back from a program or a chunk,
// leaving the host showing one rate while the engine runs another.
inline constexpr float kMaxRateProduct = 2.0f;
constexpr bool WithinBound(float pitchRate, float timeRate) {
    return pitchRate * timeRate <= kMaxRateProduct; // false for NaN too
}

// LowSound is off only for exactly -1; 0 and 1 both leave it on.
inline constexpr float kLowSoundOff = -1.0f;
inline constexpr float kLowSoundOn = 1.0f;

inline constexpr double kLn2 = std::numbers::ln2;

inline double GainToDb(double gain) {
    return 6.0 * (std::log(gain) / kLn2);
}
inline float GainToHost(double gain) {
    return static_cast<float>((gain - kGainMin) / static_cast<float>(kGainMax - kGainMin));
}
inline double HostToGain(double host) {
    return kGainMin + host * (kGainMax - kGainMin);
}

} // namespace MorvaneParameters
