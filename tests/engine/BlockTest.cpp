#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "CMorvaneBlock.h"
#include "Scale16.h"
#include "support/Signals.h"

namespace {

constexpr int kHistory = 1024;

// The engine's input holding buffer: 1024 frames of history, then the segment, then room that
// the splice search may read past the segment's end.
struct BlockFixture : ::testing::Test {
    CMorvaneBlock block;
    mvArg arg;
    std::vector<float> buf;
    std::vector<float> out;

    float* Load(const std::vector<float>& signal) {
        buf.assign(signal.begin(), signal.end());
        buf.resize(buf.size() + 3 * 44100 * 2, 0.0f);
        block.SetBufferPointer(buf.data());
        out.assign(buf.size() * 2, 0.0f);
        return buf.data() + kHistory * arg.nChannels;
    }
};

// A sine of period 97 frames, lengthened from 1000 to 1500 frames: head 450, tail 600, end-aligned
// source from frame -50. The start-aligned signal at 450 + g matches it when 500 + g is a whole
// number of periods: g = -15 (or 82, -112, whose lag penalty is larger). The spliced output is
// then the same sine without a seam.
TEST_F(BlockFixture, SpliceTakesTheBestCorrelatedLag) {
    const double freq = 1.0 / 97;
    float* in = Load(Signals::Sine(kHistory + 3000, 2, freq, 0.5));
    arg.dStretch = 1.5;
    const int r = block.stretch(out.data(), in, 1000, 1500, &arg, nullptr);
    ASSERT_EQ(1500 - 15, r);
    const double phase0 = 2 * M_PI * freq * kHistory;
    for (int i = 0; i < r; ++i)
        ASSERT_NEAR(0.5 * std::sin(phase0 + 2 * M_PI * freq * i), out[2 * i + 1], 2e-4) << i;

    // shortening from 1500 to 1000: head 300, tail 400, source from 800; 500 - g periodic
    const int s = block.stretch(out.data(), in, 1500, 1000, &arg, nullptr);
    EXPECT_EQ(1000 + 15, s);
    for (int i = 0; i < s; ++i)
        ASSERT_NEAR(0.5 * std::sin(phase0 + 2 * M_PI * freq * i), out[2 * i], 2e-4) << i;
}

TEST_F(BlockFixture, QuietSignalsHaveNothingToCorrelate) {
    // below about -30 dBFS every 16-bit-scale product shifted down by 20 bits is 0 or -1: no lag
    float* in = Load(Signals::Sine(kHistory + 3000, 2, 1.0 / 97, 0.03));
    arg.dStretch = 1.5;
    EXPECT_EQ(1500, block.stretch(out.data(), in, 1000, 1500, &arg, nullptr));
}

TEST_F(BlockFixture, SourceBeforeTheBufferGivesSilentTail) {
    // no history at all: lengthening 2x would start the end-aligned source 400 frames early
    auto sine = Signals::Sine(3000, 2, 1.0 / 97, 0.5);
    buf = sine;
    block.SetBufferPointer(buf.data());
    out.assign(6000 * 2, 1.0f);
    arg.dStretch = 2.0;
    EXPECT_EQ(2000, block.stretch(out.data(), buf.data(), 1000, 2000, &arg, nullptr));
    for (int i = 0; i < 600 * 2; ++i)
        ASSERT_EQ(buf[i], out[i]); // head copied
    for (int i = 1200 * 2; i < 2000 * 2; ++i)
        ASSERT_EQ(0.0f, out[i]); // tail silent

    // with the history there, the same splice finds its source and keeps the tail
    float* in = Load(Signals::Sine(kHistory + 3000, 2, 1.0 / 97, 0.5));
    const int r = block.stretch(out.data(), in, 1000, 2000, &arg, nullptr);
    double tailEnergy = 0;
    for (int i = (r - 100) * 2; i < r * 2; ++i)
        tailEnergy += out[i] * out[i];
    EXPECT_GT(tailEnergy, 10.0);
}

// Silence has no loudness to weigh: the sub-blocks, each about the nominal length, take the same
// share of the change, and together make exactly the target.
TEST_F(BlockFixture, SilenceIsSpreadEvenly) {
    std::vector<float> silence((kHistory + 44100) * 2, 0.0f);
    float* in = Load(silence);
    arg.dStretch = 1.5;
    const int written = block.Block(out.data(), in, 44100, &arg);
    EXPECT_EQ(66150, written);
    EXPECT_EQ(0, block.Carry());
    ASSERT_GT(block.SubBlockCount(), 1);
    int inSum = 0, outSum = 0;
    std::vector<int> change;
    for (int k = 0; k < block.SubBlockCount(); ++k) {
        const auto& p = block.Plan(k);
        EXPECT_NEAR(arg.nSubBlockLen, p.inFrames, arg.nSubBlockLen / 10) << k;
        EXPECT_EQ(0, p.lag) << k;
        inSum += p.inFrames;
        outSum += p.outFrames;
        change.push_back(p.outFrames - p.inFrames);
    }
    EXPECT_EQ(44100, inSum);
    EXPECT_EQ(written, outSum);
    const auto [least, most] = std::minmax_element(change.begin(), change.end());
    EXPECT_LE(*most - *least, 2); // the same share within a frame or two
}

// Half silence, then a loud tone: weighted, the quiet sub-blocks take the change and the loud
// ones stay nearly as they are; at the end of the stream the change is spread evenly instead.
TEST_F(BlockFixture, LoudnessDecidesWhereTheChangeGoes) {
    auto x = Signals::Sine(kHistory + 44100, 2, 0.01, 0.5);
    std::fill(x.begin(), x.begin() + 2 * (kHistory + 22050), 0.0f);
    float* in = Load(x);
    arg.dStretch = 1.5;

    const int weighted = block.Block(out.data(), in, 44100, &arg);
    ASSERT_EQ(28, block.SubBlockCount());
    // the first sub-block borders an onset: its share is capped at 2 / 28^2 of the change
    EXPECT_NEAR(22050 * 2 / (28 * 28), block.Plan(0).outFrames - block.Plan(0).inFrames, 2);
    for (int k = 14; k < 27; ++k)
        EXPECT_LT(block.Plan(k).outFrames, 1.1 * block.Plan(k).inFrames) << k;
    for (int k = 1; k < 14; ++k)
        EXPECT_GT(block.Plan(k).outFrames, 1.8 * block.Plan(k).inFrames) << k;
    EXPECT_EQ(66150, weighted + block.Carry());

    block.IniBlock();
    arg.bFinal = 1;
    block.Block(out.data(), in, 44100, &arg);
    // (the first sub-block keeps the reduced even share that weighting computed before the
    // end of stream turned it off)
    for (int k = 1; k < 27; ++k)
        EXPECT_NEAR(1.5, double(block.Plan(k).outFrames) / block.Plan(k).inFrames, 0.06) << k;
}

// Halving a segment whose first two sub-blocks are silent: by weight they would lose far more
// than their length; flattened, each loses 7/8 and the loud ones share the rest evenly.
TEST_F(BlockFixture, ShorteningNeverTakesMoreThanSevenEighths) {
    auto x = Signals::Sine(kHistory + 44100, 2, 0.01, 0.5);
    std::fill(x.begin(), x.begin() + 2 * (kHistory + 2 * 3150), 0.0f);
    float* in = Load(x);
    arg.dStretch = 0.5;
    const int written = block.Block(out.data(), in, 44100, &arg);
    ASSERT_EQ(14, block.SubBlockCount()); // sub-blocks of 3174 when shortening
    for (int k = 0; k < 2; ++k)
        EXPECT_NEAR(3150 / 8, block.Plan(k).outFrames, 2) << k;
    for (int k = 2; k < 13; ++k) // (22050 - 2 * 2756) / 12 each
        EXPECT_NEAR(3150 - 1378, block.Plan(k).outFrames, 60) << k;
    EXPECT_EQ(22050, written + block.Carry());
}

TEST_F(BlockFixture, CarryKeepsTheJobOnTarget) {
    // music-like material in segments of varying length: what was written plus what is owed
    // always equals the sum of each segment's truncated target
    auto x = Signals::Sine(kHistory + 200000, 2, 0.013, 0.3);
    auto n = Signals::Noise(kHistory + 200000, 2, 0.2);
    for (size_t i = 0; i < x.size(); ++i)
        x[i] += n[i] * ((i / 20000) % 2 ? 1.0f : 0.1f);
    for (double f : {1.5 * 0.7, 0.5, 0.75, 1.25, 2.0}) {
        block.IniBlock();
        float* in = Load(x);
        arg.dStretch = f;
        long written = 0, target = 0;
        int pos = 0;
        for (int L : {39691, 12000, 1, 700, 44100, 30001, 2}) {
            written += block.Block(out.data(), in + 2 * pos, L, &arg);
            target += static_cast<long>(L * f);
            pos += L;
            ASSERT_EQ(target, written + block.Carry()) << f;
            ASSERT_LT(std::abs(block.Carry()), 0.2 * 2 * 1587 / std::min(f, 1.0)) << f;
        }
    }
}

TEST_F(BlockFixture, SegmentShapesAtTheLimits) {
    auto x = Signals::Noise(kHistory + 44100, 2, 0.5);
    float* in = Load(x);
    arg.dStretch = 1.5;

    // shorter than half a sub-block: one splice takes the whole change
    EXPECT_EQ(750, block.Block(out.data(), in, 500, &arg) + block.Carry());
    EXPECT_EQ(1, block.SubBlockCount());

    // two sub-blocks share the change
    block.IniBlock();
    block.Block(out.data(), in, 3000, &arg);
    ASSERT_EQ(2, block.SubBlockCount());
    EXPECT_EQ(1500 + 750, block.Plan(0).outFrames);

    // no sub-block length (low-sound off): the nominal pieces all the same, not one piece for
    // the whole segment; a tiny length: capped at the table
    block.IniBlock();
    block.Block(out.data(), in, 8000, &arg);
    const int nominal = block.SubBlockCount();
    block.IniBlock();
    arg.nSubBlockLen = 0;
    EXPECT_EQ(12000, block.Block(out.data(), in, 8000, &arg) + block.Carry());
    EXPECT_EQ(nominal, block.SubBlockCount());
    block.IniBlock();
    arg.nSubBlockLen = 10;
    EXPECT_EQ(66150, block.Block(out.data(), in, 44100, &arg) + block.Carry());
    EXPECT_EQ(CMorvaneBlock::kMaxSubBlocks, block.SubBlockCount());
}

// Quiet pieces just after the segment's start take most of a doubling, so far that their
// end-aligned source would start before the history. With LowSound on they end in silence, by
// design, and that is counted; off, each piece is held within reach and the rest carried on.
TEST_F(BlockFixture, LowSoundOffNeverReachesOutsideTheBuffer) {
    auto x = Signals::Noise(kHistory + 44100, 2, 0.5);
    for (size_t i = 2 * (kHistory + 1600); i < 2 * (kHistory + 6400); ++i)
        x[i] *= 0.01f;
    arg.dStretch = 2.0;
    for (int length : {1587, 0}) {
        block.IniBlock();
        arg.nSubBlockLen = length;
        float* in = Load(x);
        EXPECT_EQ(88200, block.Block(out.data(), in, 44100, &arg) + block.Carry()) << length;
        if (length)
            EXPECT_GT(block.SilencedFrames(), 1000);
        else
            EXPECT_EQ(0, block.SilencedFrames());
        EXPECT_GT(block.SubBlockCount(), 20) << length;
    }
}

// The splice search by its definition: every lag in order, the first strictly better score
// from 0 at lag 0, over the stretch's own geometry.
int DefinitionLag(const float* in, int inLen, int outLen, const mvArg& arg) {
    const int ch = arg.nChannels;
    const int h = static_cast<int>(outLen * arg.dHeadRatio);
    const int m = outLen - h - static_cast<int>(outLen * arg.dTailRatio);
    const float* E = in + static_cast<long>(inLen - outLen + h) * ch;
    const float* start = in + static_cast<long>(h) * ch;
    const int back = static_cast<int>(outLen * arg.dSearchBack);
    const int fwd = static_cast<int>(outLen * arg.dSearchFwd);
    const int span = static_cast<int>(outLen * arg.dLagWeight);
    int64_t best = 0;
    int g = 0;
    for (int lag = -back; lag < fwd; ++lag) {
        int64_t R = 0;
        for (int i = 0; i < m * ch; ++i)
            R += (int64_t{Scale16::Round(start[lag * ch + i])} * Scale16::Round(E[i])) >> 20;
        const int64_t score = int64_t{(span - std::abs(lag)) >> 4} * R;
        if (score > best) {
            best = score;
            g = lag;
        }
    }
    return g;
}

// The search stops computing lags that cannot win; whatever the material, the lag it returns
// must be the definition's, ties to the earliest lag included.
TEST(SpliceSearch, FindsTheDefinitionsLag) {
    constexpr int kFrames = kHistory + 4000;
    for (int ch : {1, 2}) {
        std::vector<std::pair<const char*, std::vector<float>>> cases;
        cases.push_back({"noise", Signals::Noise(kFrames, ch, 0.5, 3)});
        cases.push_back({"tone and noise", Signals::Sine(kFrames, ch, 1.0 / 61, 0.6)});
        for (size_t i = 0; i < cases.back().second.size(); ++i)
            cases.back().second[i] += 0.05f * Signals::Noise(kFrames, ch, 1.0, 9)[i];
        // a period of 4 frames: whole runs of lags tie exactly
        std::vector<float> ties(static_cast<size_t>(kFrames) * ch);
        const float cycle[] = {0.5f, -0.25f, 0.75f, -0.875f};
        for (size_t i = 0; i < ties.size(); ++i)
            ties[i] = cycle[(i / ch) % 4];
        cases.push_back({"period of 4 frames", ties});
        // full scale: +1.0 rounds to 32768, past 16 bits
        cases.push_back({"full scale", Signals::Sine(kFrames, ch, 1.0 / 40, 1.0)});
        // bursts that decay: the energy moves along the pattern
        std::vector<float> bursts = Signals::Noise(kFrames, ch, 0.9, 5);
        for (size_t i = 0; i < bursts.size(); ++i)
            bursts[i] *= static_cast<float>(std::exp(-double((i / ch) % 700) / 80.0));
        cases.push_back({"decaying bursts", bursts});
        // a step: the region is positive and the pattern negative, every lag scores below 0
        std::vector<float> step(static_cast<size_t>(kFrames) * ch, 0.5f);
        std::fill(step.begin() + static_cast<long>(kHistory + 780) * ch, step.end(), -0.5f);
        cases.push_back({"every score negative", step});

        for (const auto& [what, signal] : cases) {
            // the engine's search, and one wider than the weight's span: weights below 0
            for (auto [back, span] : {std::pair{0.18, 0.4}, {0.25, 0.1}}) {
                for (auto [inLen, outLen] : {std::pair{1000, 1500}, {1500, 1000}, {2500, 3400}}) {
                    std::vector<float> buf(signal);
                    buf.resize(buf.size() + 2 * 4000 * ch, 0.0f);
                    std::vector<float> out(buf.size() * 2);
                    CMorvaneBlock block;
                    block.SetBufferPointer(buf.data());
                    mvArg arg;
                    arg.nChannels = ch;
                    arg.dStretch = double(outLen) / inLen;
                    arg.dSearchBack = back;
                    arg.dLagWeight = span;
                    float* in = buf.data() + static_cast<long>(kHistory) * ch;
                    const int r = block.stretch(out.data(), in, inLen, outLen, &arg, nullptr);
                    EXPECT_EQ(DefinitionLag(in, inLen, outLen, arg), r - outLen)
                        << what << ", " << ch << " channels, back " << back << ", " << inLen
                        << " -> " << outLen;
                }
            }
        }
    }
}

} // namespace
