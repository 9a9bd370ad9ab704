#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

// Deterministic test material, interleaved float frames.
namespace Signals {

inline std::vector<float> Sine(int frames, int channels, double cyclesPerFrame, double amp,
                               double phase = 0.0) {
    std::vector<float> v(static_cast<size_t>(frames) * channels);
    for (int i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            v[static_cast<size_t>(i) * channels + c] =
                static_cast<float>(amp * std::sin(2 * M_PI * cyclesPerFrame * i + phase));
    return v;
}

// Uniform noise in [-amp, amp) from a fixed linear congruential sequence.
inline std::vector<float> Noise(int frames, int channels, double amp, uint32_t seed = 1) {
    std::vector<float> v(static_cast<size_t>(frames) * channels);
    for (auto& s : v) {
        seed = seed * 1664525u + 1013904223u;
        s = static_cast<float>(amp * ((seed >> 8) / 8388608.0 - 1.0));
    }
    return v;
}

// A short piece of stereo music: a bass line and a melody of harmonic notes that change every
// quarter second, and a noise-burst drum hit every half second.
inline std::vector<float> Music(int frames, int rate) {
    static const double notes[] = {220.0, 246.94, 261.63, 293.66, 329.63, 293.66, 261.63, 196.0};
    std::vector<float> v(static_cast<size_t>(frames) * 2);
    uint32_t seed = 12345;
    double phase = 0.0, bass = 0.0;
    for (int i = 0; i < frames; ++i) {
        const double t = double(i) / rate;
        const int step = static_cast<int>(t * 4);
        phase += 2 * M_PI * notes[step % 8] / rate;
        bass += 2 * M_PI * notes[(step / 4) % 8] / 4 / rate;
        const double envelope = std::exp(-3.0 * (t * 4 - step));
        const double melody =
            envelope * (std::sin(phase) + 0.4 * std::sin(2 * phase) + 0.2 * std::sin(3 * phase));
        seed = seed * 1664525u + 1013904223u;
        const double beat = t * 2 - std::floor(t * 2);
        const double drum = std::exp(-40.0 * beat) * ((seed >> 8) / 8388608.0 - 1.0);
        v[2 * i] = static_cast<float>(0.25 * melody + 0.2 * std::sin(bass) + 0.3 * drum);
        v[2 * i + 1] = static_cast<float>(0.15 * melody + 0.2 * std::sin(bass) + 0.3 * drum);
    }
    return v;
}

// Two channels as the host hands them over: one array each.
struct Planar {
    std::vector<float> left, right;
    size_t size() const { return left.size(); }
};

inline Planar Split(const std::vector<float>& interleaved) {
    Planar p;
    for (size_t i = 0; i + 1 < interleaved.size(); i += 2) {
        p.left.push_back(interleaved[i]);
        p.right.push_back(interleaved[i + 1]);
    }
    return p;
}

// Frequency in cycles per frame of a sine in channel 0 of frames [from, to), from the spacing
// of its upward zero crossings, located by linear interpolation.
inline double ZeroCrossingFrequency(const float* x, int channels, int from, int to) {
    double first = -1, last = -1;
    int crossings = 0;
    for (int i = from + 1; i < to; ++i) {
        const double a = x[static_cast<size_t>(i - 1) * channels];
        const double b = x[static_cast<size_t>(i) * channels];
        if (a < 0 && b >= 0) {
            const double at = i - 1 + a / (a - b);
            if (first < 0)
                first = at;
            last = at;
            ++crossings;
        }
    }
    return crossings > 1 ? (crossings - 1) / (last - first) : 0.0;
}

// The same, as the median over windows of the given length: a splice disturbs the windows it
// falls in, not the estimate.
inline double MedianFrequency(const float* x, int channels, int from, int to, int window = 4096) {
    std::vector<double> f;
    for (int w = from; w + window <= to; w += window / 2) {
        const double v = ZeroCrossingFrequency(x, channels, w, w + window);
        if (v > 0)
            f.push_back(v);
    }
    if (f.empty())
        return 0.0;
    std::nth_element(f.begin(), f.begin() + f.size() / 2, f.end());
    return f[f.size() / 2];
}

} // namespace Signals
