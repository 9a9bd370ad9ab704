#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "CRemez.h"
#include "support/FilterResponse.h"

namespace {

using FilterResponse::Amplitude;
using FilterResponse::Measure;
using FilterResponse::Peak;
using FilterResponse::Ripple;

std::vector<double> Taps(const CRemez& rz, int n) {
    std::vector<double> t(2 * n - 1);
    for (int i = 0; i < 2 * n - 1; ++i)
        t[i] = rz.Tap(i);
    return t;
}

// The alternation theorem, measured: n + 1 or more extrema of equal size and alternating sign,
// and a passband ripple k times the stopband ripple.
TEST(Remez, ConvergedDesignsAreEquiripple) {
    struct Case {
        int n;
        double fp, fs, k;
    };
    for (Case c : {Case{26, 0.4, 0.5, 1}, Case{26, 0.4, 0.5, 2}, Case{26, 0.4, 0.5, 5},
                   Case{26, 0.4, 0.5, 10}, Case{12, 0.2, 0.35, 1}, Case{40, 0.6, 0.7, 3}}) {
        CRemez rz;
        std::vector<int16_t> out(2 * c.n - 1);
        rz.Remez(out.data(), c.n, c.fp, c.fs, c.k);
        ASSERT_TRUE(rz.Converged()) << c.n << " " << c.fp << " " << c.k;

        const Ripple r = Measure(Amplitude(Taps(rz, c.n)), c.fp, c.fs, c.k);
        const double delta = std::fabs(rz.Delta());
        EXPECT_NEAR(delta, r.stop, 1e-3 * delta) << c.k;
        EXPECT_NEAR(c.k, r.pass / r.stop, 1e-3 * c.k);
        // the largest extrema: as many as the theorem asks, alternating, equal within 0.1 %
        std::vector<Peak> big;
        for (Peak p : r.peaks)
            if (std::fabs(p.error) > 0.5 * delta)
                big.push_back(p);
        EXPECT_GE(big.size(), static_cast<size_t>(c.n + 1)) << c.n;
        for (size_t i = 0; i < big.size(); ++i) {
            if (big[i].exact) {
                EXPECT_NEAR(delta, std::fabs(big[i].error), 1e-3 * delta) << i;
            }
            if (i > 0) {
                EXPECT_LT(big[i].error * big[i - 1].error, 0.0) << "no alternation at " << i;
            }
        }
    }
}

TEST(Remez, IntegerTapsAreSymmetricAndScaledForEightPhases) {
    // an 8-phase interpolation filter: 425 taps, passband to 0.1, stopband from 0.125
    CRemez rz;
    const int n = 213, L = 2 * n - 1;
    std::vector<int16_t> out(L);
    rz.Remez(out.data(), n, 0.1, 0.125, 1.0);
    ASSERT_TRUE(rz.Converged());
    long sum = 0;
    int negatives = 0;
    for (int i = 0; i < L; ++i) {
        ASSERT_EQ(out[i], out[L - 1 - i]) << i;
        sum += out[i];
        // half added, then truncated toward zero: negative taps move toward zero by up to 1.5
        const double x = rz.Tap(i) * 8 * 32768 + 0.5;
        if (std::fabs(x - std::round(x)) > 1e-6) {
            EXPECT_EQ(static_cast<int>(std::trunc(x)), out[i]) << i;
            negatives += x < -1;
        }
    }
    EXPECT_GT(negatives, 20); // the rounding rule was exercised where it differs from floor
    EXPECT_NEAR(8 * 32768, sum, 8 * 32768 * 2 * std::fabs(rz.Delta()) + L);

    std::vector<double> quantised(out.begin(), out.end());
    for (double& q : quantised)
        q /= 8 * 32768.0;
    // designed: about 89 dB; 16-bit taps leave a quantisation floor near 77 dB
    EXPECT_NEAR(std::fabs(rz.Delta()), Measure(Amplitude(Taps(rz, n)), 0.1, 0.125, 1.0).stop,
                1e-3 * std::fabs(rz.Delta()));
    EXPECT_GT(-20 * std::log10(Measure(Amplitude(quantised), 0.1, 0.125, 1.0).stop), 70.0);
}

TEST(Remez, SmallestDesign) {
    CRemez rz;
    std::vector<int16_t> out(5, 0x7777);
    rz.Remez(out.data(), 3, 0.3, 0.6, 1.0); // five taps: p is clamped into 2 .. 3
    EXPECT_TRUE(rz.Converged());
    EXPECT_EQ(4, rz.ExtremalCount());
    EXPECT_EQ(out[0], out[4]);
    EXPECT_EQ(out[1], out[3]);
    EXPECT_NE(0x7777, out[2]);
    for (int i = 2; i <= 4; ++i)
        EXPECT_LT(rz.Extremum(i - 1), rz.Extremum(i));
}

TEST(Remez, PassLimitStopsADesignThatDoesNotConverge) {
    // this small design oscillates between point sets and never meets either end test
    CRemez rz;
    std::vector<int16_t> out(19);
    rz.Remez(out.data(), 10, 0.2, 0.23, 10.0);
    EXPECT_EQ(CRemez::End::PassLimit, rz.Ending());
    EXPECT_EQ(CRemez::kMaxPasses, rz.Passes());
    EXPECT_FALSE(rz.Converged());
    for (int i = 0; i < 19; ++i)
        EXPECT_EQ(out[i], out[18 - i]); // still a usable symmetric response

    // 127 taps with a wide transition: delta falls to 1e-16, below what doubles resolve, two
    // points meet and the step collapses; the search must still end
    std::vector<int16_t> wide(127);
    rz.Remez(wide.data(), 64, 0.6, 0.8, 1.0);
    EXPECT_EQ(CRemez::End::PassLimit, rz.Ending());
    EXPECT_LT(std::fabs(rz.Delta()), 1e-12);

    // a smaller limit stops a converging design early; the full one lets it finish alike
    std::vector<int16_t> early(51), full(51);
    rz.SetMaxPasses(2);
    rz.Remez(early.data(), 26, 0.4, 0.5, 1.0);
    EXPECT_EQ(CRemez::End::PassLimit, rz.Ending());
    rz.SetMaxPasses(CRemez::kMaxPasses);
    rz.Remez(full.data(), 26, 0.4, 0.5, 1.0);
    EXPECT_TRUE(rz.Converged());
    EXPECT_NE(early, full);
}

TEST(Remez, ArgumentsOutsideTheDesignSpaceWriteNothing) {
    CRemez rz;
    std::vector<int16_t> out(64, 5);
    rz.Remez(out.data(), 2, 0.3, 0.5, 1.0);
    rz.Remez(out.data(), 10000, 0.3, 0.5, 1.0);
    rz.Remez(out.data(), 10, 0.5, 0.3, 1.0);
    rz.Remez(out.data(), 10, 0.3, 1.0, 1.0);
    rz.Remez(out.data(), 10, 0.3, 0.5, 0.0);
    rz.Remez(out.data(), 10, NAN, 0.5, 1.0);
    EXPECT_EQ(std::vector<int16_t>(64, 5), out);
    EXPECT_EQ(CRemez::End::NotRun, rz.Ending());
}

} // namespace
