// Throughput of each engine stage on 10 s of stereo music at 44.1 kHz, at stretch 1.5 and pitch
// ratio 0.7. items_per_second is input frames per second of CPU time.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "CMorvaneBlock.h"
#include "CMorvaneDetect.h"
#include "CMorvaneFft.h"
#include "CMorvaneResample.h"
#include "fft.h"
#include "support/Signals.h"

namespace {

constexpr int kRate = 44100;
constexpr int kFrames = 10 * kRate;
constexpr int kHistory = 1024;

const std::vector<float>& Material() {
    static const std::vector<float> music = [] {
        auto m = Signals::Music(kHistory + kFrames + 2 * kRate, kRate);
        std::fill(m.begin(), m.begin() + 2 * kHistory, 0.0f);
        return m;
    }();
    return music;
}

// Segment lengths as the engine would cut the material: detect within a one-second window.
const std::vector<int>& Segments() {
    static const std::vector<int> segments = [] {
        CMorvaneDetect detect;
        mvArg arg;
        detect.IniDetect(arg.nFrameLen);
        std::vector<float> in(Material());
        std::vector<int> out;
        for (int pos = 0; pos < kFrames;) {
            const int held = std::min(kRate, kFrames - pos);
            arg.bFinal = held < kRate;
            const int L = detect.Detect(in.data() + 2 * (kHistory + pos), held, &arg);
            out.push_back(L);
            pos += L;
        }
        return out;
    }();
    return segments;
}

void BM_Fft1024(benchmark::State& state) {
    auto data = Signals::Noise(1024, 2, 1.0);
    std::vector<double> d(data.begin(), data.end());
    for (auto _ : state) {
        fft(d.data(), 1024, true);
        benchmark::DoNotOptimize(d.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Fft1024);

// The detector's prepared transform: tabled twiddles, vector butterflies.
void BM_FftPlan1024(benchmark::State& state) {
    auto data = Signals::Noise(1024, 2, 1.0);
    std::vector<double> d(data.begin(), data.end());
    CMorvaneFft plan;
    plan.Prepare(1024);
    for (auto _ : state) {
        plan.Transform(d.data(), true);
        benchmark::DoNotOptimize(d.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FftPlan1024);

void BM_Detect(benchmark::State& state) {
    CMorvaneDetect detect;
    mvArg arg;
    detect.IniDetect(arg.nFrameLen);
    std::vector<float> in(Material());
    for (auto _ : state) {
        for (int pos = 0; pos < kFrames;) {
            const int held = std::min(kRate, kFrames - pos);
            arg.bFinal = held < kRate;
            pos += detect.Detect(in.data() + 2 * (kHistory + pos), held, &arg);
        }
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
}
BENCHMARK(BM_Detect)->Unit(benchmark::kMillisecond);

void BM_Block(benchmark::State& state) {
    CMorvaneBlock block;
    mvArg arg;
    arg.dStretch = 1.5;
    std::vector<float> in(Material());
    std::vector<float> out(4 * kRate * 2);
    block.SetBufferPointer(in.data());
    for (auto _ : state) {
        block.IniBlock();
        int pos = 0;
        for (int L : Segments()) {
            benchmark::DoNotOptimize(
                block.Block(out.data(), in.data() + 2 * (kHistory + pos), L, &arg));
            pos += L;
        }
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
}
BENCHMARK(BM_Block)->Unit(benchmark::kMillisecond);

void BM_Resample(benchmark::State& state) {
    CMorvaneResample resample;
    mvArg arg;
    arg.dPitchRate = 0.7;
    const int hist = resample.IniResample(0.7, 60, 0.1, 100.0, true);
    const auto& music = Material();
    std::vector<float> buf((hist + kRate + 64) * 2, 0.0f);
    std::vector<float> o0(2 * kRate + 8), o1(2 * kRate + 8);
    float* outs[2] = {o0.data(), o1.data()};
    for (auto _ : state) {
        for (int pos = 0; pos < kFrames; pos += kRate) {
            std::memcpy(&buf[hist * 2], &music[2 * pos], sizeof(float) * 2 * kRate);
            benchmark::DoNotOptimize(resample.Resample(outs, &buf[hist * 2], kRate, &arg, true));
            std::memmove(buf.data(), &buf[2 * kRate], sizeof(float) * 2 * hist);
        }
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
}
BENCHMARK(BM_Resample)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
