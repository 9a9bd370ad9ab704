// The user-interface thread against the processing thread, as hosts run them: parameters,
// displays, programs and chunks change while a job runs. Run under ThreadSanitizer by the test
// command; here it also checks that the job still comes out whole.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "MorvaneEngine.h"
#include "MorvaneParameters.h"
#include "support/PluginHost.h"
#include "support/Signals.h"

using namespace MorvaneParameters;

namespace {

class Concurrency : public testing::TestWithParam<int> {};

TEST_P(Concurrency, ParametersFromAnotherThreadDuringAJob) {
    PluginHost host(MORVANE_PLUGIN);
    host.Dispatch(effVendorSpecific, MorvaneEngine::kTag, GetParam());
    host.Dispatch(effOpen);
    host.Dispatch(effSetSampleRate, 0, 0, nullptr, 44100);
    host.Dispatch(effMainsChanged, 0, 1);
    host.Set(kTime, 1.25f);
    const auto in = Signals::Split(Signals::Music(44100 * 4, 44100));
    const int N = static_cast<int>(in.size());

    std::atomic<bool> done{false};
    std::thread ui([&] {
        // what a panel and a host's automation do meanwhile: read everything, change the level
        // and the switch, read and restore the state
        char text[256];
        void* chunk = nullptr;
        for (int i = 0; !done; ++i) {
            host.Set(kOutput, 0.4f + 0.1f * (i % 2));
            host.Dispatch(effVendorSpecific, MorvaneEngine::kTag, MorvaneEngine::kAsk);
            host.Set(kTime, 1.25f); // the rate the job has: both engines take it under their locks
            host.Set(kLowSound, 1.0f);
            for (int p = 0; p < 5; ++p) {
                host.Dispatch(effGetParamDisplay, p, 0, text);
                host.Get(p);
            }
            const VstIntPtr n = host.Dispatch(effGetChunk, 1, 0, &chunk);
            std::vector<char> copy(static_cast<char*>(chunk), static_cast<char*>(chunk) + n);
            // the state as a host saved it with the job's settings (the host path does not
            // write Time into the program record, so put it there as a saved project would)
            const float time = 1.25f;
            std::memcpy(copy.data() + 12, &time, sizeof(time));
            host.Dispatch(effSetChunk, 1, n, copy.data());
            std::this_thread::yield();
        }
    });

    host.Dispatch(effStartProcess);
    host.Dispatch(effSetTotalSampleToProcess, 0, N);
    std::vector<float> o0(60000), o1(60000);
    long out = 0;
    int pos = 0;
    for (;;) {
        const int offer = std::min(4096, N - pos);
        auto r = host.Process(const_cast<float*>(&in.left[pos]), const_cast<float*>(&in.right[pos]),
                              offer, o0.data(), o1.data(), 60000);
        pos += r.taken;
        out += r.written;
        for (int i = 0; i < r.written; ++i)
            ASSERT_TRUE(std::isfinite(o0[i]) && std::isfinite(o1[i]));
        if (pos == N && offer == 0 && r.written == 0)
            break;
    }
    done = true;
    ui.join();
    EXPECT_NEAR(N * 1.25 + 44100, out, 441);
}

INSTANTIATE_TEST_SUITE_P(Engines, Concurrency,
                         testing::Values(MorvaneEngine::kSplice, MorvaneEngine::kCrisp));

} // namespace
