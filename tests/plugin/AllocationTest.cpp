// Nothing is allocated on the processing path: every allocation made while the variable-I/O call
// runs is counted, through a replacement of the global allocation functions for this binary.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
#include <vector>

#include "AMorvane.h"
#include "MorvaneEngine.h"
#include "MorvaneParameters.h"
#include "support/Signals.h"

using namespace MorvaneParameters;

namespace {
std::atomic<bool> gCounting{false};
std::atomic<long> gAllocations{0};
} // namespace

void* operator new(size_t size) {
    if (gCounting)
        ++gAllocations;
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void* operator new[](size_t size) {
    return operator new(size);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
    std::free(p);
}

namespace {

VstIntPtr Host(AEffect*, VstInt32 opcode, VstInt32, VstIntPtr, void*, float) {
    return opcode == audioMasterVersion ? 2400 : 0;
}

TEST(Allocation, NoneWhileProcessing) {
    const auto in = Signals::Split(Signals::Music(44100 * 5, 44100));
    const int N = static_cast<int>(in.size());
    for (int engine : {MorvaneEngine::kSplice, MorvaneEngine::kCrisp})
        for (float time : {1.0f, 0.5f, 1.5f, 2.0f}) {
            AMorvane e(Host);
            e.open();
            e.vendorSpecific(MorvaneEngine::kTag, engine, nullptr, 0);
            // the end in steps, as the command line takes it, at the strong stretch
            e.vendorSpecific(MorvaneEngine::kStepTag, time == 2.0f ? 4096 : 0, nullptr, 0);
            e.setParameter(kTime, time);
            e.setParameter(kPitch, time > 1.0f ? 0.9f : 1.3f);
            e.startProcess();
            e.setTotalSampleToProcess(N);
            std::vector<float> o0(400000), o1(400000);
            long calls = 0;
            int pos = 0;
            for (;;) {
                const int offer = std::min(3000 + static_cast<int>(calls % 7) * 5000, N - pos);
                float* ins[2] = {const_cast<float*>(&in.left[pos]),
                                 const_cast<float*>(&in.right[pos])};
                float* outs[2] = {o0.data(), o1.data()};
                VstInt32 taken = 0, written = 0;
                VstVariableIo io{ins, outs, offer, 400000, &taken, &written};
                gCounting = true;
                e.processVariableIo(&io);
                gCounting = false;
                ++calls;
                pos += taken;
                if (pos == N && offer == 0 && written == 0)
                    break;
            }
            EXPECT_EQ(0, gAllocations.load())
                << "engine " << engine << ", time " << time << " over " << calls << " calls";
            gAllocations = 0;
        }
    // the counter itself works
    gCounting = true;
    auto* p = new std::vector<int>(3);
    gCounting = false;
    delete p;
    EXPECT_GE(gAllocations.load(), 1);
}

} // namespace
