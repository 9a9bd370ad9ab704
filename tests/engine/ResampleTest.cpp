#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "CMorvaneResample.h"
#include "support/Signals.h"

namespace {

TEST(ResampleDesign, TablesAreSymmetricWithUnityGain) {
    struct Case {
        double ratio;
        int att, taps, history, centre;
    };
    for (Case c :
         {Case{0.5, 60, 39, 38, 29491}, Case{1.0, 80, 53, 52, 29491}, Case{2.0, 60, 39, 38, 13107},
          Case{0.7, 80, 53, 52, 29491}, Case{1.9, 60, 39, 38, 13969}}) {
        CMorvaneResample r;
        EXPECT_EQ(c.history, r.IniResample(c.ratio, c.att, 0.1, 100.0, true));
        // An instance redesigned from another ratio and attenuation holds the same table.
        static CMorvaneResample reused;
        reused.IniResample(2.5 - c.ratio, 140 - c.att, 0.1);
        reused.IniResample(2.5 - c.ratio, c.att, 0.1);
        EXPECT_EQ(c.history, reused.IniResample(c.ratio, c.att, 0.1));
        EXPECT_EQ(0, std::memcmp(r.Table(), reused.Table(), sizeof(int16_t) * r.kTableSize));
        EXPECT_EQ(c.history / 2, r.HalfLength());
        const int M = 4 * c.taps;
        const int16_t* t = r.Table();
        EXPECT_EQ(c.centre, t[M]);
        long sum = 0;
        for (int k = 0; k <= 8 * c.taps; ++k)
            sum += t[k];
        for (int k = 1; k <= M; ++k)
            ASSERT_EQ(t[M + k], t[M - k]) << k;
        for (int k = 8 * c.taps + 1; k < CMorvaneResample::kTableSize; ++k)
            ASSERT_EQ(0, t[k]);
        // passband gain 1: the 8 phases each sum to about 32768
        EXPECT_NEAR(8 * 32768.0, double(sum), 0.01 * 8 * 32768) << c.ratio << " " << c.att;
    }
}

// Feeds an interleaved stream through the resampler in blocks, keeping the history in front of
// each block and the flush room after it, as the engine does.
struct Stream {
    CMorvaneResample r;
    mvArg arg;
    std::vector<float> out0, out1;
    std::vector<int> counts;
    std::vector<double> startPositions;

    Stream(double ratio, int att, int channels) {
        arg.dPitchRate = ratio;
        arg.nChannels = channels;
        r.IniResample(ratio, att, 0.1, 100.0, true);
    }

