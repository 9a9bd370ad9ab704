#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <vector>

#include "CMorvaneFft.h"
#include "fft.h"
#include "support/Signals.h"

namespace {

template <typename T> std::vector<T> RandomComplex(int n) {
    auto noise = Signals::Noise(n, 2, 1.0, 77u + n);
    return std::vector<T>(noise.begin(), noise.end());
}

// Against the unitary DFT with a negative exponent forward, and back again; sizes 1 and below
// leave the data alone.
TEST(Fft, ForwardIsTheUnitaryDftAndInverseUndoesIt) {
    const int n = 64;
    auto x = RandomComplex<double>(n);
    auto X = x;
    fft(X.data(), n, true);
    for (int k = 0; k < n; ++k) {
        std::complex<double> sum = 0;
        for (int j = 0; j < n; ++j)
            sum += std::complex<double>(x[2 * j], x[2 * j + 1]) *
                   std::polar(1.0, -2 * M_PI * j * k / n);
        sum /= std::sqrt(double(n));
        // pi is taken to ten digits, so agreement is to about 1e-9, not to the last bit
        EXPECT_NEAR(sum.real(), X[2 * k], 1e-8) << k;
        EXPECT_NEAR(sum.imag(), X[2 * k + 1], 1e-8) << k;
    }
    fft(X.data(), n, false);
    for (int i = 0; i < 2 * n; ++i)
        ASSERT_NEAR(x[i], X[i], 1e-12);
    std::vector<float> f(x.begin(), x.end());
    fft_float(f.data(), n, true);
    fft_float(f.data(), n, false);
    for (int i = 0; i < 2 * n; ++i)
        ASSERT_NEAR(x[i], f[i], 1e-5);

    double one[2] = {3.5, -2.0};
    fft(one, 1, true);
    fft(one, 0, true);
    fft(one, -4, false);
    EXPECT_EQ(3.5, one[0]);
    EXPECT_EQ(-2.0, one[1]);
}

// The prepared transform the detector runs, at every instruction-set level asked for (one this
// CPU lacks falls back): the same bits as the transform the golden digest fixes, also for
// signed zeros and values far apart in size.
TEST(Fft, PreparedPlansGiveTheTransformsBits) {
    for (auto isa : {CMorvaneIsa::Baseline, CMorvaneIsa::Avx2, CMorvaneIsa::Avx512}) {
        CMorvaneFft plan(isa);
        for (int n = 1; n <= CMorvaneFft::kMaxPoints; n *= 2) {
            ASSERT_TRUE(plan.Prepare(n));
            for (bool forward : {true, false}) {
                auto a = RandomComplex<double>(n);
                for (int i = 0; i < 2 * n; i += 7)
                    a[i] = i % 3 == 0 ? -0.0 : a[i] * 1e12;
                auto b = a;
                plan.Transform(a.data(), forward);
                fft(b.data(), n, forward);
                ASSERT_EQ(0, std::memcmp(a.data(), b.data(), sizeof(double) * a.size()))
                    << "isa " << isa << " n=" << n << " forward=" << forward;
            }
        }
    }
}

TEST(Fft, PlansRefuseSizesTheyCannotRun) {
    CMorvaneFft plan;
    for (int n : {0, -4, 3, 1000, 2 * CMorvaneFft::kMaxPoints}) {
        EXPECT_FALSE(plan.Prepare(n)) << n;
        EXPECT_EQ(0, plan.Points());
    }
    std::vector<double> untouched{1.0, 2.0};
    plan.Transform(untouched.data(), true);
    EXPECT_EQ(1.0, untouched[0]);
    EXPECT_EQ(2.0, untouched[1]);
}

} // namespace
