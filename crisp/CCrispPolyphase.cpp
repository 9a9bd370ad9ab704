#include "CCrispPolyphase.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numbers>

#include "CCrispKernels.h"
#include "CMorvaneIsa.h"
#include "CrispTargets.h"

// (the vectors below live only in functions built for their width, and never cross a call)
#pragma GCC diagnostic ignored "-Wpsabi"

namespace {

// The stopband the design aims at, before the table's lines between phases; the taps, a
// multiple of 16, then take what their length allows beyond it.
constexpr double kAttenuation = 84.0;
// The transition, as a share of the lower rate, centred on its half.
constexpr double kTransition = 0.1;

// Sixteen lanes at every level, in the level's own registers (one AVX-512, two AVX2, four
// SSE), so that every level adds the same numbers in the same order.
typedef float Four __attribute__((vector_size(16)));
typedef float Eight __attribute__((vector_size(32)));
typedef float Sixteen __attribute__((vector_size(64)));
constexpr int kLanes = 16;

double BesselI0(double x) {
    double sum = 1, term = 1;
    for (int k = 1; k < 60 && term > 1e-17 * sum; ++k) {
        term *= (x / (2 * k)) * (x / (2 * k));
        sum += term;
    }
    return sum;
}

template <typename V> CRISP_INLINE V Load(const float* p) {
    V v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The lanes' sum: the upper eight added to the lower, then the upper four of those, then a
// fixed pair of pairs.
CRISP_INLINE float Sum(const float* s) {
    const Eight e = Load<Eight>(s) + Load<Eight>(s + 8);
    float x[8];
    std::memcpy(x, &e, sizeof x);
    const Four f = Load<Four>(x) + Load<Four>(x + 4);
    const Four g = f + Four{f[2], f[3], f[0], f[1]};
    return g[0] + g[1];
}

// B outputs at once, from position p on at the step given: independent sums, so that their
// latencies overlap (each output's own arithmetic is the same whatever B).
template <typename V, int B>
CRISP_INLINE void Outputs(const float* __restrict table, int taps, const float* __restrict left,
                          const float* __restrict right, double p, double step,
                          float* __restrict outL, float* __restrict outR, float* peak) {
    constexpr int kWidth = sizeof(V) / sizeof(float), kParts = kLanes / kWidth;
    const float* c[B];
    const float* l[B];
    const float* r[B];
    float t[B];
    for (int b = 0; b < B; ++b, p += step) {
        // (floor without a call at the baseline)
        long whole = static_cast<long>(p);
        whole -= whole > p;
        const double at = (p - static_cast<double>(whole)) * CCrispPolyphase::kPhases;
        const int phase = static_cast<int>(at);
        t[b] = static_cast<float>(at - phase);
        c[b] = table + 2L * taps * phase;
        l[b] = left + whole - taps / 2 + 1;
        r[b] = right + whole - taps / 2 + 1;
    }
    V sl[B][kParts] = {}, sr[B][kParts] = {};
    for (int j = 0; j < taps; j += kLanes)
        for (int g = 0; g < kParts; ++g)
            for (int b = 0; b < B; ++b) {
                const int i = j + g * kWidth;
                const V h = Load<V>(c[b] + i) + t[b] * Load<V>(c[b] + taps + i);
                sl[b][g] += h * Load<V>(l[b] + i);
                sr[b][g] += h * Load<V>(r[b] + i);
            }
    for (int b = 0; b < B; ++b) {
        float lanes[2][kLanes];
        std::memcpy(lanes[0], sl[b], sizeof sl[b]);
        std::memcpy(lanes[1], sr[b], sizeof sr[b]);
        outL[b] = Sum(lanes[0]);
        outR[b] = Sum(lanes[1]);
        *peak = std::max(*peak, std::max(std::fabs(outL[b]), std::fabs(outR[b])));
    }
}

// Outputs at pos, pos + step, ... while pos < limit, B at a time while B fit; returns how many,
// and the next position.
template <typename V, int B>
CRISP_INLINE int ReadBody(const float* __restrict table, int taps, const float* __restrict left,
                          const float* __restrict right, double* pos, double step, double limit,
                          float* __restrict outL, float* __restrict outR, float* loudest) {
    double p = *pos;
    int k = 0;
    float peak = *loudest;
    for (;;) {
        double last = p; // the position after the batch, added up as one at a time would
        for (int b = 1; b < B; ++b)
            last += step;
        if (!(last < limit))
            break;
        Outputs<V, B>(table, taps, left, right, p, step, outL + k, outR + k, &peak);
        p = last + step;
        k += B;
    }
    for (; p < limit; p += step, ++k)
        Outputs<V, 1>(table, taps, left, right, p, step, outL + k, outR + k, &peak);
    *pos = p;
    *loudest = peak;
    return k;
}

CRISP_AVX512 int Read512(const float* table, int taps, const float* left, const float* right,
                         double* pos, double step, double limit, float* outL, float* outR,
                         float* loudest) {
    return ReadBody<Sixteen, 8>(table, taps, left, right, pos, step, limit, outL, outR, loudest);
}
CRISP_AVX2 int Read256(const float* table, int taps, const float* left, const float* right,
                       double* pos, double step, double limit, float* outL, float* outR,
                       float* loudest) {
    return ReadBody<Eight, 3>(table, taps, left, right, pos, step, limit, outL, outR, loudest);
}
int ReadPlain(const float* table, int taps, const float* left, const float* right, double* pos,
              double step, double limit, float* outL, float* outR, float* loudest) {
    return ReadBody<Four, 1>(table, taps, left, right, pos, step, limit, outL, outR, loudest);
}

} // namespace

CCrispPolyphase::CCrispPolyphase() : m_pTable(2L * kMaxTaps * kPhases) {
    Design(1.0);
}

void CCrispPolyphase::Design(double pitchRate) {
    m_dPos = 0;
    pitchRate = pitchRate == pitchRate ? std::clamp(pitchRate, 0.25, 2.0) : 1.0;
    if (pitchRate == m_dRate)
        return;
    m_dRate = pitchRate;
    // in cycles an input frame: the cutoff, and the transition's width around it
    const double scale = std::min(1.0, 1.0 / pitchRate);
    const double cutoff = 0.5 * scale, width = kTransition * scale;
    // Kaiser's estimates of the length and the window's shape, the length rounded up to whole
    // vectors and the shape then made as steep as the length allows
    const double least = (kAttenuation - 7.95) / (14.36 * width);
    m_nTaps = std::min(kMaxTaps, 16 * static_cast<int>(std::ceil(least / 16)));
    const double attenuation = 7.95 + 14.36 * width * m_nTaps;
    const double beta = 0.1102 * (attenuation - 8.7);
    const int half = m_nTaps / 2;
    if (pitchRate == 1.0)
        return; // passed as it is: no table
    const double norm = BesselI0(beta);
    // A phase's taps before scaling. Phase kPhases - p is phase p backwards, to the bit (the
    // window and the sinc are even, and every x is exact), so only half are worked out.
    const auto raw = [&](int phase, double* h) {
        const double f = static_cast<double>(phase) / kPhases;
        for (int j = 0; j < m_nTaps; ++j) {
            const double x = j - (half - 1) - f, r = x / half;
            const double w = r * r < 1 ? BesselI0(beta * std::sqrt(1 - r * r)) / norm : 0.0;
            const double a = 2 * std::numbers::pi * cutoff * x;
            h[j] = w * (a == 0 ? 2 * cutoff : std::sin(a) / (std::numbers::pi * x));
        }
    };
    // each row scaled to a gain of exactly 1, into the table's first half of each phase (the
    // last row, the next one's, aside)
    float last[kMaxTaps];
    const auto put = [&](int phase, const double* h) {
        double sum = 0;
        for (int j = 0; j < m_nTaps; ++j)
            sum += h[j];
        float* c = phase < kPhases ? m_pTable.get() + 2L * m_nTaps * phase : last;
        for (int j = 0; j < m_nTaps; ++j)
            c[j] = static_cast<float>(h[j] / sum);
    };
    double h[kMaxTaps], back[kMaxTaps];
    for (int p = 0; p <= kPhases / 2; ++p) {
        raw(p, h);
        put(p, h);
        std::reverse_copy(h, h + m_nTaps, back);
        if (p < kPhases - p)
            put(kPhases - p, back);
    }
    // then the steps to the next phase's
    for (int p = 0; p < kPhases; ++p) {
        float* c = m_pTable.get() + 2L * m_nTaps * p;
        const float* next = p + 1 < kPhases ? c + 2 * m_nTaps : last;
        for (int j = 0; j < m_nTaps; ++j)
            c[m_nTaps + j] = next[j] - c[j];
    }
}

int CCrispPolyphase::Read(float** out, const float* left, const float* right, int n,
                          float* loudest) {
    if (m_dRate == 1.0) { // as it is, at once
        std::copy(left, left + n, out[0]);
        std::copy(right, right + n, out[1]);
        *loudest = std::max(*loudest, CCrispKernels::Loudest(left, right, n));
        return n;
    }
    // the last output whose taps lie within the frames given
    const double limit = n - m_nTaps / 2;
    if (!(limit > m_dPos)) {
        m_dPos -= n;
        return 0;
    }
    static const CMorvaneIsa::Level level = CMorvaneIsa::Detected();
    const auto read = level == CMorvaneIsa::Avx512 ? Read512
                      : level == CMorvaneIsa::Avx2 ? Read256
                                                   : ReadPlain;
    const int k = read(m_pTable.get(), m_nTaps, left, right, &m_dPos, m_dRate, limit, out[0],
                       out[1], loudest);
    m_dPos -= n;
    return k;
}
