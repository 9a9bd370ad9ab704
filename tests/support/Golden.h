#pragma once

// What the golden tests share: a digest of values, the check that a capped run runs the level it
// names, and the digest of an engine's whole render.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include "CMorvaneIsa.h"
#include "support/Signals.h"

namespace Golden {

constexpr uint64_t kStart = 1469598103934665603ull;

// FNV-1a over the bytes of the values.
template <typename T> uint64_t Digest(const T* v, size_t n, uint64_t h = kStart) {
    const auto* b = reinterpret_cast<const unsigned char*>(v);
    for (size_t i = 0; i < n * sizeof(T); ++i)
        h = (h ^ b[i]) * 1099511628211ull;
    return h;
}

// The capped runs (MORVANE_SIMD) must run the level they name, or they pin nothing new.
inline void ExpectTheLevelAskedFor() {
    const char* cap = std::getenv("MORVANE_SIMD");
    const std::string level = cap ? cap : "";
    if (level == "baseline") {
        EXPECT_EQ(CMorvaneIsa::Baseline, CMorvaneIsa::Detected());
    } else if (level == "avx2") {
        EXPECT_NE(CMorvaneIsa::Avx512, CMorvaneIsa::Detected());
    }
}

struct Rates {
    double time, pitch;
};

// A fresh engine's render of x at each rate pair, in blocks, both channels digested in turn.
template <class Engine>
uint64_t RenderDigest(const Signals::Planar& x, std::initializer_list<Rates> rates, int block,
                      int (Engine::*process)(float**, float**, int, bool)) {
    uint64_t h = kStart;
    for (Rates r : rates) {
        Engine e;
        e.SetTimeRate(r.time, false);
        e.SetPitchRate(r.pitch, false);
        e.StartToProcess();
        std::vector<float> o0(e.MaxOutput(block)), o1(e.MaxOutput(block));
        const int n = static_cast<int>(x.left.size());
        for (int pos = 0; pos < n; pos += block) {
            const int k = std::min(block, n - pos);
            float* ins[2] = {const_cast<float*>(&x.left[pos]), const_cast<float*>(&x.right[pos])};
            float* outs[2] = {o0.data(), o1.data()};
            const int got = (e.*process)(outs, ins, k, pos + k == n);
            h = Digest(o0.data(), got, Digest(o1.data(), got, h));
        }
    }
    return h;
}

} // namespace Golden
