#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <tuple>
#include <vector>

#include "MorvaneEngine.h"
#include "MorvaneParameters.h"
#include "support/HostJob.h"
#include "support/Signals.h"

using namespace MorvaneParameters;

namespace {

using Signals::Planar;
using Signals::Split;

using HostJob::Blocks;
using HostJob::Fixed;
using Job = HostJob::Result;

Job RunJob(PluginHost& host, const Planar& in, float rate, const Blocks& blocks,
           std::function<void(int pos)> before = {}) {
    return HostJob::Run(host, in, rate, blocks, {.before = std::move(before)});
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
    // A host that drops the lead-in can have it left out, for one job.
    ASSERT_EQ(1, host.Dispatch(effVendorSpecific, MorvaneEngine::kLeadInTag, 0));
    EXPECT_EQ(in.left, RunJob(host, in, 44100, Fixed(4096, 4096)).out.left);
    EXPECT_EQ(job.out.left, RunJob(host, in, 44100, Fixed(4096, 4096)).out.left);
}

// However the host cuts the job, the output is the same, bit for bit: calls of every size, blocks
// far larger than the plug-in's buffers, and hosts that ask for too little output and must offer
// the refused input again.
TEST(OfflineJob, AnyBlockPatternGivesTheSameResult) {
    // (crisp up far enough reads its input at the pitch rate first)
    for (auto [engine, time, cents] : {std::tuple{MorvaneEngine::kSplice, 1.5f, -300.0f},
                                       {MorvaneEngine::kCrisp, 1.5f, -300.0f},
                                       {MorvaneEngine::kCrisp, 1.3f, 700.0f}}) {
        PluginHost host(MORVANE_PLUGIN);
        host.Dispatch(effVendorSpecific, MorvaneEngine::kTag, engine);
        host.Set(kTime, time);
        host.Set(kPitch, std::pow(2.0f, cents / 1200.0f));
        // Growing louder: the crisp engine's guard then holds its output to a peak that rises.
        // Read first, a tone whose peaks the filter ahead of the ring keeps and whose turned
        // phases rise above them: 20 harmonics of 110 Hz in Schroeder's phases.
        Planar in = Split(Signals::Music(44100 * 6, 44100));
        for (size_t i = 0; i < in.size() && cents > 0; ++i) {
            double x = 0;
            for (int k = 1; k <= 20; ++k)
                x += std::cos(2 * M_PI * 110 * k * double(i) / 44100 + M_PI * k * (k - 1) / 20);
            in.left[i] = static_cast<float>(0.1 * x);
            in.right[i] = static_cast<float>(0.08 * x);
        }
        for (size_t i = 0; i < in.size(); ++i) {
            const float gain = 0.1f + 0.9f * static_cast<float>(i) / static_cast<float>(in.size());
            in.left[i] *= gain;
            in.right[i] *= gain;
        }
        const Job reference = RunJob(host, in, 44100, Fixed(4096, 8192));
        EXPECT_NEAR(in.size() * time + 44100, reference.out.size(), 441);

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
            EXPECT_EQ(reference.out.left, job.out.left) << engine << " " << cents;
            EXPECT_EQ(reference.out.right, job.out.right) << engine << " " << cents;
        }
        const Job starved = RunJob(host, in, 44100, Fixed(44100, 100));
        EXPECT_TRUE(starved.refusedInput);
    }
}

