#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "MorvaneEngine.h"
#include "StretchEngine.h"
#include "support/Signals.h"

namespace {

// The effect sizes its queue from MaxOutput: no call may write more, with either engine, at the
// rates' extremes, with LowSound on and off, in blocks from one frame to three seconds, and
// when a rate changes in the middle of a job. Each job also comes out its whole length.
TEST(StretchEngine, OneCallNeverWritesMoreThanItsBound) {
    const Signals::Planar in = Signals::Split(Signals::Music(44100 * 8, 44100));
    const int N = static_cast<int>(in.size());
    struct Rates {
        double time, pitch;
    };
    EXPECT_EQ(nullptr, StretchEngine::Make(0));
    for (int kind : {MorvaneEngine::kSplice, MorvaneEngine::kCrisp}) {
        for (Rates r : {Rates{2.0, 1.0}, Rates{0.5, 2.0}, Rates{1.0, 0.5}, Rates{1.5, 1.2}}) {
            for (int block : {1, 1000, 11025, 3 * 44100}) {
                for (float lowSound : {1.0f, -1.0f}) {
                    auto e = StretchEngine::Make(kind);
                    e->SetSamplingRate(44100);
                    e->SetLowSound(lowSound);
                    e->SetTimeRate(r.time, false);
                    e->SetPitchRate(r.pitch, false);
                    e->StartJob();
                    std::vector<float> o0(e->MaxOutput(block)), o1(e->MaxOutput(block));
                    long written = 0;
                    int most = 0;
                    for (int pos = 0; pos < N; pos += block) {
                        const int n = std::min(block, N - pos);
                        if (pos <= N / 2 && pos + n > N / 2) // the user moves the fader
                            e->SetTimeRate(r.time == 2.0 ? 1.25 : 2.0 / r.pitch, true);
                        float* ins[2] = {const_cast<float*>(&in.left[pos]),
                                         const_cast<float*>(&in.right[pos])};
                        float* outs[2] = {o0.data(), o1.data()};
                        const int k = e->Process(outs, ins, n, pos + n == N);
                        most = std::max(most, k - e->MaxOutput(n));
                        written += k;
                    }
                    EXPECT_LE(most, 0) << kind << " " << r.time << " " << r.pitch << " " << block
                                       << " " << lowSound;
                    EXPECT_GT(written, N / 2) << kind << " " << block;
                }
            }
        }
    }
}

} // namespace
