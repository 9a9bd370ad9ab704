#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

#include "support/PluginHost.h"
#include "support/Signals.h"

namespace HostJob {

// Input offered and output room asked for, per call.
using Blocks = std::function<std::pair<int, int>(int call)>;

inline Blocks Fixed(int offer, int want) {
    return [=](int) { return std::pair{offer, want}; };
}

struct Options {
    bool total = true;      // without the total the job never ends: maxCalls stops it
    int maxCalls = 1000000; // with the total, reaching it is a failure
    std::function<void(int pos)> before = {}; // runs ahead of each call
};

struct Result {
    Signals::Planar out;
    int calls = 0;
    bool refusedInput = false;
    std::vector<int> written; // per call
    int inputEndedAt = -1;    // the call after which no input was left
};

// A whole offline job as the host protocol runs it: rate, block size, resume, start, total;
// input until all is taken (what was refused is offered again), then calls without input until
// nothing more comes.
inline Result Run(PluginHost& host, const Signals::Planar& in, float rate, const Blocks& blocks,
                  const Options& opt = {}) {
    host.Dispatch(effSetSampleRate, 0, 0, nullptr, rate);
    host.Dispatch(effSetBlockSize, 0, blocks(0).first);
    host.Dispatch(effMainsChanged, 0, 1);
    host.Dispatch(effStartProcess);
    const int N = static_cast<int>(in.size());
    if (opt.total)
        host.Dispatch(effSetTotalSampleToProcess, 0, N);
    Result job;
    std::vector<float> o0, o1;
    int pos = 0;
    for (;;) {
        auto [offer, want] = blocks(job.calls++);
        offer = std::min(offer, N - pos);
        o0.assign(want, 7.0f);
        o1.assign(want, 7.0f);
        if (opt.before)
            opt.before(pos);
        std::vector<float> l(in.left.begin() + pos, in.left.begin() + pos + offer);
        std::vector<float> r(in.right.begin() + pos, in.right.begin() + pos + offer);
        const auto io = host.Process(l.data(), r.data(), offer, o0.data(), o1.data(), want);
        EXPECT_LE(io.taken, offer);
        EXPECT_LE(io.written, want);
        job.refusedInput |= io.taken < offer;
        pos += io.taken;
        job.written.push_back(io.written);
        if (pos == N && job.inputEndedAt < 0)
            job.inputEndedAt = job.calls - 1;
        job.out.left.insert(job.out.left.end(), o0.begin(), o0.begin() + io.written);
        job.out.right.insert(job.out.right.end(), o1.begin(), o1.begin() + io.written);
        if (pos == N && offer == 0 && io.written == 0)
            break;
        if (job.calls >= opt.maxCalls) {
            if (opt.total)
                ADD_FAILURE() << "job never ends";
            break;
        }
    }
    return job;
}

} // namespace HostJob
