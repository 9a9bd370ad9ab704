#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <vector>

#include "CMorvaneFft.h"
#include "fft.h"
#include "support/Signals.h"

namespace {

// The transform in its direct form: groups outside, k inside, the angle accumulated per k and
// cos/sin evaluated for every butterfly. The engine's loop order must give the same bits.
template <typename T> void DirectFft(T* d, int n, bool forward) {
    if (n <= 0)
        return;
    int bits = 0;
    while ((1 << bits) < n)
        ++bits;
    for (int i = 0; i < n; ++i) {
        int j = 0;
        for (int b = 0; b < bits; ++b)
            if (i & (1 << b))
                j |= 1 << (bits - 1 - b);
        if (i < j) {
            std::swap(d[2 * i], d[2 * j]);
            std::swap(d[2 * i + 1], d[2 * j + 1]);
        }
    }
    for (int m = 1; m < n; m *= 2) {
        T delta = static_cast<T>(3.1415926535 / m);
        if (forward)
            delta = -delta;
        for (int g = 0; g < n; g += 2 * m) {
            T theta = 0;
            for (int k = 0; k < m; ++k) {
                T wr = static_cast<T>(std::cos(static_cast<double>(theta)));
                T wi = static_cast<T>(std::sin(static_cast<double>(theta)));
                T* a = d + 2 * (g + k);
                T* b = d + 2 * (g + k + m);
                T tr = wr * b[0] - wi * b[1];
                T ti = wr * b[1] + wi * b[0];
                b[0] = a[0] - tr;
                b[1] = a[1] - ti;
                a[0] += tr;
                a[1] += ti;
                theta += delta;
            }
        }
    }
    T s = static_cast<T>(std::sqrt(static_cast<double>(n)));
    for (int i = 0; i < 2 * n; ++i)
        d[i] /= s;
}

template <typename T> std::vector<T> RandomComplex(int n) {
    auto noise = Signals::Noise(n, 2, 1.0, 77u + n);
    return std::vector<T>(noise.begin(), noise.end());
}

TEST(Fft, MatchesTheDirectFormBitForBit) {
    for (int n = 1; n <= 8192; n *= 2) {
        for (bool forward : {true, false}) {
            auto a = RandomComplex<double>(n);
            auto b = a;
            fft(a.data(), n, forward);
            DirectFft(b.data(), n, forward);
            ASSERT_EQ(0, std::memcmp(a.data(), b.data(), sizeof(double) * a.size()))
                << "double, n=" << n << " forward=" << forward;

            auto fa = RandomComplex<float>(n);
            auto fb = fa;
            fft_float(fa.data(), n, forward);
            DirectFft(fb.data(), n, forward);
            ASSERT_EQ(0, std::memcmp(fa.data(), fb.data(), sizeof(float) * fa.size()))
                << "float, n=" << n << " forward=" << forward;
        }
    }
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

// The prepared transform the detector runs, on every instruction set this CPU has: the same
// bits as the direct form, also for signed zeros and values far apart in size.
TEST(Fft, PreparedPlansMatchTheDirectFormBitForBit) {
    for (auto isa : {CMorvaneIsa::Baseline, CMorvaneIsa::Avx2, CMorvaneIsa::Avx512}) {
        if (!CMorvaneIsa::Supported(isa))
            continue;
        CMorvaneFft plan(isa);
        for (int n = 1; n <= CMorvaneFft::kMaxPoints; n *= 2) {
            ASSERT_TRUE(plan.Prepare(n));
            for (bool forward : {true, false}) {
                auto a = RandomComplex<double>(n);
                for (int i = 0; i < 2 * n; i += 7)
                    a[i] = i % 3 == 0 ? -0.0 : a[i] * 1e12;
                auto b = a;
                plan.Transform(a.data(), forward);
                DirectFft(b.data(), n, forward);
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
