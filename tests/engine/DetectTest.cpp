#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "CMorvane.h"
#include "CMorvaneDetect.h"
#include "support/Signals.h"

namespace {

struct DetectFixture : ::testing::Test {
    CMorvaneDetect detect;
    mvArg arg;

    // The frame the engine gives its detector at this rate.
    void SetFrame(int sampleRate) {
        CMorvane engine;
        engine.SetSamplingRate(sampleRate);
        arg.nFrameLen = engine.nFrameLen;
        detect.IniDetect(arg.nFrameLen);
    }
};

// 20 ms frames, evened; LowSound off has none, and on again gives the rate's frame back.
TEST_F(DetectFixture, WindowAndTransformSizeFollowTheRate) {
    struct Case {
        int rate, frame, fft;
    };
    for (Case c : {Case{44100, 882, 1024}, Case{48000, 960, 1024}, Case{96000, 1920, 2048},
                   Case{8000, 160, 256}, Case{22050, 440, 512}}) {
        SetFrame(c.rate);
        EXPECT_EQ(c.frame, arg.nFrameLen) << c.rate;
        CMorvane engine;
        engine.SetSamplingRate(c.rate);
        engine.SetLowSound(-1.0f);
        EXPECT_EQ(0, engine.nFrameLen);
        engine.SetLowSound(0.0f);
        EXPECT_EQ(c.frame, engine.nFrameLen) << c.rate;
        EXPECT_EQ(c.fft, detect.FFTSize()) << c.rate;
        EXPECT_EQ(0, detect.Window(0));
        // pi taken as 3.14159 keeps the Hann peak one below full scale
        EXPECT_EQ(32766, detect.Window(c.frame / 2)) << c.rate;
        EXPECT_NEAR(detect.Window(c.frame / 4), detect.Window(c.frame - c.frame / 4), 1);
    }
    EXPECT_EQ(1, detect.IniDetect(0));
    EXPECT_EQ(1024, detect.IniDetect(1024));
}

TEST_F(DetectFixture, SilenceHasNoOnset) {
    SetFrame(44100);
    std::vector<float> silence(44100 * 2, 0.0f);
    EXPECT_EQ(39691, detect.Detect(silence.data(), 44100, &arg)); // 90 % plus one
    arg.bFinal = 1;
    EXPECT_EQ(44100, detect.Detect(silence.data(), 44100, &arg));
    // too short for one hop past a frame
    arg.bFinal = 0;
    EXPECT_EQ(794, detect.Detect(silence.data(), 882, &arg));
}

// A click of value v at frame c appears in frames 22 and 23 (hop 441). Each frame is compared
// with the one a frame length earlier, which is silent, so the flux of a frame is proportional
// to the windowed click in it. Frame 23 holds it nearer its centre and rises more than 1.5x, so
// the boundary is placed from frame 24, between the centres of frames 22 and 23, nearer 23.
TEST_F(DetectFixture, ClickInSilenceEndsTheSegmentThere) {
    SetFrame(44100);
    const int H = 441, c = 10000;
    std::vector<float> x(44100 * 2, 0.0f);
    x[2 * c] = x[2 * c + 1] = 0.5f;

    const double v22 = (2 * 16384 * int64_t{detect.Window(c - 21 * H)}) >> 16;
    const double v23 = (2 * 16384 * int64_t{detect.Window(c - 22 * H)}) >> 16;
    ASSERT_GT(v23, 1.5 * v22);
    const int expected = 24 * H - H - static_cast<int>(H * v22 / (v23 + v22)) + 1;

    EXPECT_EQ(expected, detect.Detect(x.data(), 44100, &arg));
    EXPECT_NEAR(c, expected, H / 4);

    // mono scales by >> 15 what stereo sums and scales by >> 16: the same boundary
    std::vector<float> mono(44100, 0.0f);
    mono[c] = 0.5f;
    arg.nChannels = 1;
    EXPECT_EQ(expected, detect.Detect(mono.data(), 44100, &arg));
}

TEST_F(DetectFixture, ClicksAndToneStartsAreFoundWithinAHop) {
    for (int rate : {44100, 48000, 96000}) {
        SetFrame(rate);
        const int H = arg.nFrameLen / 2;
        for (int c = 3 * H + 17; c < rate - 3 * H; c += 2311) {
            // A click within a few frames of a hop boundary lands where the window truncates to
            // 0, so only one frame sees it; a single-frame rise is by design not an onset.
            if (c % H < 8 || c % H > H - 8)
                continue;
            std::vector<float> x(rate * 2, 0.0f);
            x[2 * c] = x[2 * c + 1] = -0.7f;
            const int L = detect.Detect(x.data(), rate, &arg);
            EXPECT_LT(std::abs(L - 1 - c), H) << rate << " click at " << c;
        }
        // a sustained tone that begins at frame c
        const int c = rate / 2 + 123;
        auto x = Signals::Sine(rate, 2, 440.0 / rate, 0.3);
        std::fill(x.begin(), x.begin() + 2 * c, 0.0f);
        const int L = detect.Detect(x.data(), rate, &arg);
        EXPECT_LT(std::abs(L - 1 - c), H) << rate;
    }
}

TEST_F(DetectFixture, FirstOnsetWinsAndQuietRisesAreIgnored) {
    SetFrame(44100);
    std::vector<float> x(44100 * 2, 0.0f);
    // a faint click (flux below the threshold of 40) followed by a loud one
    x[2 * 5000] = x[2 * 5000 + 1] = 0.002f;
    x[2 * 30000] = x[2 * 30000 + 1] = 0.9f;
    const int L = detect.Detect(x.data(), 44100, &arg);
    EXPECT_NEAR(30000, L, 441);
    // the loud click's segment ends there; from there on no further onset
    const int rest = 44100 - L - 441;
    EXPECT_EQ(static_cast<int>(rest * 0.9) + 1,
              detect.Detect(x.data() + 2 * (L + 441), rest, &arg));
}

} // namespace