    void Run(const std::vector<float>& x, int block, bool flush = true) {
        const int ch = arg.nChannels;
        const int frames = static_cast<int>(x.size()) / ch;
        const int hist = r.History();
        std::vector<float> buf((hist + block + r.HalfLength()) * ch, 0.0f);
        std::vector<float> o0(block * 4 + 8), o1(block * 4 + 8);
        float* outs[2] = {o0.data(), o1.data()};
        for (int pos = 0; pos < frames; pos += block) {
            const int n = std::min(block, frames - pos);
            std::memcpy(&buf[hist * ch], &x[pos * ch], sizeof(float) * n * ch);
            arg.bLastSegment = flush && pos + n == frames;
            startPositions.push_back(r.Position());
            const int k = r.Resample(outs, &buf[hist * ch], n, &arg, true);
            counts.push_back(k);
            out0.insert(out0.end(), o0.begin(), o0.begin() + k);
            out1.insert(out1.end(), o1.begin(), o1.begin() + k);
            std::memmove(buf.data(), &buf[n * ch], sizeof(float) * hist * ch);
        }
    }
};

TEST(Resample, CountsAndPositionsOverSuccessiveCalls) {
    Stream s(0.5, 60, 2);
    s.Run(std::vector<float>(4410 * 2 * 3, 0.1f), 4410, false);
    // first call: 0, 0.5, ... below 4410 - 19 - 0.5; then from -19.5 on
    EXPECT_EQ(8781, s.counts[0]);
    EXPECT_EQ(8820, s.counts[1]);
    EXPECT_EQ(8820, s.counts[2]);
    EXPECT_EQ(-19.5, s.r.Position());

    for (double ratio : {0.5, 0.7, 1.3, 2.0}) {
        Stream t(ratio, 80, 2);
        t.Run(Signals::Noise(30017, 2, 0.5), 997);
        const int half = t.r.HalfLength();
        for (size_t i = 1; i < t.startPositions.size(); ++i) {
            ASSERT_GE(t.startPositions[i], -half - 0.5 - 1e-9) << ratio;
            ASSERT_LT(t.startPositions[i], -half - 0.5 + ratio + 1e-9) << ratio;
        }
        // with the flush, every output position below n - 0.5 is produced exactly once
        EXPECT_EQ(static_cast<size_t>(std::ceil((30017 - 0.5) / ratio)), t.out0.size()) << ratio;
    }
}

TEST(Resample, FlushReadsIntoZeroedRoom) {
    CMorvaneResample r;
    mvArg arg;
    arg.dPitchRate = 0.5;
    r.IniResample(0.5, 60, 0.1);
    const int n = 100, half = r.HalfLength(), hist = r.History();
    std::vector<float> buf((hist + n + half) * 2, 7.0f); // garbage where the zeros must go
    std::fill(buf.begin(), buf.begin() + (hist + n) * 2, 0.25f);
    std::vector<float> o0(400), o1(400);
    float* outs[2] = {o0.data(), o1.data()};
    arg.bLastSegment = 1;
    EXPECT_EQ(199, r.Resample(outs, &buf[hist * 2], n, &arg, true)); // positions 0 .. 99
    for (int i = (hist + n) * 2; i < (hist + n + half) * 2; ++i)
        ASSERT_EQ(0.0f, buf[i]);
    EXPECT_NEAR(0.25, o1[100], 0.01); // middle: steady value
    // last, at position 99: the centre tap (0.9 of the gain at this cut-off) and one side of
    // the filter see the data, the other side the zeros
    EXPECT_NEAR(0.95 * 0.25, o0[198], 0.005);
}

TEST(Resample, UnitRatioOrNoTranspositionPassesThrough) {
    for (bool preserve : {true, false}) {
        CMorvaneResample r;
        mvArg arg;
        arg.dPitchRate = preserve ? 1.0 : 0.7;
        arg.fOutputLevel = 0.5f;
        r.IniResample(arg.dPitchRate, 60, 0.1);
        auto x = Signals::Noise(500, 2, 1.9);
        std::vector<float> o0(500), o1(500);
        float* outs[2] = {o0.data(), o1.data()};
        EXPECT_EQ(500, r.Resample(outs, x.data(), 500, &arg, preserve));
        for (int i = 0; i < 500; ++i) {
            ASSERT_EQ(x[2 * i] * 0.5f, o0[i]);
            ASSERT_EQ(x[2 * i + 1] * 0.5f, o1[i]);
        }
        EXPECT_EQ(0.0, r.Position());
        EXPECT_EQ(0, r.Resample(outs, x.data(), 0, &arg, preserve));
    }
}

TEST(Resample, OnlyPositiveOversAreFlagged) {
    CMorvaneResample r;
    mvArg arg;
    arg.nChannels = 1;
    float a = 1.0f;
    float* outs[2] = {&a, nullptr};
    for (float v : {1.0f, -1.5f, -100.0f}) {
        float in = v;
        r.Resample(outs, &in, 1, &arg, true);
        EXPECT_EQ(0, arg.bOver) << v;
    }
    float in = std::nextafter(1.0f, 2.0f);
    r.Resample(outs, &in, 1, &arg, true);
    EXPECT_EQ(1, arg.bOver);

    // Stereo, at every frame and on either side, after the level is applied.
    arg.nChannels = 2;
    arg.fOutputLevel = 0.5f;
    const int n = 13;
    std::vector<float> o0(n), o1(n);
    float* outs2[2] = {o0.data(), o1.data()};
    for (int i = 0; i < 2 * n; ++i) {
        for (float v : {2.0f, std::nextafter(2.0f, 3.0f), -5.0f, NAN}) {
            std::vector<float> x(2 * n, 0.25f);
            x[i] = v;
            arg.bOver = 0;
            ASSERT_EQ(n, r.Resample(outs2, x.data(), n, &arg, true));
            EXPECT_EQ(v > 2.0f ? 1 : 0, arg.bOver) << v << " at " << i;
            const float got = (i % 2 ? o1 : o0)[i / 2];
            EXPECT_TRUE(got == 0.5f * v || (std::isnan(v) && std::isnan(got))) << v << " at " << i;
        }
    }
}

TEST(Resample, MovesFrequencyByTheRatioWithoutDelay) {
    const double freq = 441.0 / 44100; // cycles per frame
    for (double ratio : {0.5, 0.7, 1.5, 2.0}) {
        Stream s(ratio, 60, 2);
        s.Run(Signals::Sine(88200, 2, freq, 0.5), 4096);
        const int n = static_cast<int>(s.out0.size());
        const double measured = Signals::ZeroCrossingFrequency(s.out0.data(), 1, 200, n - 200);
        EXPECT_NEAR(1.0, measured / (freq * ratio), 0.001) << ratio;
        // output frame k is the input read at k * ratio: no delay, amplitude kept
        for (int k = static_cast<int>(40 / ratio); k < static_cast<int>(4000 / ratio); ++k)
            ASSERT_NEAR(0.5 * std::sin(2 * M_PI * freq * k * ratio), s.out1[k], 0.01)
                << ratio << " " << k;
    }
}

} // namespace
