// libFuzzer target: one offline job per input, the bytes choosing the engine, the parameters, every
// host block size and output count, and the samples themselves (NaN and infinities included). The
// output must stay finite and within what was asked for.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "FuzzEffect.h"
#include "MorvaneEngine.h"
#include "MorvaneParameters.h"

using namespace MorvaneParameters;

namespace {

struct Bytes {
    const uint8_t* p;
    size_t n;
    uint32_t Take(int count) {
        uint32_t v = 0;
        for (int i = 0; i < count; ++i) {
            v = (v << 8) | (n ? *p : 0);
            if (n) {
                ++p;
                --n;
            }
        }
        return v;
    }
    float Sample() {
        const uint32_t bits = Take(4);
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    AMorvane* effect = &FuzzEffect();
    static std::vector<float> in0(70000), in1(70000), out0(300000), out1(300000);
    Bytes b{data, size};
    const uint32_t setup = b.Take(1);
    if (setup & 0x80) // now and then another sample rate
        effect->setSampleRate(static_cast<float>(8000 + b.Take(2) * 3));
    effect->setParameter(kTime, 0.4f + b.Take(1) / 150.0f); // a little beyond 0.5 .. 2 either side
    effect->setParameter(kPitch, 0.4f + b.Take(1) / 150.0f);
    effect->setParameter(kOutput, b.Take(1) / 255.0f);
    effect->setParameter(kOnOff, (setup & 1) ? 1.0f : 0.0f);
    effect->vendorSpecific(MorvaneEngine::kTag,
                           (setup & 4) ? MorvaneEngine::kCrisp : MorvaneEngine::kSplice, nullptr,
                           0);
    effect->startProcess();
    const int total = static_cast<int>(b.Take(3) % 300000);
    if (setup & 2)
        effect->setTotalSampleToProcess(total);
    for (int call = 0; call < 24; ++call) {
        const int offer = static_cast<int>(b.Take(2) % 20001);
        const int want = static_cast<int>(b.Take(2) * 4 % 300000);
        const int filled = std::min<int>(offer, static_cast<int>(b.n / 8));
        for (int i = 0; i < offer; ++i) {
            in0[i] = i < filled ? b.Sample() : 0.0f;
            in1[i] = i < filled ? b.Sample() : 0.0f;
        }
        float* ins[2] = {in0.data(), in1.data()};
        float* outs[2] = {out0.data(), out1.data()};
        VstInt32 taken = -1, written = -1;
        VstVariableIo io{ins, outs, offer, want, &taken, &written};
        effect->processVariableIo(&io);
        if (taken < 0 || taken > offer || written < 0 || written > want)
            __builtin_trap();
        for (int i = 0; i < written; ++i)
            if (!std::isfinite(out0[i]) || !std::isfinite(out1[i]))
                __builtin_trap();
    }
    return 0;
}