// A host working in place, with output arrays that are its input's own, gets what one with
// separate arrays gets, with either engine and at a gain below 1: the engine never writes over
// input it has yet to read, and what it writes straight into a host's arrays is scaled as the
// queue scales it.
TEST(OfflineJob, InputAndOutputMayShareArrays) {
    const Planar in = Split(Signals::Music(44100 * 3, 44100));
    const int n = static_cast<int>(in.size()), block = 8192, room = 1 << 18;
    for (int engine : {MorvaneEngine::kSplice, MorvaneEngine::kCrisp}) {
        const auto setUp = [&](PluginHost& host) {
            host.Dispatch(effVendorSpecific, MorvaneEngine::kTag, engine);
            host.Set(kTime, 1.5f);
            host.Set(kOutput, (0.5f - 0.001f) / 1.999f); // gain 0.5
        };
        PluginHost separate(MORVANE_PLUGIN);
        setUp(separate);
        const Job reference = RunJob(separate, in, 44100, Fixed(block, room));

        PluginHost host(MORVANE_PLUGIN);
        setUp(host);
        host.Dispatch(effSetSampleRate, 0, 0, nullptr, 44100);
        host.Dispatch(effSetBlockSize, 0, block);
        host.Dispatch(effMainsChanged, 0, 1);
        host.Dispatch(effStartProcess);
        host.Dispatch(effSetTotalSampleToProcess, 0, n);
        std::vector<float> l(room), r(room);
        Planar out;
        for (int pos = 0;;) {
            const int offer = std::min(block, n - pos);
            std::copy_n(in.left.begin() + pos, offer, l.begin());
            std::copy_n(in.right.begin() + pos, offer, r.begin());
            const auto io = host.Process(l.data(), r.data(), offer, l.data(), r.data(), room);
            pos += io.taken;
            out.left.insert(out.left.end(), l.begin(), l.begin() + io.written);
            out.right.insert(out.right.end(), r.begin(), r.begin() + io.written);
            if (pos == n && offer == 0 && io.written == 0)
                break;
        }
        ASSERT_EQ(reference.out.size(), out.size()) << engine;
        EXPECT_EQ(reference.out.left, out.left) << engine;
        EXPECT_EQ(reference.out.right, out.right) << engine;
    }
}

// A short job touches the memory it reaches, not all its buffers could hold (the engines keep
// seconds, the queue more): from its start to its last output, a one-second job at 150 % faults
// in fewer pages than 1.7 times its input takes as floats with the splice engine (it holds the
// input until a segment is whole, and makes its onset detector's tables when its first job
// starts; time alone, the splices write straight into the host's output), and than its input
// and output take, a tenth more, with crisp, whose two vocoders keep frames and spectra of
// their own (its ring of input grows only as far as its frames wait on). Sanitizers shadow every
// page, so the count is theirs there.
TEST(OfflineJob, AShortJobTouchesWhatItReaches) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitized build";
#endif
    const Planar in = Split(Signals::Music(44100, 44100));
    const int n = static_cast<int>(in.size()), room = 1 << 18;
    const long input = 2L * sizeof(float) * n / 4096, pages = input * 5 / 2;
    for (int engine : {MorvaneEngine::kSplice, MorvaneEngine::kCrisp}) {
        PluginHost host(MORVANE_PLUGIN);
        host.Dispatch(effVendorSpecific, MorvaneEngine::kTag, engine);
        host.Set(kTime, 1.5f);
        host.Dispatch(effSetSampleRate, 0, 0, nullptr, 44100);
        host.Dispatch(effSetBlockSize, 0, 8192);
        host.Dispatch(effMainsChanged, 0, 1);
        Planar copy = in;
        std::vector<float> l(room, 1.0f), r(room, 1.0f); // the host's, touched before counting
        rusage before{}, after{};
        getrusage(RUSAGE_THREAD, &before);
        host.Dispatch(effStartProcess);
        host.Dispatch(effSetTotalSampleToProcess, 0, n);
        long written = 0;
        for (int pos = 0;;) {
            const int offer = std::min(8192, n - pos);
            const auto io = host.Process(copy.left.data() + pos, copy.right.data() + pos, offer,
                                         l.data(), r.data(), room);
            pos += io.taken;
            written += io.written;
            if (pos == n && offer == 0 && io.written == 0)
                break;
        }
        getrusage(RUSAGE_THREAD, &after);
        EXPECT_GT(written, n + 44100) << engine;
        EXPECT_LT(after.ru_minflt - before.ru_minflt,
                  engine == MorvaneEngine::kSplice ? input * 17 / 10 : pages * 11 / 10)
            << engine;
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
        host.Set(kTime, c.time);
        host.Set(kPitch, std::pow(2.0f, c.cents / 1200));
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
    host.Set(kOutput, (0.5f - 0.001f) / 1.999f); // gain 0.5, -6 on the 6-per-doubling scale
    const Planar in = Split(Signals::Music(100000, 44100));
    const Job job = RunJob(host, in, 44100, Fixed(5000, 5000));
    ASSERT_EQ(in.size() + 44100, job.out.size());
    const int handedOut = 100000; // 20 calls of 5000 while input arrived
    for (int i = 44100; i < handedOut; ++i)
        ASSERT_FLOAT_EQ(in.left[i - 44100] * 0.5f, job.out.left[i]) << i;
    for (size_t i = handedOut; i < job.out.size(); ++i)
        ASSERT_EQ(in.left[i - 44100], job.out.left[i]) << i;
}

