// What plug-in validators do to a plug-in, through its exported entry point and dispatcher only:
// many instances, every opcode with null and odd arguments, every usual sample rate and host
// block size, hostile samples, state saved and restored mid-job.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "MorvaneParameters.h"
#include "support/HostJob.h"
#include "support/Signals.h"

using namespace MorvaneParameters;

namespace {

using Signals::Planar;

// A job with host blocks of block frames and room for eight seconds of output per call.
Planar RunJob(PluginHost& host, const Planar& in, float rate, int block, bool total = true,
              int maxCalls = 1000000) {
    const int room = block + 8 * static_cast<int>(rate);
    return HostJob::Run(host, in, rate, HostJob::Fixed(block, room),
                        {.total = total, .maxCalls = maxCalls})
        .out;
}

bool AllFinite(const Planar& o) {
    for (size_t i = 0; i < o.left.size(); ++i)
        if (!std::isfinite(o.left[i]) || !std::isfinite(o.right[i]))
            return false;
    return true;
}

TEST(Validation, ManyInstancesAtOnce) {
    std::vector<std::unique_ptr<PluginHost>> hosts;
    for (int i = 0; i < 40; ++i) {
        hosts.push_back(std::make_unique<PluginHost>(MORVANE_PLUGIN));
        hosts.back()->Dispatch(effOpen);
        hosts.back()->Set(3, 0.5f + i / 40.0f);
    }
    for (int i = 0; i < 40; ++i)
        EXPECT_FLOAT_EQ(0.5f + i / 40.0f, hosts[i]->Get(3));
    hosts.clear(); // each closes its effect
}

TEST(Validation, EveryOpcodeWithNullAndOddArguments) {
    PluginHost host(MORVANE_PLUGIN);
    std::vector<char> buffer(8192, 0);
    const VstIntPtr values[] = {0, -1, 1, 63, 64, 4096, VstIntPtr(1) << 40};
    const VstInt32 indexes[] = {0, -1, 5, 64, 1 << 30};
    const float opts[] = {0.0f, -1.0f, 44100.0f, 1e9f, std::numeric_limits<float>::quiet_NaN()};
    for (int pass = 0; pass < 2; ++pass) { // before and after effOpen
        for (VstInt32 op = 0; op <= 90; ++op) {
            if (op == effClose)
                continue;
            for (VstIntPtr v : values)
                for (VstInt32 i : indexes)
                    for (float o : opts) {
                        host.Dispatch(op, i, v, nullptr, o);
                        std::fill(buffer.begin(), buffer.end(), 0);
                        // a size the host claims is never more than it owns here
                        const VstIntPtr sized =
                            op == effSetChunk ? std::min<VstIntPtr>(v, 4096) : v;
                        host.Dispatch(op, i, sized, buffer.data(), o);
                    }
        }
        host.Dispatch(effOpen);
    }
    // still a working effect
    host.Dispatch(effSetSampleRate, 0, 0, nullptr, 44100);
    host.Set(kTime, 1.5f);
    const auto in = Signals::Split(Signals::Music(22050, 44100));
    const Planar out = RunJob(host, in, 44100, 4096);
    EXPECT_NEAR(22050 * 1.5 + 44100, out.left.size(), 441);
}

TEST(Validation, EverySampleRateAndHostBlock) {
    for (float rate : {8000.0f, 11025.0f, 22050.0f, 32000.0f, 44100.0f, 48000.0f, 88200.0f,
                       96000.0f, 176400.0f, 192000.0f}) {
        const int r = static_cast<int>(rate);
        const auto in = Signals::Split(Signals::Music(r * 3 / 10, r));
        for (int block : {1, 7, 64, 4096, 65536}) {
            if (block < 64 && r > 22050)
                continue; // tiny blocks at low rates are enough to cover them
            PluginHost host(MORVANE_PLUGIN);
            host.Dispatch(effOpen);
            host.Set(kTime, 1.5f);
            host.Set(kPitch, 0.8f);
            const Planar out = RunJob(host, in, rate, block);
            EXPECT_NEAR(in.size() * 1.5 + 44100, out.left.size(), 0.02 * r) << rate << " " << block;
            EXPECT_TRUE(AllFinite(out));
            // without a total the job never ends: the lead-in and what was produced come out
            PluginHost open(MORVANE_PLUGIN);
            open.Dispatch(effOpen);
            const Planar endless = RunJob(open, in, rate, block, false, 200);
            EXPECT_GE(endless.left.size(), std::min<size_t>(44100, 200u * block)) << rate;
        }
    }
}

TEST(Validation, ExtremeSamplesGiveFiniteOutput) {
    // finite input, however extreme, gives finite output
    std::vector<float> extreme(44100 * 2 * 2);
    for (size_t i = 0; i < extreme.size(); ++i) {
        const size_t frame = i / 2;
        extreme[i] = frame < 30000   ? ((frame / 50) % 2 ? 1.0f : -1.0f)   // full-scale square
                     : frame < 60000 ? 1e-40f * ((frame % 3) - 1.0f)       // denormals
                                     : ((frame / 7) % 2 ? 3e38f : -3e38f); // the largest floats
    }
    for (float time : {0.5f, 2.0f}) {
        PluginHost h(MORVANE_PLUGIN);
        h.Set(kTime, time);
        h.Set(kOutput, 1.0f); // the largest gain
        EXPECT_TRUE(AllFinite(RunJob(h, Signals::Split(extreme), 44100, 1000))) << time;
    }
}

TEST(Validation, StateSavedAndRestoredMidJob) {
    PluginHost host(MORVANE_PLUGIN);
    host.Dispatch(effOpen);
    host.Set(kTime, 1.5f);
    const auto in = Signals::Split(Signals::Music(44100 * 2, 44100));
    const Planar reference = RunJob(host, in, 44100, 4096);

    host.Dispatch(effStartProcess);
    host.Dispatch(effSetTotalSampleToProcess, 0, static_cast<VstIntPtr>(in.size()));
    std::vector<float> o0(400000), o1(400000);
    size_t pos = 0, written = 0;
    for (int call = 0;; ++call) {
        if (call == 10) { // a host saves its project, and loads it back, in the middle of a job
            void* data = nullptr;
            const VstIntPtr n = host.Dispatch(effGetChunk, 0, 0, &data);
            std::vector<char> bank(static_cast<char*>(data), static_cast<char*>(data) + n);
            float time = 1.5f;
            std::memcpy(bank.data() + 48 * host.Dispatch(effGetProgram) + 12, &time, 4);
            host.Dispatch(effSetChunk, 0, n, bank.data());
        }
        const int offer = static_cast<int>(std::min<size_t>(4096, in.size() - pos));
        auto r = host.Process(const_cast<float*>(in.left.data() + pos),
                              const_cast<float*>(in.right.data() + pos), offer, o0.data(),
                              o1.data(), 400000);
        pos += r.taken;
        written += r.written;
        if (pos == in.size() && offer == 0 && r.written == 0)
            break;
    }
    EXPECT_EQ(reference.left.size(), written);
}

} // namespace
