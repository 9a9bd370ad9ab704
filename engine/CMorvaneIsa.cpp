#include "CMorvaneIsa.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

CMorvaneIsa::Level Capped(CMorvaneIsa::Level best) {
    const char* cap = std::getenv("MORVANE_SIMD");
    if (cap == nullptr)
        return best;
    CMorvaneIsa::Level wanted = best;
    if (std::strcmp(cap, "baseline") == 0)
        wanted = CMorvaneIsa::Baseline;
    else if (std::strcmp(cap, "avx2") == 0)
        wanted = CMorvaneIsa::Avx2;
    return std::min(wanted, best);
}

} // namespace

bool CMorvaneIsa::Supported(Level level) {
#if defined(__x86_64__)
    // libgcc's probe also checks that the OS saves the wider registers (XCR0).
    __builtin_cpu_init();
    switch (level) {
    case Baseline:
        return true;
    case Avx2:
        return __builtin_cpu_supports("avx2");
    case Avx512:
        return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
    }
    return false;
#else
    return level == Baseline;
#endif
}

CMorvaneIsa::Level CMorvaneIsa::Detected() {
    static const Level level = Capped(Supported(Avx512) ? Avx512
                                      : Supported(Avx2) ? Avx2
                                                        : Baseline);
    return level;
}
