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
#include "support/Golden.h"
#include "support/Signals.h"

namespace {

// taken when the short window came to join a low partial at the long window's loudest bin for it
constexpr uint64_t GOLDEN_CRISP = 16498389978553079629ull;

TEST(CrispGolden, RunsAtTheLevelAskedFor) {
    Golden::ExpectTheLevelAskedFor();
}

// Both bands, onsets and a change of rates, at stretches and transpositions each way.
TEST(CrispGolden, WholeRenders) {
    const auto x = Signals::Split(Signals::Music(44100 * 4, 44100));
    const uint64_t h = Golden::RenderDigest<CCrisp>(
        x, {{2.0, 1.0}, {0.75, 0.7491535384383408}, {1.0, 1.4983070768766815}}, 4096,
        &CCrisp::Process);
    RecordProperty("digest", std::to_string(h));
    EXPECT_EQ(GOLDEN_CRISP, h);
}

} // namespace
