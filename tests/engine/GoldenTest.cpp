// The engine's output pinned to the bit. The digests were taken from the straightforward
// implementation before any speed work; a faster one must reproduce every bit of them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "CMorvane.h"
#include "CMorvaneBlock.h"
#include "CMorvaneDetect.h"
#include "CMorvaneResample.h"
#include "fft.h"
#include "support/Golden.h"
#include "support/Signals.h"

namespace {

// taken from the straightforward implementation (commit "Golden tests" and before)
constexpr uint64_t GOLDEN_FFT = 11430365565713475590ull;
constexpr uint64_t GOLDEN_DETECT = 5429694981854434722ull;
constexpr uint64_t GOLDEN_BLOCK = 16618441778306711739ull;
constexpr uint64_t GOLDEN_RESAMPLE = 11730533940758054996ull;
constexpr uint64_t GOLDEN_RENDER = 13079952082221375904ull;
constexpr uint64_t GOLDEN_BLOCK_HOSTILE = 7823774133281223396ull;
// taken when the vector kernels were proven against the plain loops, bit for bit
constexpr uint64_t GOLDEN_FLUX_HOSTILE = 16771004883521724531ull;
constexpr uint64_t GOLDEN_RESAMPLE_TINY = 10155645816013545923ull;
// taken before stereo at a pitch rate of 1 went to the output straight from the splices
constexpr uint64_t GOLDEN_RATES_WITHIN_A_JOB = 12672133640872343512ull;

using Golden::Digest;

std::vector<float> Material(int frames) {
    return Signals::Music(frames, 44100);
}

// The capped runs (MORVANE_SIMD) must run the level they name, or they pin nothing new.
TEST(Golden, RunsAtTheLevelAskedFor) {
    Golden::ExpectTheLevelAskedFor();
}

TEST(Golden, Fft) {
    auto x = Signals::Noise(4096, 2, 1.0, 5);
    std::vector<double> d(x.begin(), x.end());
    fft(d.data(), 4096, true);
    fft_float(x.data(), 4096, false);
    const uint64_t got = Digest(d.data(), d.size(), Digest(x.data(), x.size()));
    RecordProperty("digest", std::to_string(got));
    EXPECT_EQ(GOLDEN_FFT, got);
}

TEST(Golden, Detector) {
    CMorvaneDetect detect;
    mvArg arg;
    detect.IniDetect(arg.nFrameLen);
    auto x = Material(44100 * 6);
    std::vector<int> cuts;
    for (int pos = 0; pos + 44100 <= 44100 * 6;)
        cuts.push_back(pos += detect.Detect(x.data() + 2 * pos, 44100, &arg));
    const uint64_t got = Digest(cuts.data(), cuts.size());
    RecordProperty("digest", std::to_string(got));
    EXPECT_EQ(GOLDEN_DETECT, got);
}

// The block stretcher at each stretch over consecutive blocks of the given lengths, digested.
uint64_t BlockDigest(std::vector<float> x, std::initializer_list<double> stretches,
                     std::initializer_list<int> lengths) {
    std::vector<float> out(44100 * 4 * 2);
    uint64_t h = Golden::kStart;
    for (double f : stretches) {
        CMorvaneBlock block;
        block.SetBufferPointer(x.data());
        mvArg arg;
        arg.dStretch = f;
        int pos = 0;
        for (int L : lengths) {
            const int n = block.Block(out.data(), x.data() + 2 * (1024 + pos), L, &arg);
            h = Digest(out.data(), static_cast<size_t>(2 * n), h);
            pos += L;
        }
    }
    return h;
}

TEST(Golden, BlockStretcher) {
    const uint64_t h = BlockDigest(Material(1024 + 44100 * 6), {0.5, 0.7 * 1.5, 1.5, 2.0},
                                   {39691, 20000, 44100, 777, 39691});
    RecordProperty("digest", std::to_string(h));
    EXPECT_EQ(GOLDEN_BLOCK, h);
}

// Sub-block loudness and cross-fades over samples no recording should hold: not numbers,
// infinities, far beyond full scale, subnormal.
TEST(Golden, BlockStretcherHostileSamples) {
    auto x = Material(1024 + 44100 * 3);
    const float odd[] = {NAN, INFINITY, -INFINITY, 1e30f, -3e9f, 1e-45f, -0.0f, 600.0f};
    for (size_t i = 2048, k = 0; i < x.size(); i += 997, ++k)
        x[i] = odd[k % 8];
    const uint64_t h = BlockDigest(std::move(x), {0.6, 1.7}, {39691, 30000});
    RecordProperty("digest", std::to_string(h));
    EXPECT_EQ(GOLDEN_BLOCK_HOSTILE, h);
}

TEST(Golden, Resampler) {
    auto x = Material(44100 * 4);
    uint64_t h = Golden::kStart;
    for (double ratio : {0.5, 0.7, 1.3, 2.0}) {
        CMorvaneResample r;
        mvArg arg;
        arg.dPitchRate = ratio;
        const int hist = r.IniResample(ratio, ratio < 1 ? 60 : 80, 0.1);
        std::vector<float> buf((hist + 44100 + 64) * 2, 0.0f), o0(100000), o1(100000);
        float* outs[2] = {o0.data(), o1.data()};
        for (int pos = 0; pos < 44100 * 4; pos += 44100) {
            std::memcpy(&buf[hist * 2], &x[2 * pos], sizeof(float) * 2 * 44100);
            arg.bLastSegment = pos + 44100 == 44100 * 4;
            const int k = r.Resample(outs, &buf[hist * 2], 44100, &arg, true);
            h = Digest(o0.data(), k, Digest(o1.data(), k, h));
            std::memmove(buf.data(), &buf[2 * 44100], sizeof(float) * 2 * hist);
        }
    }
    RecordProperty("digest", std::to_string(h));
    EXPECT_EQ(GOLDEN_RESAMPLE, h);
}

// The detector's two flux curves over samples that saturate or are not numbers, mono and stereo,
// at a rate whose transform divides exactly (44.1 kHz) and one whose does not (96 kHz).
TEST(Golden, FluxCurvesOfHostileSamples) {
    uint64_t h = Golden::kStart;
    for (int rate : {44100, 96000}) {
        for (int ch : {1, 2}) {
            CMorvaneDetect detect;
            mvArg arg;
            arg.nChannels = ch;
            arg.nFrameLen = (rate / 50) & ~1;
            arg.dOnsetLevel1 = arg.dOnsetLevel2 = 1e300; // no onset: every frame is analysed
            detect.IniDetect(arg.nFrameLen);
            const int count = rate / 5;
            std::vector<float> x = Signals::Noise(count, ch, 0.6, 7);
            for (size_t i = 0; i < x.size(); i += 97)
                x[i] = i % 3 == 0 ? 1.0f : -1.0f;
            const float odd[] = {NAN, 3.0e9f, -INFINITY, -0.0f};
            for (size_t k = 0; k < 4; ++k)
                x[1000 * (k + 1) + k] = odd[k];
            detect.Detect(x.data(), count, &arg);
            const int H = arg.nFrameLen / 2;
            const size_t frames = static_cast<size_t>((count - H - 1) / H);
            h = Digest(detect.FluxPos() + 1, frames, Digest(detect.FluxAbs() + 1, frames, h));
        }
    }
    RecordProperty("digest", std::to_string(h));
    EXPECT_EQ(GOLDEN_FLUX_HOSTILE, h);
}

// Whole resampler calls whose first outputs read back into the history, at the ratios a
// semitone step gives, once with a sample too small for the kernels (that call takes the plain
// loop).
TEST(Golden, ResamplerCallsWithATinySample) {
    uint64_t h = Golden::kStart;
    for (double ratio : {0.7491535384383408, 1.4983070768766815}) {
        CMorvaneResample r;
        mvArg arg;
        arg.dPitchRate = ratio;
        const int hist = r.IniResample(ratio, ratio < 1 ? 60 : 80, 0.1);
        const int n = 3000;
        std::vector<float> buf(2 * (hist + n + hist + 4), 0.0f), o0(3 * n), o1(3 * n);
        float* outs[2] = {o0.data(), o1.data()};
        const auto x = Signals::Noise(4 * n, 2, 0.9, 9);
        for (int call = 0; call < 4; ++call) {
            std::memcpy(&buf[2 * hist], &x[2 * n * call], sizeof(float) * 2 * n);
            if (call == 2)
                buf[2 * hist + 100] = 1e-36f;
            arg.bLastSegment = call == 3;
            const int k = r.Resample(outs, &buf[2 * hist], n, &arg, true);
            h = Digest(o0.data(), k, Digest(o1.data(), k, h));
            std::memmove(buf.data(), &buf[2 * n], sizeof(float) * 2 * hist);
        }
    }
    RecordProperty("digest", std::to_string(h));
    EXPECT_EQ(GOLDEN_RESAMPLE_TINY, h);
}

// The pitch changed within a job, into a rate of 1 and out of it: after the change the resampler
// reads back into the frames the segments before it left.
TEST(Golden, PitchChangedWithinAJob) {
    const auto x = Signals::Split(Material(44100 * 6));
    const int n = static_cast<int>(x.left.size()), block = 8192;
    uint64_t h = Golden::kStart;
    for (auto [before, after] : {std::pair{1.0, 1.4983070768766815}, {0.7491535384383408, 1.0}}) {
        CMorvane e;
        e.SetTimeRate(1.25, false);
        e.SetPitchRate(before, false);
        e.StartToProcess();
        std::vector<float> o0(e.MaxOutput(block)), o1(e.MaxOutput(block));
        for (int pos = 0; pos < n; pos += block) {
            if (pos >= 44100 * 5 / 2 && pos < 44100 * 5 / 2 + block)
                e.SetPitchRate(after, true);
            const int k = std::min(block, n - pos);
            float* ins[2] = {const_cast<float*>(&x.left[pos]), const_cast<float*>(&x.right[pos])};
            float* outs[2] = {o0.data(), o1.data()};
            const int got = e.procMorvane(outs, ins, k, pos + k == n);
            h = Digest(o0.data(), got, Digest(o1.data(), got, h));
        }
    }
    RecordProperty("digest", std::to_string(h));
    EXPECT_EQ(GOLDEN_RATES_WITHIN_A_JOB, h);
}

TEST(Golden, WholeRenders) {
    const auto x = Signals::Split(Material(44100 * 8));
    const uint64_t h = Golden::RenderDigest<CMorvane>(
        x,
        {{1.5, 1.0}, {1.0, 1.4983070768766815}, {0.75, 0.7491535384383408}, {2.0, 1.0}, {0.5, 2.0}},
        8192, &CMorvane::procMorvane);
    RecordProperty("digest", std::to_string(h));
    EXPECT_EQ(GOLDEN_RENDER, h);
}

} // namespace
