// The crisp engine's output pinned to the bit. Its kernels are compiled per instruction set with
// the same operations in the same order; ctest runs this again capped at each narrower level
// (MORVANE_SIMD), and every level must give these digests.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "CCrisp.h"
#include "CMorvaneIsa.h"
#include "support/Signals.h"

namespace {

// taken when the transform went to single precision
constexpr uint64_t GOLDEN_CRISP = 18019822336067831712ull;

// FNV-1a over the bytes of the values.
uint64_t Digest(const float* v, size_t n, uint64_t h) {
    const auto* b = reinterpret_cast<const unsigned char*>(v);
    for (size_t i = 0; i < n * sizeof(float); ++i)
        h = (h ^ b[i]) * 1099511628211ull;
    return h;
}

TEST(CrispGolden, RunsAtTheLevelAskedFor) {
    const char* cap = std::getenv("MORVANE_SIMD");
    const std::string level = cap ? cap : "";
    if (level == "baseline") {
        EXPECT_EQ(CMorvaneIsa::Baseline, CMorvaneIsa::Detected());
    } else if (level == "avx2") {
        EXPECT_NE(CMorvaneIsa::Avx512, CMorvaneIsa::Detected());
    }
}

// Both bands, onsets and a change of rates, at stretches and transpositions each way.
TEST(CrispGolden, WholeRenders) {
    const auto x = Signals::Split(Signals::Music(44100 * 4, 44100));
    uint64_t h = 1469598103934665603ull;
    struct Case {
        double time, pitch;
    };
    for (Case c : {Case{2.0, 1.0}, Case{0.75, 0.7491535384383408}, Case{1.0, 1.4983070768766815}}) {
        CCrisp e;
        e.SetTimeRate(c.time, false);
        e.SetPitchRate(c.pitch, false);
        e.StartToProcess();
        std::vector<float> o0(e.MaxOutput(4096)), o1(e.MaxOutput(4096));
        const int n = static_cast<int>(x.left.size());
        for (int pos = 0; pos < n; pos += 4096) {
            const int k = std::min(4096, n - pos);
            float* ins[2] = {const_cast<float*>(&x.left[pos]), const_cast<float*>(&x.right[pos])};
            float* outs[2] = {o0.data(), o1.data()};
            const int got = e.Process(outs, ins, k, pos + k == n);
            h = Digest(o0.data(), got, Digest(o1.data(), got, h));
        }
    }
    RecordProperty("digest", std::to_string(h));
    EXPECT_EQ(GOLDEN_CRISP, h);
}

} // namespace
