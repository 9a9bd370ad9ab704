#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "CMorvane.h"
#include "support/Signals.h"

namespace {

using Signals::Planar;
using Signals::Split;

// Runs a whole job through the engine in blocks; the last block carries last = true.
Planar RunJob(CMorvane& engine, const Planar& in, int block, std::vector<int>* counts = nullptr) {
    Planar out;
    std::vector<float> o0(engine.MaxOutput(block)), o1(engine.MaxOutput(block));
    const int N = static_cast<int>(in.size());
    engine.StartToProcess();
    for (int pos = 0; pos < N; pos += block) {
        const int n = std::min(block, N - pos);
        float* ins[2] = {const_cast<float*>(&in.left[pos]), const_cast<float*>(&in.right[pos])};
        float* outs[2] = {o0.data(), o1.data()};
        const int k = engine.procMorvane(outs, ins, n, pos + n == N);
        EXPECT_LE(k, engine.MaxOutput(n));
        if (counts)
            counts->push_back(k);
        out.left.insert(out.left.end(), o0.begin(), o0.begin() + k);
        out.right.insert(out.right.end(), o1.begin(), o1.begin() + k);
    }
    return out;
}

TEST(Morvane, UnitRatesAndInactiveAreAPlainCopy) {
    const Planar in = Split(Signals::Music(30000, 44100));
    CMorvane e;
    std::vector<int> counts;
    Planar out = RunJob(e, in, 4097, &counts);
    EXPECT_EQ(in.left, out.left);
    EXPECT_EQ(in.right, out.right);
    EXPECT_EQ(4097, counts[0]); // no delay, nothing held

    e.SetTimeRate(1.5, false);
    e.SetPitchRate(0.7, false);
    e.SetActive(false);
    out = RunJob(e, in, 4097);
    EXPECT_EQ(in.left, out.left);
}

TEST(Morvane, ShortRecordingComesOutAtTheEnd) {
    const Planar in = Split(Signals::Music(22050, 44100));
    CMorvane e;
    e.SetTimeRate(1.5, false);
    std::vector<int> counts;
    const Planar out = RunJob(e, in, 1000, &counts);
    for (size_t i = 0; i + 1 < counts.size(); ++i)
        ASSERT_EQ(0, counts[i]) << i;
    EXPECT_NEAR(22050 * 1.5, counts.back(), 441);
}

// The length follows the time rate to within the last splice's lag (which nothing after the
// end can pay back): under 10 ms. The block size changes nothing, to the bit, and neither does
// the job that ran before on the same engine.
TEST(Morvane, LengthFollowsTheTimeRateWhateverTheBlocks) {
    struct Case {
        double time, pitch;
    };
    for (int rate : {44100, 48000, 96000}) {
        const Planar in = Split(Signals::Music(rate * 3, rate));
        for (Case c : {Case{1.5, 1.0}, Case{1.0, 1.4983}, Case{0.75, 0.7492}, Case{2.0, 1.0},
                       Case{0.5, 2.0}, Case{2.0, 0.5}}) {
            CMorvane e;
            e.SetSamplingRate(rate);
            e.SetTimeRate(c.time, false);
            e.SetPitchRate(c.pitch, false);
            const Planar whole = RunJob(e, in, 100000);
            EXPECT_NEAR(in.size() * c.time, whole.size(), 0.01 * rate)
                << rate << " " << c.time << " " << c.pitch;
            for (int block : {1, 777, 44100}) {
                if (block == 1 && rate != 44100)
                    continue;
                const Planar sliced = RunJob(e, in, block);
                ASSERT_EQ(whole.left, sliced.left)
                    << rate << " " << c.time << " " << c.pitch << " " << block;
                ASSERT_EQ(whole.right, sliced.right) << block;
            }
        }
    }
}

// Non-finite samples count as silence and finite ones beyond 120 dB above full scale are held
// there, wherever they fall in a block: the same output as from the cleaned recording.
TEST(Morvane, HostileSamplesAreReadAsTheirCleanedValues) {
    struct Sample {
        float hostile, clean;
    };
    const Sample samples[] = {{NAN, 0.0f},    {INFINITY, 0.0f}, {-INFINITY, 0.0f},
                              {1e30f, 1e6f},  {-3e9f, -1e6f},   {std::nextafter(1e6f, 2e6f), 1e6f},
                              {-1e6f, -1e6f}, {-0.0f, -0.0f}};
    Planar hostile = Split(Signals::Music(20011, 44100));
    Planar clean = hostile;
    int at = 3;
    for (int rep = 0; rep < 13; ++rep) {
        for (const Sample& x : samples) {
            auto& h = (at % 2 ? hostile.right : hostile.left);
            auto& c = (at % 2 ? clean.right : clean.left);
            h[at] = x.hostile;
            c[at] = x.clean;
            at += 7 + rep;
        }
    }
    for (double time : {1.0, 1.3}) {
        CMorvane a, b;
        a.SetTimeRate(time, false);
        b.SetTimeRate(time, false);
        const Planar outA = RunJob(a, hostile, 4093);
        const Planar outB = RunJob(b, clean, 4093);
        ASSERT_EQ(outB.size(), outA.size());
        for (size_t i = 0; i < outA.size(); ++i) {
            ASSERT_EQ(0, std::memcmp(&outB.left[i], &outA.left[i], sizeof(float)))
                << time << " " << i;
            ASSERT_EQ(0, std::memcmp(&outB.right[i], &outA.right[i], sizeof(float)))
                << time << " " << i;
        }
    }
}

TEST(Morvane, LowSoundOffAndHostileSamplesStillFinish) {
    Planar in = Split(Signals::Music(44100 * 2, 44100));
    in.left[1000] = NAN;
    in.right[5000] = INFINITY;
    in.left[9000] = -1e30f;
    CMorvane e;
    e.SetLowSound(-1.0f);
    e.SetTimeRate(1.5, false);
    e.SetPitchRate(0.8, false);
    const Planar out = RunJob(e, in, 10000);
    EXPECT_NEAR(in.size() * 1.5, out.size(), 0.05 * 44100);

    // rates the parameter code would never pass are held to what the buffers allow
    e.SetTimeRate(NAN, false);
    EXPECT_EQ(1.0, e.dTimeRate);
    e.SetPitchRate(50.0, false);
    EXPECT_EQ(2.0, e.dPitchRate);
}

} // namespace
