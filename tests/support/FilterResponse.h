#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "fft.h"

// The frequency response of a symmetric FIR filter, measured from a dense transform of its taps.
namespace FilterResponse {

constexpr int kGrid = 16384; // transform points

// Real amplitude A(f) for f over [0, 1] relative to Nyquist, in kGrid / 2 + 1 steps. The
// transform is A(w) e^(-i w c) for centre tap c, so the phase factor is taken back out.
inline std::vector<double> Amplitude(const std::vector<double>& taps) {
    std::vector<double> d(2 * kGrid, 0.0);
    for (size_t i = 0; i < taps.size(); ++i)
        d[2 * i] = taps[i];
    fft(d.data(), kGrid, true);
    const double c = (taps.size() - 1) / 2.0;
    std::vector<double> a(kGrid / 2 + 1);
    for (int b = 0; b <= kGrid / 2; ++b) {
        const double w = 2 * M_PI * b / kGrid;
        a[b] = std::sqrt(double(kGrid)) *
               (d[2 * b] * std::cos(w * c) - d[2 * b + 1] * std::sin(w * c));
    }
    return a;
}

struct Peak {
    double error; // weighted
    bool exact;   // a true extremum, or a band edge that lies on the grid
};

struct Ripple {
    double pass, stop;       // largest |A - 1| in the passband, |A| in the stopband
    std::vector<Peak> peaks; // at each local extremum, in frequency order
};

// Local extrema of the weighted error (A - 1) / k in [0, fp] and A in [fs, 1], band edges
// included, on the grid.
inline Ripple Measure(const std::vector<double>& a, double fp, double fs, double k) {
    Ripple r{0, 0, {}};
    const int last = kGrid / 2;
    auto band = [&](int from, int to, bool pass) {
        auto err = [&](int b) { return pass ? (a[b] - 1) / k : a[b]; };
        double& worst = pass ? r.pass : r.stop;
        for (int b = from; b <= to; ++b) {
            const double e = err(b);
            worst = std::max(worst, std::fabs(pass ? a[b] - 1 : a[b]));
            const bool left = b == from || std::fabs(e) >= std::fabs(err(b - 1));
            const bool right = b == to || std::fabs(e) > std::fabs(err(b + 1));
            const bool turn = b == from || b == to || (e - err(b - 1)) * (err(b + 1) - e) <= 0;
            if (left && right && turn) {
                const bool edge = (b == from && from != 0) || (b == to && to != last);
                r.peaks.push_back({e, !edge || b == (pass ? fp : fs) * last});
            }
        }
    };
    band(0, static_cast<int>(std::floor(fp * last)), true);
    band(static_cast<int>(std::ceil(fs * last)), last, false);
    return r;
}

inline double Decibels(double amplitude) {
    return -20 * std::log10(amplitude);
}

} // namespace FilterResponse
