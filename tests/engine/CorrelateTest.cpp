#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "CMorvaneCorrelate.h"
#include "Scale16.h"

namespace {

using Isa = CMorvaneCorrelate::Isa;
using Width = CMorvaneCorrelate::Width;

// The definition, one lag at a time in 64 bits.
int64_t Reference(const std::vector<float>& a, const std::vector<float>& b, long offset) {
    int64_t sum = 0;
    for (size_t i = 0; i < b.size(); ++i)
        sum += (int64_t{Scale16::Round(a[offset + i])} * Scale16::Round(b[i])) >> 20;
    return sum;
}

std::vector<float> Noise(size_t n, float peak, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-peak, peak);
    std::vector<float> v(n);
    for (float& x : v)
        x = u(rng);
    return v;
}

struct Case {
    const char* what;
    std::vector<float> a;
    std::vector<float> b;
    Width width;
};

std::vector<Case> Cases(int n) {
    std::vector<Case> cases;
    const size_t region = n + 200;
    cases.push_back({"in range", Noise(region, 0.99f, 1), Noise(n, 0.99f, 2), Width::Narrow16});
    // -1.0 rounds to -32768, which 16 bits hold; the products reach 2^30.
    std::vector<float> low(region, -1.0f);
    cases.push_back({"most negative", low, std::vector<float>(n, -1.0f), Width::Narrow16});
    // +1.0 rounds to +32768, which they do not.
    std::vector<float> a = Noise(region, 1.0f, 3);
    std::vector<float> b = Noise(n, 1.0f, 4);
    a[region / 2] = 1.0f;
    if (n > 1) {
        b[0] = -1.0f;
        b[n - 1] = 1.0f;
    }
    cases.push_back({"full scale", a, b, Width::Full32});
    // Beyond full scale (float files can hold it), saturating at 512 x full scale.
    std::vector<float> wide = Noise(region, 4.0f, 5);
    wide[3] = 1e9f;
    // Non-finite samples: NaN counts as silence, infinities saturate. Also -0.0 and the
    // saturation limit itself.
    wide[4] = NAN;
    wide[5] = -INFINITY;
    wide[6] = INFINITY;
    wide[7] = -0.0f;
    wide[8] = -512.0f;
    wide[9] = 512.0f;
    wide[10] = -0.5f / 32768;
    wide[11] = 1.5f / 32768;
    cases.push_back({"beyond full scale", wide, Noise(n, 600.0f, 6), Width::Wide64});
    // Small products of mixed sign: every one shifts down to 0 or -1.
    cases.push_back({"quiet", Noise(region, 0.01f, 7), Noise(n, 0.01f, 8), Width::Narrow16});
    return cases;
}

// Every level asked for, also one this CPU lacks (which must fall back, not fault).
TEST(Correlate, EveryPathGivesTheDefinitionsSums) {
    for (Isa isa : {Isa::Baseline, Isa::Avx2, Isa::Avx512}) {
        CMorvaneCorrelate c(isa);
        // Lengths around each vector width and batch edge, both strides.
        for (int n : {0, 1, 7, 8, 15, 16, 17, 31, 32, 33, 63, 64, 65, 100, 1441}) {
            for (const Case& k : Cases(n)) {
                for (int stride : {1, 2}) {
                    const int count = static_cast<int>((k.a.size() - n) / stride) + 1;
                    ASSERT_TRUE(c.Load(k.a.data(), static_cast<int>(k.a.size()), k.b.data(), n));
                    if (n > 0) {
                        EXPECT_EQ(k.width, c.LoadedWidth()) << k.what;
                    }
                    // An odd first lag and an odd count leave partial batches at both ends.
                    const int first = count > 3 ? 1 : 0;
                    const int many = count - first - (count > 6 ? 2 : 0);
                    std::vector<int64_t> out(many + 1, 12345);
                    c.Lags(first, many, stride, out.data());
                    for (int j = 0; j < many; ++j)
                        ASSERT_EQ(Reference(k.a, k.b, static_cast<long>(first + j) * stride),
                                  out[j])
                            << k.what << " isa " << static_cast<int>(isa) << " n " << n
                            << " stride " << stride << " lag " << first + j;
                    EXPECT_EQ(12345, out[many]) << "wrote past count";
                }
            }
        }
    }
}

TEST(Correlate, RefusesWhatItCannotHold) {
    CMorvaneCorrelate c;
    std::vector<float> big(CMorvaneCorrelate::kCapacity + 1, 0.5f);
    EXPECT_FALSE(c.Load(big.data(), static_cast<int>(big.size()), big.data(), 10));
    EXPECT_FALSE(c.Load(big.data(), 10, big.data(), static_cast<int>(big.size())));
    EXPECT_FALSE(c.Load(big.data(), -1, big.data(), 10));
    EXPECT_TRUE(c.Load(big.data(), CMorvaneCorrelate::kCapacity, big.data(), 10));
}

} // namespace
