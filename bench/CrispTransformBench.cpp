// The crisp engine's transform, forward and windowed inverse-add as a vocoder frame takes them,
// at the lengths its windows use. items_per_second is points per second of CPU time, so lengths
// of three times a power of two compare with their neighbours directly. MORVANE_SIMD caps the
// level.
#include <benchmark/benchmark.h>

#include <vector>

#include "CRealFft.h"
#include "support/Signals.h"

namespace {

void BM_CrispFrame(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    CRealFft fft;
    if (!fft.Prepare(n)) {
        state.SkipWithError("length not taken");
        return;
    }
    const auto x = Signals::Noise(n, 1, 1.0);
    const std::vector<float> window(n, 1.0f);
    std::vector<float> re(n / 2 + 1), im(n / 2 + 1), ring(n);
    for (auto _ : state) {
        fft.Forward(x.data(), window.data(), re.data(), im.data());
        fft.InverseAdd(re.data(), im.data(), window.data(), 1.0, ring.data(), n, nullptr);
        benchmark::DoNotOptimize(ring.data());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_CrispFrame)->Arg(768)->Arg(1024)->Arg(1536)->Arg(2048)->Arg(6144)->Arg(8192);

} // namespace

BENCHMARK_MAIN();