// A host that asks for a job in steps gets, with either engine and whatever its room, the
// output one with room for everything gets, at the job's gain to its last frame; and what the
// engine held when the input ended comes a step (and at most a segment or a frame more) a call.
TEST(OfflineJob, AJobInStepsFlushesAStepACallAtItsGain) {
    const Planar in = Split(Signals::Music(44100 * 3, 44100));
    constexpr int kStep = 4096, kRoom = 1 << 19;
    for (int engine : {MorvaneEngine::kSplice, MorvaneEngine::kCrisp}) {
        PluginHost host(MORVANE_PLUGIN);
        host.Dispatch(effVendorSpecific, MorvaneEngine::kTag, engine);
        host.Set(kTime, 1.5f);
        host.Set(kOutput, (0.5f - 0.001f) / 1.999f);
        const Job whole = RunJob(host, in, 44100, Fixed(8192, kRoom));
        for (int room : {kRoom, 3000}) {
            ASSERT_EQ(1, host.Dispatch(effVendorSpecific, MorvaneEngine::kStepTag, kStep));
            const Job steps = RunJob(host, in, 44100, Fixed(8192, room));
            EXPECT_EQ(whole.out.left, steps.out.left) << engine << " " << room;
            EXPECT_EQ(whole.out.right, steps.out.right) << engine << " " << room;
            const auto after = steps.written.begin() + steps.inputEndedAt;
            EXPECT_GE(std::count_if(after, steps.written.end(), [](int n) { return n > 0; }), 3);
            EXPECT_LE(*std::max_element(after, steps.written.end()), kStep + 44100 * 3 / 4);
            // later calls a step and at most the piece that passes it, also inside a segment
            EXPECT_LE(*std::max_element(after + 1, steps.written.end()), kStep + 44100 / 10)
                << engine;
        }
        // and only for that job: the next flushes at once again
        EXPECT_EQ(whole.written, RunJob(host, in, 44100, Fixed(8192, kRoom)).written) << engine;
    }
}

TEST(OfflineJob, RateChangeDuringAJob) {
    PluginHost host(MORVANE_PLUGIN);
    host.Set(kTime, 1.5f);
    const Planar in = Split(Signals::Music(44100 * 4, 44100));
    bool changed = false;
    const Job job = RunJob(host, in, 44100, Fixed(11025, 30000), [&](int pos) {
        if (pos >= 2 * 44100 && !changed) {
            host.Set(kTime, 0.5f);
            changed = true;
        }
    });
    EXPECT_NEAR(2 * 44100 * 1.5 + 2 * 44100 * 0.5 + 44100, job.out.size(), 2 * 441);
}

// A host that announces fewer frames than its final block holds still has the whole block
// rendered: the block is larger than the plug-in's slices and reaches past the total.
TEST(OfflineJob, AFinalBlockPastTheTotalIsRenderedWhole) {
    PluginHost host(MORVANE_PLUGIN);
    const Planar in = Split(Signals::Music(100000, 44100));
    host.Dispatch(effSetSampleRate, 0, 0, nullptr, 44100);
    host.Dispatch(effStartProcess);
    host.Dispatch(effSetTotalSampleToProcess, 0, 60000);
    std::vector<float> l = in.left, r = in.right, o0(400000), o1(400000);
    auto io = host.Process(l.data(), r.data(), 100000, o0.data(), o1.data(), 150000);
    ASSERT_EQ(100000, io.taken);
    int64_t written = io.written;
    do {
        io = host.Process(nullptr, nullptr, 0, o0.data() + written, o1.data() + written,
                          static_cast<int>(o0.size() - written));
        written += io.written;
    } while (io.written > 0);
    ASSERT_EQ(100000 + 44100, written);
    EXPECT_EQ(in.left, std::vector<float>(o0.begin() + 44100, o0.begin() + written));
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
