#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "CMorvaneInterpolator.h"

namespace {

using Point = CMorvaneInterpolator::Point;

// The resampler's plain loop for one stereo point.
void Plain(const int16_t* table, const Point& p, int taps, float* acc) {
    float a0 = 0.0f;
    float a1 = 0.0f;
    for (int j = 0, idx = p.row; j < taps; ++j, idx += 8) {
        const int32_t c = table[idx + 1] + ((table[idx] - table[idx + 1]) * p.sub) / 32768;
        const float fc = static_cast<float>(c);
        a0 = static_cast<float>(static_cast<double>(a0) +
                                static_cast<double>(p.x[2 * j] * fc) * 3.0517578125e-5);
        a1 = static_cast<float>(static_cast<double>(a1) +
                                static_cast<double>(p.x[2 * j + 1] * fc) * 3.0517578125e-5);
    }
    acc[0] = a0;
    acc[1] = a1;
}

// Any 16-bit entries, with room for the highest row.
std::vector<int16_t> RandomTable(std::mt19937& rng) {
    std::vector<int16_t> table(8 * CMorvaneInterpolator::kMaxTaps + CMorvaneInterpolator::kRows);
    std::uniform_int_distribution<int> entry(-32768, 32767);
    for (int16_t& t : table)
        t = static_cast<int16_t>(entry(rng));
    return table;
}

// The kernels' sums for points[0..count) against the plain loop's, to the bit.
::testing::AssertionResult MatchPlain(const std::vector<int16_t>& table, const Point* points,
                                      int count, int taps, const float* left, const float* right) {
    for (int i = 0; i < count; ++i) {
        float want[2];
        Plain(table.data(), points[i], taps, want);
        const float got[2] = {left[i], right[i]};
        if (std::memcmp(want, got, sizeof want) != 0)
            return ::testing::AssertionFailure()
                   << "taps " << taps << " point " << i << " of " << count << ": " << want[0] << " "
                   << got[0] << " " << want[1] << " " << got[1] << " sub " << points[i].sub
                   << " row " << points[i].row;
    }
    return ::testing::AssertionSuccess();
}

TEST(Interpolator, EveryKernelKeepsThePlainLoopsBits) {
    std::mt19937 rng(5);
    // Differences and their products with the fraction reach their extremes.
    std::vector<int16_t> table = RandomTable(rng);
    table[0] = -32768;
    table[1] = 32767;
    // Differences of -1 and +1, which the fraction 32767 takes to -32767 and +32767: the
    // truncated quotient is 0 either way.
    table[2] = 5;
    table[3] = 6;
    table[4] = 7;

    // Samples of every size the kernels accept, with signed zeros.
    std::vector<float> x(2 * (CMorvaneInterpolator::kMaxTaps + 64));
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (size_t i = 0; i < x.size(); ++i) {
        const float s = u(rng);
        switch (i % 5) {
        case 0:
            x[i] = s;
            break;
        case 1:
            x[i] = s * 1e6f;
            break;
        case 2:
            x[i] = s * 1e-30f;
            break;
        case 3:
            x[i] = i % 2 ? -0.0f : 0.0f;
            break;
        default:
            x[i] = s * 1e-3f;
        }
    }
    ASSERT_TRUE(CMorvaneInterpolator::Exact(x.data(), static_cast<long>(x.size())));

    std::uniform_int_distribution<int> row(0, CMorvaneInterpolator::kRows - 1);
    std::uniform_int_distribution<int> sub(-32767, 32767);
    std::uniform_int_distribution<int> start(0, 63);
    for (auto isa : {CMorvaneIsa::Avx2, CMorvaneIsa::Avx512}) {
        if (!CMorvaneIsa::Supported(isa))
            continue;
        CMorvaneInterpolator k(isa);
        ASSERT_TRUE(k.Available());
        k.Prepare(table.data(), static_cast<int>(table.size()));
        for (int taps : {1, 2, 3, 4, 5, 7, 8, 9, 16, 39, 53, 101, 104}) {
            for (int count = 1; count <= CMorvaneInterpolator::kBatch; ++count) {
                Point points[CMorvaneInterpolator::kBatch];
                for (int i = 0; i < count; ++i)
                    points[i] = {x.data() + 2 * start(rng), row(rng), sub(rng)};
                points[0].sub = 0;
                if (count > 2) {
                    points[1] = {points[1].x, 2, 32767};
                    points[2] = {points[2].x, 3, -32767};
                }
                float left[CMorvaneInterpolator::kBatch + 1];
                float right[CMorvaneInterpolator::kBatch + 1];
                left[count] = right[count] = 42.0f;
                // new samples at the same addresses each time: nothing read before may stay
                for (float& v : x)
                    v = -v;
                k.Source(x.data(), x.data() + x.size());
                ASSERT_TRUE(k.Run(points, count, taps, left, right));
                EXPECT_EQ(42.0f, left[count]) << "wrote past the points";
                EXPECT_EQ(42.0f, right[count]) << "wrote past the points";
                ASSERT_TRUE(MatchPlain(table, points, count, taps, left, right)) << "isa " << isa;
            }
        }
    }
}

// One source read many times over, as the resampler does: points anywhere in it, on either
// sample of a frame, in and out of order, near and far apart, and some reading past its ends.
TEST(Interpolator, CopiesOfOneSourceServeAnyPoints) {
    std::mt19937 rng(11);
    const std::vector<int16_t> table = RandomTable(rng);
    std::vector<float> x(5000);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (float& v : x)
        v = u(rng);
    const int taps = 101;
    std::uniform_int_distribution<int> at(-40, static_cast<int>(x.size()) - 2 * taps + 40);
    std::uniform_int_distribution<int> step(-1, 3);
    std::uniform_int_distribution<int> row(0, CMorvaneInterpolator::kRows - 1);
    std::uniform_int_distribution<int> sub(-32767, 32767);
    std::uniform_int_distribution<int> counts(1, CMorvaneInterpolator::kBatch);
    for (auto isa : {CMorvaneIsa::Avx2, CMorvaneIsa::Avx512}) {
        if (!CMorvaneIsa::Supported(isa))
            continue;
        CMorvaneInterpolator k(isa);
        k.Prepare(table.data(), static_cast<int>(table.size()));
        k.Source(x.data(), x.data() + x.size());
        int served = 0;
        for (int call = 0; call < 400; ++call) {
            const int count = counts(rng);
            Point points[CMorvaneInterpolator::kBatch];
            long first = at(rng);
            long end = first;
            bool inside = true;
            for (int i = 0, s = at(rng) % 2; i < count; ++i) {
                const long sample = first + 2 * s;
                inside = inside && sample >= 0 && sample + 2 * taps <= static_cast<long>(x.size());
                points[i] = {x.data() + std::clamp(sample, 0L, static_cast<long>(x.size())),
                             row(rng), sub(rng)};
                end = std::max(end, sample);
                s += call % 3 == 0 ? step(rng) : 1 + i % 2; // resampler-like steps mostly
            }
            if (!inside) {
                // pointers of points outside the source are clamped into it, so only the reads
                // past its end are left to refuse
                if (end + 2 * taps > static_cast<long>(x.size())) {
                    float l[CMorvaneInterpolator::kBatch], r[CMorvaneInterpolator::kBatch];
                    EXPECT_FALSE(k.Run(points, count, taps, l, r)) << "read past the source";
                }
                continue;
            }
            float left[CMorvaneInterpolator::kBatch];
            float right[CMorvaneInterpolator::kBatch];
            ASSERT_TRUE(k.Run(points, count, taps, left, right));
            ++served;
            ASSERT_TRUE(MatchPlain(table, points, count, taps, left, right))
                << "isa " << isa << " call " << call;
        }
        EXPECT_GT(served, 300);
    }
}

TEST(Interpolator, ExactRefusesSamplesItCouldRoundDifferently) {
    const float ok[] = {0.0f, -0.0f, 0x1p-111f, -1.0f, 0x1p100f};
    EXPECT_TRUE(CMorvaneInterpolator::Exact(ok, 5));
    for (float bad : {0x1p-112f, -1e-36f, 0x1p101f, -3e38f, INFINITY, -INFINITY, NAN}) {
        const float x[] = {0.5f, bad};
        EXPECT_FALSE(CMorvaneInterpolator::Exact(x, 2)) << bad;
    }
    // Every position of a longer run, where samples are tested several at a time, and the
    // limits themselves there.
    std::vector<float> run(37);
    for (size_t i = 0; i < run.size(); ++i)
        run[i] = ok[i % 5] * (i % 2 ? 1.0f : -1.0f);
    ASSERT_TRUE(CMorvaneInterpolator::Exact(run.data(), static_cast<long>(run.size())));
    for (float bad : {0x1p-112f, std::nextafter(0x1p100f, INFINITY), -INFINITY, NAN}) {
        for (size_t i = 0; i < run.size(); ++i) {
            std::vector<float> x = run;
            x[i] = bad;
            EXPECT_FALSE(CMorvaneInterpolator::Exact(x.data(), static_cast<long>(x.size())))
                << bad << " at " << i;
            EXPECT_TRUE(CMorvaneInterpolator::Exact(x.data(), static_cast<long>(i))) << i;
        }
    }
}

} // namespace
