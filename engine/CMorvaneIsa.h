#pragma once

// The vector instruction sets the engine has kernels for. The build stays x86-64 baseline;
// wider kernels are compiled per function and chosen when the engine starts, from what the CPU
// and the OS support. Every kernel gives the same bits, so the choice changes only speed.
class CMorvaneIsa {
public:
    enum Level { Baseline, Avx2, Avx512 };

    // The best level this machine runs, capped by the environment variable MORVANE_SIMD
    // (baseline, avx2 or avx512) when it is set; read once per process.
    static Level Detected();
    static bool Supported(Level level);
    // level, or the baseline when this machine cannot run it.
    static Level Usable(Level level) { return Supported(level) ? level : Baseline; }
};
