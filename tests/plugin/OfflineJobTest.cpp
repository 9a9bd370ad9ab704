#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

#include "support/PluginHost.h"
#include "support/Signals.h"

namespace {

using Signals::Planar;
using Signals::Split;

// Block sizes a host uses: input offered and output asked for, per call.
using Blocks = std::function<std::pair<int, int>(int call)>;

struct Job {
    Planar out;
    int calls = 0;
    bool refusedInput = false;
};

// A whole job as the host protocol runs it: start, total, input until the total is consumed
// (offering again what was not taken), then calls without input until nothing comes.
Job RunJob(PluginHost& host, const Planar& in, float rate, Blocks blocks,
           std::function<void(int pos)> beforeCall = {}) {
    host.Dispatch(effSetSampleRate, 0, 0, nullptr, rate);
    host.Dispatch(effMainsChanged, 0, 1);
    host.Dispatch(effStartProcess);
    const int N = static_cast<int>(in.size());
    host.Dispatch(effSetTotalSampleToProcess, 0, N);
    Job job;
    std::vector<float> o0, o1;
    int pos = 0;
    for (;;) {
        auto [offer, want] = blocks(job.calls++);
        offer = std::min(offer, N - pos);
        o0.assign(want, 7.0f);
        o1.assign(want, 7.0f);
        if (beforeCall)
            beforeCall(pos);
        std::vector<float> l(in.left.begin() + pos, in.left.begin() + pos + offer);
        std::vector<float> r(in.right.begin() + pos, in.right.begin() + pos + offer);
        const auto io = host.Process(l.data(), r.data(), offer, o0.data(), o1.data(), want);
        EXPECT_LE(io.taken, offer);
        EXPECT_LE(io.written, want);
        job.refusedInput |= io.taken < offer;
        pos += io.taken;
        job.out.left.insert(job.out.left.end(), o0.begin(), o0.begin() + io.written);
        job.out.right.insert(job.out.right.end(), o1.begin(), o1.begin() + io.written);
        if (pos == N && offer == 0 && io.written == 0)
            break;
        if (job.calls > 1000000) {
            ADD_FAILURE() << "job never ends";
            break;
        }
    }
    return job;
}

Blocks Fixed(int offer, int want) {
    return [=](int) { return std::pair{offer, want}; };
}

TEST(OfflineJob, UnitRatesGiveTheInputAfterTheLeadIn) {
    PluginHost host(MORVANE_PLUGIN);
    const Planar in = Split(Signals::Music(100000, 44100));
    const Job job = RunJob(host, in, 44100, Fixed(4096, 4096));
    ASSERT_EQ(in.size() + 44100, job.out.size());
    for (int i = 0; i < 44100; ++i)
        ASSERT_EQ(0.0f, job.out.left[i]) << i;
    EXPECT_EQ(in.left, std::vector<float>(job.out.left.begin() + 44100, job.out.left.end()));
    EXPECT_EQ(in.right, std::vector<float>(job.out.right.begin() + 44100, job.out.right.end()));
}

TEST(OfflineJob, FirstCallIsSilenceFromTheLeadIn) {
    PluginHost host(MORVANE_PLUGIN);
    host.Set(3, 1.5f);
    const Planar in = Split(Signals::Music(44100, 44100));
    const Job job = RunJob(host, in, 44100, [](int call) {
        return call == 0 ? std::pair{10000, 30000} : std::pair{10000, 20000};
    });
    for (int i = 0; i < 30000; ++i)
        ASSERT_EQ(0.0f, job.out.left[i]);
}

// However the host cuts the job, the output is the same, bit for bit: calls of every size, blocks
// far larger than the plug-in's buffers, and hosts that ask for too little output and must offer
// the refused input again.
TEST(OfflineJob, AnyBlockPatternGivesTheSameResult) {
    PluginHost host(MORVANE_PLUGIN);
    host.Set(3, 1.5f);
    host.Set(2, std::pow(2.0f, -300 / 1200.0f));
    const Planar in = Split(Signals::Music(44100 * 6, 44100));
    const Job reference = RunJob(host, in, 44100, Fixed(4096, 8192));
    EXPECT_NEAR(in.size() * 1.5 + 44100, reference.out.size(), 441);

    uint32_t seed = 7;
    auto random = [&](int) {
        seed = seed * 1664525u + 1013904223u;
        const int offer = 1 + (seed >> 8) % 30000;
        seed = seed * 1664525u + 1013904223u;
        return std::pair{offer, static_cast<int>(1 + (seed >> 8) % 60000)};
    };
    for (const Blocks& blocks :
         {Blocks(random), Fixed(1 << 20, 1 << 21), Fixed(1, 3), Fixed(44100, 100)}) {
        const Job job = RunJob(host, in, 44100, blocks);
        ASSERT_EQ(reference.out.size(), job.out.size());
        EXPECT_EQ(reference.out.left, job.out.left);
        EXPECT_EQ(reference.out.right, job.out.right);
    }
    const Job starved = RunJob(host, in, 44100, Fixed(44100, 100));
    EXPECT_TRUE(starved.refusedInput);
}

TEST(OfflineJob, LengthFollowsTheTimeRateAtEveryRate) {
    for (float rate : {44100.0f, 48000.0f, 96000.0f}) {
        const int r = static_cast<int>(rate);
        const Planar in = Split(Signals::Music(r * 3, r));
        for (float time : {0.5f, 0.75f, 1.5f, 2.0f}) {
            PluginHost host(MORVANE_PLUGIN);
            host.Set(3, time);
            const Job job = RunJob(host, in, rate, Fixed(8192, 16384));
            EXPECT_NEAR(in.size() * time + 44100, job.out.size(), 0.01 * r) << rate << " " << time;
        }
    }
}

double MeasuredCents(const Planar& out, double inFreq) {
    const int n = static_cast<int>(out.size());
    const int from = 44100 + (n - 44100) / 10;
    const double f = Signals::MedianFrequency(out.left.data(), 1, from, n - (n - 44100) / 10);
    return 1200 * std::log2(f / inFreq);
}

TEST(OfflineJob, PitchMovesByTheAskedCents) {
    const double freq = 220.0 / 44100;
    const Planar in = Split(Signals::Sine(44100 * 4, 2, freq, 0.4));
    struct Case {
        float cents, time;
    };
    for (Case c :
         {Case{700, 1.0f}, Case{-500, 0.75f}, Case{0, 1.5f}, Case{1200, 1.0f}, Case{-1200, 2.0f}}) {
        PluginHost host(MORVANE_PLUGIN);
        host.Set(3, c.time);
        host.Set(2, std::pow(2.0f, c.cents / 1200));
        const Job job = RunJob(host, in, 44100, Fixed(8192, 16384));
        EXPECT_NEAR(c.cents, MeasuredCents(job.out, freq), 3.0) << c.cents << " " << c.time;
        // A steady tone is the hard case for length: its sub-blocks differ in level by integer
        // rounding only, so the loudness weighting sends each segment's change to a few of them.
        EXPECT_NEAR(in.size() * c.time + 44100, job.out.size(), 0.03 * in.size());
    }
}

// The output gain applies to what is handed out while input arrives; what the FIFO still holds
// when the input ends leaves at unity gain.
TEST(OfflineJob, GainAppliesUntilTheInputEnds) {
    PluginHost host(MORVANE_PLUGIN);
    host.Set(1, (0.5f - 0.001f) / 1.999f); // gain 0.5, -6 on the 6-per-doubling scale
    const Planar in = Split(Signals::Music(100000, 44100));
    const Job job = RunJob(host, in, 44100, Fixed(5000, 5000));
    ASSERT_EQ(in.size() + 44100, job.out.size());
    const int handedOut = 100000; // 20 calls of 5000 while input arrived
    for (int i = 44100; i < handedOut; ++i)
        ASSERT_FLOAT_EQ(in.left[i - 44100] * 0.5f, job.out.left[i]) << i;
    for (size_t i = handedOut; i < job.out.size(); ++i)
        ASSERT_EQ(in.left[i - 44100], job.out.left[i]) << i;
}

TEST(OfflineJob, RateChangeDuringAJob) {
    PluginHost host(MORVANE_PLUGIN);
    host.Set(3, 1.5f);
    const Planar in = Split(Signals::Music(44100 * 4, 44100));
    bool changed = false;
    const Job job = RunJob(host, in, 44100, Fixed(11025, 30000), [&](int pos) {
        if (pos >= 2 * 44100 && !changed) {
            host.Set(3, 0.5f);
            changed = true;
        }
    });
    EXPECT_NEAR(2 * 44100 * 1.5 + 2 * 44100 * 0.5 + 44100, job.out.size(), 2 * 441);
}

TEST(OfflineJob, NullAndEmptyCallsAreHarmless) {
    PluginHost host(MORVANE_PLUGIN);
    EXPECT_EQ(1, host.Dispatch(effProcessVarIo, 0, 0, nullptr));
    host.Dispatch(effStartProcess);
    VstVariableIo io{nullptr, nullptr, 5000, 5000, nullptr, nullptr};
    EXPECT_EQ(1, host.Dispatch(effProcessVarIo, 0, 0, &io));
    // no total given: the job never finishes, and the lead-in still comes out
    std::vector<float> a(1000, 0.5f), b(2000), c(2000);
    const auto r = host.Process(a.data(), a.data(), 1000, b.data(), c.data(), 2000);
    EXPECT_EQ(1000, r.taken);
    EXPECT_EQ(2000, r.written);
}

} // namespace
