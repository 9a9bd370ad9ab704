// Prints, as markdown, how the Remez designer's filters compare with the resampler's Kaiser
// tables: ripple and attenuation measured from a dense transform of the taps.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "CMorvaneResample.h"
#include "CRemez.h"
#include "support/FilterResponse.h"

namespace {

using FilterResponse::Decibels;
using FilterResponse::Measure;

std::vector<double> Scaled(const int16_t* taps, int count) {
    std::vector<double> v(taps, taps + count);
    for (double& x : v)
        x /= 8 * 32768.0;
    return v;
}

} // namespace

int main() {
    CRemez remez;
    std::printf("## Remez designs, n = 26 (51 taps), passband 0.4, stopband 0.5\n\n");
    std::printf("Measured on the unquantised taps (at this cut-off the 8-phase gain does not fit "
                "16 bits).\n\n");
    std::printf("| k | passes | end | delta | passband ripple dB | stopband dB |\n");
    std::printf("|---|---|---|---|---|---|\n");
    std::vector<int16_t> out(2 * 213 - 1);
    for (double k : {1.0, 2.0, 5.0, 10.0}) {
        remez.Remez(out.data(), 26, 0.4, 0.5, k);
        std::vector<double> taps(51);
        for (int i = 0; i < 51; ++i)
            taps[i] = remez.Tap(i);
        const auto r = Measure(FilterResponse::Amplitude(taps), 0.4, 0.5, k);
        std::printf("| %g | %d | %s | %.3g | ±%.4f | %.1f |\n", k, remez.Passes(),
                    remez.Ending() == CRemez::End::DeltaSteady ? "delta steady" : "few moves",
                    remez.Delta(), 20 * std::log10(1 + r.pass), Decibels(r.stop));
    }

    std::printf("\n## 8-phase interpolation tables of the same length, 16-bit taps\n\n");
    std::printf("Passband to 0.1, stopband from 0.125 of the 8x rate (0.8 and 1.0 of the input "
                "Nyquist frequency), as the resampler uses them for ratios up to 1.\n\n");
    std::printf("| design | taps | passband ripple dB | stopband dB |\n|---|---|---|---|\n");
    for (int att : {60, 80}) {
        CMorvaneResample kaiser;
        const int taps = kaiser.makeFIR(1.0, att, 0.1);
        const int entries = 8 * taps + 1;
        const auto k =
            Measure(FilterResponse::Amplitude(Scaled(kaiser.Table(), entries)), 0.1, 0.125, 1.0);
        std::printf("| Kaiser %d dB (resampler) | %d | ±%.4f | %.1f |\n", att, entries,
                    20 * std::log10(1 + k.pass), Decibels(k.stop));

        // The same formulas with the true I0, for reference: the resampler's series wraps its
        // factorial on purpose, and this shows what that costs.
        {
            const int M = 4 * taps;
            const double beta = CMorvaneResample::KaiserBeta(att);
            std::vector<double> t(entries);
            t[M] = static_cast<int32_t>(32768 * 0.9);
            for (int i = 1; i <= M; ++i) {
                const double r = double(i) / M;
                const double w = std::cyl_bessel_i(0.0, beta * std::sqrt(1 - r * r)) /
                                 std::cyl_bessel_i(0.0, beta);
                const double h = std::sin(i * 0.9 * M_PI * 0.125) / (i * (M_PI * 0.125));
                t[M + i] = t[M - i] = static_cast<int16_t>(static_cast<int32_t>(w * h * 32768));
            }
            for (double& x : t)
                x /= 8 * 32768.0;
            const auto ref = Measure(FilterResponse::Amplitude(t), 0.1, 0.125, 1.0);
            std::printf("| Kaiser %d dB with the true I0 (not used) | %d | ±%.4f | %.1f |\n", att,
                        entries, 20 * std::log10(1 + ref.pass), Decibels(ref.stop));
        }

        const int n = (entries + 1) / 2;
        remez.Remez(out.data(), n, 0.1, 0.125, 1.0);
        const auto r =
            Measure(FilterResponse::Amplitude(Scaled(out.data(), entries)), 0.1, 0.125, 1.0);
        std::printf("| Remez n = %d, k = 1 | %d | ±%.4f | %.1f (unquantised %.1f) |\n", n, entries,
                    20 * std::log10(1 + r.pass), Decibels(r.stop),
                    Decibels(std::fabs(remez.Delta())));
    }
    return 0;
}
