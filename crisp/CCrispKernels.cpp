#include "CCrispKernels.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numbers>
#include <type_traits>

#include "CMorvaneIsa.h"
#include "CrispTargets.h"

// (the vectors below live only in functions built for their width, and never cross a call)
#pragma GCC diagnostic ignored "-Wpsabi"

// Selects stand where branches would stop the compiler vectorising.

namespace {

constexpr double kPi = std::numbers::pi;
constexpr double kHalfPi = kPi / 2;
// Trigonometry in single precision, for angles of a few turns (phases to about 1e-6 rad).
CRISP_INLINE float Round(float x) {
    return (x + 12582912.0f) - 12582912.0f; // 1.5 * 2^23: for |x| < 2^22
}

// x less the nearest whole number of turns: within half a turn of 0.
CRISP_INLINE float Wrap(float x) {
    return x - float(2 * kPi) * Round(x * float(1 / (2 * kPi)));
}

// atan(a) / a for a in [0, 1] as a polynomial in a^2 (a Chebyshev fit, within 1.2e-8 rad before
// rounding to floats).
CRISP_INLINE float Atan2(float y, float x) {
    const float ax = std::fabs(x), ay = std::fabs(y);
    const float hi = std::max(ax, ay), lo = std::min(ax, ay);
    const float a = lo / (hi > 0 ? hi : 1.0f), t = a * a;
    float r = 0.0028340990535335744f * t - 0.0160052252961844f;
    r = r * t + 0.04258803075277964f;
    r = r * t - 0.07495492400032608f;
    r = r * t + 0.10636782977434134f;
    r = r * t - 0.14202580389422537f;
    r = r * t + 0.19992485343081934f;
    r = r * t - 0.3333306692052772f;
    r = r * t + 0.9999999842747127f;
    r *= a;
    r = ay > ax ? float(kHalfPi) - r : r;
    r = x < 0 ? float(kPi) - r : r;
    return std::copysign(r, y);
}

// Sine and cosine near zero (|r| <= pi / 4) as polynomials in r^2.
CRISP_INLINE void SinCos(float x, float* sine, float* cosine) {
    const float k = Round(x * float(2 / kPi));
    const int quadrant = static_cast<int>(k) & 3;
    // pi / 2 in two parts, the first with 12 significant bits: k times it is exact for |k| < 4096
    const float r = (x - k * 1.5703125f) - k * 4.8382679e-4f, t = r * r;
    float s = 2.7173515612883774e-06f * t - 0.0001983920299879191f;
    s = s * t + 0.008333328785876552f;
    s = s * t - 0.16666666631643648f;
    s = s * t + 0.9999999999957703f;
    s *= r;
    float c = 2.437988213282474e-05f * t - 0.0013886618662613684f;
    c = c * t + 0.041666616720040434f;
    c = c * t - 0.4999999961524287f;
    c = c * t + 0.9999999999526701f;
    const bool odd = (quadrant & 1) != 0;
    const float sv = odd ? c : s, cv = odd ? s : c;
    *sine = quadrant >= 2 ? -sv : sv;
    *cosine = quadrant == 1 || quadrant == 2 ? -cv : cv;
}

// log(v) for v >= 1: v = 2^e f with f in [sqrt(1/2), sqrt(2)), log f = 2 atanh((f - 1) / (f + 1))
// as a series, in single precision (within 2e-7 of log v).
CRISP_INLINE float Log(float v) {
    constexpr uint32_t kSqrtHalf = 0x3F3504F3u;
    const uint32_t bits = std::bit_cast<uint32_t>(v);
    const uint32_t e = (bits - kSqrtHalf) >> 23;
    const float f = std::bit_cast<float>(bits - (e << 23));
    const float s = (f - 1) / (f + 1), t = s * s;
    float p = t * (1.0f / 9) + 1.0f / 7;
    p = p * t + 1.0f / 5;
    p = p * t + 1.0f / 3;
    return float(int(e)) * std::numbers::ln2_v<float> + (2 * s + 2 * s * t * p);
}

CRISP_INLINE bool SilentBody(const float* __restrict x, int n) {
    // (a sound rarely leaves both ends and the middle at zero: most frames end here)
    if (n > 0 && ((std::bit_cast<uint32_t>(x[0]) | std::bit_cast<uint32_t>(x[n / 2]) |
                   std::bit_cast<uint32_t>(x[n - 1])) &
                  0x7fffffffu) != 0)
        return false;
    uint32_t bits = 0;
    for (int i = 0; i < n; ++i)
        bits |= std::bit_cast<uint32_t>(x[i]) & 0x7fffffffu;
    return bits == 0;
}

// (magnitudes compared as integers, whose order is the floats': non-finite ones count as 0)
CRISP_INLINE float LoudestBody(const float* __restrict a, const float* __restrict b, int n) {
    constexpr uint32_t kInfinite = 0x7f800000u;
    const auto magnitude = [](float x) {
        const uint32_t m = std::bit_cast<uint32_t>(x) & 0x7fffffffu;
        return m < kInfinite ? m : 0u;
    };
    uint32_t part[16] = {};
    int i = 0;
    for (; i + 16 <= n; i += 16)
        for (int j = 0; j < 16; ++j)
            part[j] = std::max(part[j], std::max(magnitude(a[i + j]), magnitude(b[i + j])));
    uint32_t most = 0;
    for (; i < n; ++i)
        most = std::max({most, magnitude(a[i]), magnitude(b[i])});
    for (uint32_t p : part)
        most = std::max(most, p);
    return std::bit_cast<float>(most);
}

// For each byte, the places of its set bits in order, and how many.
struct SetBits {
    unsigned char at[256][8] = {};
    unsigned char count[256] = {};
    constexpr SetBits() {
        for (int m = 0; m < 256; ++m)
            for (int b = 0; b < 8; ++b)
                if (m >> b & 1)
                    at[m][count[m]++] = static_cast<unsigned char>(b);
    }
};
constexpr SetBits kSetBits;

// Flags in vectorised runs, then their bins gathered without branches.
CRISP_INLINE int PeaksBody(const float* __restrict p2, int from, int to, int narrow, float floor,
                           int* __restrict found) {
    constexpr int kBlock = 256;
    unsigned char flag[kBlock];
    int count = 0;
    for (int start = from; start < to; start += kBlock) {
        const int end = std::min(to, start + kBlock);
        for (int k = start; k < end; ++k) {
            const float v = p2[k];
            const bool wide = (v > p2[k - 2]) & (v >= p2[k + 2]);
            flag[k - start] =
                (v > floor) & (v > p2[k - 1]) & (v >= p2[k + 1]) & ((k < narrow) | wide);
        }
        // eight flags a byte of a mask, whose set bits a table lists: no branch, and no chain
        // of one addition a bin
        const int n = end - start;
        std::fill(flag + n, flag + ((n + 7) & ~7), 0);
        for (int j = 0; j < n; j += 8) {
            uint64_t word;
            std::memcpy(&word, flag + j, sizeof word);
            const unsigned mask = unsigned((word * 0x0102040810204080ull) >> 56);
            for (int t = 0; t < 8; ++t)
                found[count + t] = start + j + kSetBits.at[mask][t];
            count += kSetBits.count[mask];
        }
    }
    return count;
}

typedef float Floats8 __attribute__((vector_size(32)));
typedef int Ints8 __attribute__((vector_size(32)));

typedef float Floats4 __attribute__((vector_size(16)));

// zre and zim from `from` to `to` set to (re, im), in runs of eight where the room allows: a run
// past `to` is overwritten by the regions after it. V: the level's vector of eight floats, or of
// four on the baseline, which would build one of eight on the stack.
template <typename V>
CRISP_INLINE void Fill(float* __restrict zre, float* __restrict zim, int from, int to, int room,
                       float re, float im) {
    constexpr int kRun = 8, kLanes = sizeof(V) / sizeof(float);
    const V zero = {}, vr = zero + re, vi = zero + im;
    int j = from;
    for (; j < to && j + kRun <= room; j += kRun)
        for (int t = 0; t < kRun; t += kLanes) {
            std::memcpy(zre + j + t, &vr, sizeof vr);
            std::memcpy(zim + j + t, &vi, sizeof vi);
        }
    for (; j < to; ++j) {
        zre[j] = re;
        zim[j] = im;
    }
}

// The smallest lane of v, in every lane.
template <typename V> CRISP_INLINE V Smallest8(V v) {
    const auto least = [](V a, V b) { return a < b ? a : b; };
    v = least(v, __builtin_shufflevector(v, v, 4, 5, 6, 7, 0, 1, 2, 3));
    v = least(v, __builtin_shufflevector(v, v, 2, 3, 0, 1, 6, 7, 4, 5));
    return least(v, __builtin_shufflevector(v, v, 1, 0, 3, 2, 5, 4, 7, 6));
}

// The first of the lowest bins from `from` up to `until` (from < until); with kWide eight at a
// time while they lie below `bins`. The troughs between two peaks are a few bins wide, of a
// length that changes from one to the next: one of up to eight is taken in a single masked vector
// with no branch on the values, where a scalar search mispredicts its compares and its end.
template <bool kWide>
CRISP_INLINE int Lowest(const float* __restrict p2, int from, int until, int bins) {
    constexpr float kAbove = std::numeric_limits<float>::infinity();
    const Ints8 lane = {0, 1, 2, 3, 4, 5, 6, 7};
    if (kWide && until - from <= 8 && from + 8 <= bins) {
        Floats8 v;
        std::memcpy(&v, p2 + from, sizeof v);
        v = lane < until - from ? v : kAbove;
        const Floats8 least = Smallest8(v);
        return from + Smallest8(v == least ? lane : 8)[0];
    }
    float lowest = kAbove;
    int at = from;
    int j = from;
    for (; kWide && j < until && j + 8 <= bins; j += 8) {
        Floats8 v;
        std::memcpy(&v, p2 + j, sizeof v);
        v = lane < until - j ? v : kAbove;
        const Floats8 least = Smallest8(v);
        if (least[0] < lowest) {
            lowest = least[0];
            at = j + Smallest8(v == least ? lane : 8)[0];
        }
    }
    for (; j < until; ++j)
        if (p2[j] < lowest) {
            lowest = p2[j];
            at = j;
        }
    return at;
}

template <bool kWide>
CRISP_INLINE void RegionsBody(const float* __restrict p2, const int* __restrict at, int n, int bins,
                              int room, const double* __restrict zr, const double* __restrict zi,
                              float* __restrict zre, float* __restrict zim) {
    // The troughs a block of peaks at a time, then the fills: each search stands alone, so
    // that one waits on none before it, as each fill would on the trough that starts it.
    using Run = std::conditional_t<kWide, Floats8, Floats4>;
    constexpr int kBlock = 128;
    int to[kBlock];
    int from = 0;
    for (int start = 0; start < n; start += kBlock) {
        const int count = std::min(kBlock, n - start);
        for (int j = 0; j < count; ++j) {
            const int i = start + j;
            to[j] = i + 1 < n ? Lowest<kWide>(p2, at[i] + 1, at[i + 1], bins) : bins;
        }
        for (int j = 0; j < count; ++j) {
            Fill<Run>(zre, zim, from, to[j], room, static_cast<float>(zr[start + j]),
                      static_cast<float>(zi[start + j]));
            from = to[j];
        }
    }
    Fill<Run>(zre, zim, from, bins, room, 1, 0);
}

CRISP_INLINE void MixBody(const float* __restrict lre, const float* __restrict lim,
                          const float* __restrict rre, const float* __restrict rim,
                          float* __restrict mre, float* __restrict mim, float* __restrict power,
                          int n) {
    for (int k = 0; k < n; ++k) {
        const float re = lre[k] + rre[k], im = lim[k] + rim[k];
        mre[k] = re;
        mim[k] = im;
        power[k] = re * re + im * im;
    }
}

// A bin's own pace over a hop, 2 pi k hop / window, is taken modulo 2 pi in integers, so that
// what is left for the floats stays within a few turns. (A window of three times a power of two
// takes the remainder through its reciprocal, which may leave it a window over: a turn more,
// which the floats take.)
struct Pace {
    explicit Pace(int window)
        : window(window), power((window & (window - 1)) == 0), reciprocal(1.0 / window) {}
    CRISP_INLINE int operator()(int t) const {
        return power ? t & (window - 1) : t - window * static_cast<int>(t * reciprocal);
    }
    int window;
    bool power;
    double reciprocal;
};

// The peaks' values gathered a block at a time into straight runs, which vectorise at every
// level: from[r][at[j]] into to[r][j], j < count, for each of the N arrays.
constexpr int kGather = 64;
template <size_t N>
CRISP_INLINE void Gather(const int* __restrict at, int count, const float* const (&from)[N],
                         float (*__restrict to)[kGather]) {
    for (int j = 0; j < count; ++j) {
        const int k = at[j];
        for (size_t r = 0; r < N; ++r)
            to[r][j] = from[r][k];
    }
}

CRISP_INLINE void TurnsBody(const float* __restrict mre, const float* __restrict mim,
                            const float* __restrict qre, const float* __restrict qim,
                            const float* __restrict yre, const float* __restrict yim,
                            const int* __restrict at, int n, int window, int hop, int synthesis,
                            double* __restrict zre, double* __restrict zim) {
    const float step = float(2 * kPi / window), ratio = float(double(synthesis) / hop);
    const Pace reduce(window);
    int paceIn[kGather], paceOut[kGather];
    float g[6][kGather];
    for (int start = 0; start < n; start += kGather) {
        const int count = std::min(kGather, n - start);
        const int* k = at + start;
        for (int j = 0; j < count; ++j) {
            paceIn[j] = reduce(k[j] * hop);
            paceOut[j] = reduce(k[j] * synthesis);
        }
        Gather<6>(k, count, {mre, mim, qre, qim, yre, yim}, g);
        for (int j = 0; j < count; ++j) {
            const float mr = g[0][j], mi = g[1][j], qr = g[2][j], qi = g[3][j], yr = g[4][j],
                        yi = g[5][j];
            const float m2 = mr * mr + mi * mi, y2 = yr * yr + yi * yi, q2 = qr * qr + qi * qi;
            // (a partial that rises 6 dB or more since the last frame is new: it keeps its own
            // phase, as one the last frame barely held would give it a turn at random)
            const bool turned = (m2 > 0) & (y2 > 0) & (4 * q2 >= m2); // (& vectorises, && not)
            const float expected = step * float(paceIn[j]);
            const float measured = Atan2(mi * qr - mr * qi, mr * qr + mi * qi);
            const float deviation = measured - expected;
            const float advance = step * float(paceOut[j]) + Wrap(deviation) * ratio;
            float s = 0, c = 0;
            SinCos(advance, &s, &c);
            // the last output phase, advanced, less this frame's input phase
            const float norm = 1 / (turned ? std::sqrt(m2) * std::sqrt(y2) : 1.0f);
            const float vr = yr * c - yi * s, vi = yr * s + yi * c;
            zre[start + j] = turned ? (vr * mr + vi * mi) * norm : 1.0f;
            zim[start + j] = turned ? (vi * mr - vr * mi) * norm : 0.0f;
        }
    }
}

CRISP_INLINE void JoinsBody(const float* __restrict mre, const float* __restrict mim,
                            const float* __restrict qre, const float* __restrict qim,
                            const float* __restrict ore, const float* __restrict oim,
                            const int* __restrict at, const int* __restrict other,
                            const float* __restrict turn, int n, int window, int hop, float factor,
                            double* __restrict zre, double* __restrict zim) {
    const float step = float(2 * kPi / window);
    const Pace reduce(window);
    int pace[kGather];
    float sign[kGather], g[6][kGather];
    for (int start = 0; start < n; start += kGather) {
        const int count = std::min(kGather, n - start);
        const int *k = at + start, *o = other + start;
        for (int j = 0; j < count; ++j) {
            pace[j] = reduce(k[j] * hop);
            sign[j] = (o[j] - k[j]) % 2 ? -1.0f : 1.0f; // half a turn a bin between the centres
        }
        Gather<4>(k, count, {mre, mim, qre, qim}, g);
        Gather<2>(o, count, {ore, oim}, g + 4);
        for (int j = 0; j < count; ++j) {
            const float mr = g[0][j], mi = g[1][j], qr = g[2][j], qi = g[3][j], orr = g[4][j],
                        oi = g[5][j];
            const float m2 = mr * mr + mi * mi, q2 = qr * qr + qi * qi, o2 = orr * orr + oi * oi;
            // the frequency measured over the hop where the last frame held the partial, else
            // the bin's own
            const float deviation =
                Atan2(mi * qr - mr * qi, mr * qr + mi * qi) - step * float(pace[j]);
            const float measured = Wrap(deviation);
            const float angle = turn[start + j] + (q2 > 1e-6f * m2 ? measured * factor : 0.0f);
            float s = 0, c = 0;
            SinCos(angle, &s, &c);
            // from this bin's phase to the other's: a product of unit numbers
            const float size = std::sqrt(o2) * std::sqrt(m2);
            const bool unit = size > 0 && size < std::numeric_limits<float>::infinity();
            const float norm = sign[j] / (unit ? size : 1.0f);
            const float dr = (orr * mr + oi * mi) * norm, di = (oi * mr - orr * mi) * norm;
            zre[start + j] = unit ? dr * c - di * s : 1.0f;
            zim[start + j] = unit ? dr * s + di * c : 0.0f;
        }
    }
}

CRISP_INLINE void ApplyBody(const float* __restrict zre, const float* __restrict zim,
                            const float* __restrict mre, const float* __restrict mim,
                            float* __restrict yre, float* __restrict yim, float* __restrict lre,
                            float* __restrict lim, float* __restrict rre, float* __restrict rim,
                            int n) {
    for (int k = 0; k < n; ++k) {
        const float zr = zre[k], zi = zim[k], mr = mre[k], mi = mim[k];
        yre[k] = mr * zr - mi * zi;
        yim[k] = mr * zi + mi * zr;
        float r = lre[k], i = lim[k];
        lre[k] = r * zr - i * zi;
        lim[k] = r * zi + i * zr;
        r = rre[k];
        i = rim[k];
        rre[k] = r * zr - i * zi;
        rim[k] = r * zi + i * zr;
    }
}

CRISP_INLINE void LogMagnitudesBody(const float* __restrict re, const float* __restrict im,
                                    int from, int to, double norm, double compress,
                                    double* __restrict out) {
    const float scale = float(compress * norm);
    for (int k = from; k <= to; ++k)
        out[k] = Log(1 + scale * std::sqrt(re[k] * re[k] + im[k] * im[k]));
}

// Floats in the compiler's own vectors, one register of the level's each, lane by lane.
typedef float Four __attribute__((vector_size(16)));
typedef float Eight __attribute__((vector_size(32)));
typedef float Sixteen __attribute__((vector_size(64)));

template <typename V> CRISP_INLINE V Load(const float* p) {
    V v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// kGroup consecutive outputs of a filter, in vectors of the level's width: out[r] is c[0]
// a[0][at + r], then + c[t] (a[t][at + r] + b[t][at + r]) for 0 < t < n in order (with kPairs;
// without, c[t] a[t][at + r]). The same operations, lane by lane, as one output at a time.
template <typename V, int kGroup, bool kPairs>
CRISP_INLINE void Sums(const float* __restrict c, const float* const* a, const float* const* b,
                       int n, int at, float* __restrict out) {
    constexpr int kLanes = sizeof(V) / sizeof(float), kParts = kGroup / kLanes;
    V part[kParts];
    for (int g = 0; g < kParts; ++g)
        part[g] = c[0] * Load<V>(a[0] + at + g * kLanes);
    for (int t = 1; t < n; ++t)
        for (int g = 0; g < kParts; ++g) {
            const int i = at + g * kLanes;
            part[g] += c[t] * (kPairs ? Load<V>(a[t] + i) + Load<V>(b[t] + i) : Load<V>(a[t] + i));
        }
    std::memcpy(out, part, sizeof part);
}

// Across outputs, from the input dealt out by phase (p[j][q] is x[4 q + j]) so that each tap
// reads consecutive floats; the last group runs on past the outputs into zeros. The channels
// share the list of taps.
template <typename V>
CRISP_INLINE void DecimateBody(const float* __restrict taps, int reach, const float* const* x,
                               int count, float* const* out, int channels) {
    constexpr int kGroup = 32, kBlock = 128, kRoom = kBlock + 17;
    float p[4][kRoom];
    // the taps that are not zero, the centre first, each with its pair of inputs
    float c[33];
    const float *lo[33], *hi[33];
    int n = 0;
    for (int i = 0; i <= reach; ++i)
        if (i == 0 || taps[i] != 0) {
            c[n] = taps[i];
            lo[n] = &p[(reach - i) & 3][(reach - i) >> 2];
            hi[n] = &p[(reach + i) & 3][(reach + i) >> 2];
            ++n;
        }
    for (int o0 = 0; o0 < count; o0 += kBlock) {
        const int b = std::min(kBlock, count - o0), len = 4 * (b - 1) + 2 * reach + 1;
        // (what the last group reads past them)
        const int padded = (b + kGroup - 1) / kGroup * kGroup;
        for (int k = len; k < 4 * (padded - 1) + 2 * reach + 1; ++k)
            p[k & 3][k >> 2] = 0;
        for (int ch = 0; ch < channels; ++ch) {
            const float* __restrict s = x[ch] + 4 * o0;
            int q = 0;
            for (; 4 * q + 3 < len; ++q)
                for (int j = 0; j < 4; ++j)
                    p[j][q] = s[4 * q + j];
            for (int k = 4 * q; k < len; ++k)
                p[k & 3][k >> 2] = s[k];
            for (int r = 0; r < b; r += kGroup) {
                float sums[kGroup];
                Sums<V, kGroup, true>(c, lo, hi, n, r, sums);
                std::memcpy(out[ch] + o0 + r, sums, sizeof(float) * std::min(kGroup, b - r));
            }
        }
    }
}

// By phase, in blocks: the outputs of one phase are every fourth, their inputs consecutive; the
// phases' sums are then dealt back in order and added to out. The channels share the lists of
// taps.
template <typename V>
CRISP_INLINE void UpsampleBody(const float* __restrict phase, int taps, const float* const* x,
                               int j0, int n, float* const* out, int channels) {
    constexpr int kGroup = 32, kBlock = 160, kTaps = 16;
    float in[kTaps - 1 + kBlock], y[4][kBlock], z[4 * kBlock];
    // each phase's taps that are not zero (at least one), with where their inputs start
    float c[4][kTaps];
    const float* a[4][kTaps];
    int count[4] = {};
    for (int j = 0; j < 4; ++j) {
        int t = 0;
        for (int k = 0; k < taps; ++k)
            if (phase[j * taps + k] != 0) {
                c[j][t] = phase[j * taps + k];
                a[j][t++] = in + taps - 1 - k;
            }
        if (t == 0) {
            c[j][0] = 0;
            a[j][t++] = in;
        }
        count[j] = t;
    }
    const int last = (j0 + n - 1) >> 2;
    for (int m0 = 0; m0 <= last; m0 += kBlock) {
        const int b = std::min(kBlock, last + 1 - m0);
        // outputs 4 m0 - j0 on, those that lie within the n
        const int lo = std::max(0, 4 * m0 - j0), hi = std::min(n, 4 * (m0 + b) - j0);
        for (int ch = 0; ch < channels; ++ch) {
            // in[taps - 1 + r - k] = x[m0 + r - k], zeros past the block
            const float* __restrict from = x[ch] + m0;
            for (int i = 0; i < taps - 1 + b; ++i)
                in[i] = from[i - taps + 1];
            for (int i = taps - 1 + b; i < taps - 1 + kBlock; ++i)
                in[i] = 0;
            for (int j = 0; j < 4; ++j)
                for (int r = 0; r < b; r += kGroup)
                    Sums<V, kGroup, false>(c[j], a[j], nullptr, count[j], r, y[j] + r);
            for (int r = 0; r < b; ++r)
                for (int j = 0; j < 4; ++j)
                    z[4 * r + j] = y[j][r];
            float* __restrict to = out[ch];
            for (int i = lo; i < hi; ++i)
                to[i] += z[i + j0 - 4 * m0];
        }
    }
}

// One function per level for each kernel, and a dispatcher that picks one: wide is the body the
// vector levels run, plain the baseline's.
#define CRISP_KERNEL_OF(name, wide, plain, params, args)                                           \
    CRISP_AVX512 void name##512 params {                                                           \
        wide args;                                                                                 \
    }                                                                                              \
    CRISP_AVX2 void name##256 params {                                                             \
        wide args;                                                                                 \
    }                                                                                              \
    void name##Plain params {                                                                      \
        plain args;                                                                                \
    }                                                                                              \
    void name##Any params {                                                                        \
        static const CMorvaneIsa::Level level = CMorvaneIsa::Detected();                           \
        if (level == CMorvaneIsa::Avx512)                                                          \
            name##512 args;                                                                        \
        else if (level == CMorvaneIsa::Avx2)                                                       \
            name##256 args;                                                                        \
        else                                                                                       \
            name##Plain args;                                                                      \
    }
#define CRISP_KERNEL(name, params, args) CRISP_KERNEL_OF(name, name##Body, name##Body, params, args)

CRISP_KERNEL(Mix,
             (const float* lre, const float* lim, const float* rre, const float* rim, float* mre,
              float* mim, float* power, int n),
             (lre, lim, rre, rim, mre, mim, power, n))
CRISP_KERNEL(Turns,
             (const float* mre, const float* mim, const float* qre, const float* qim,
              const float* yre, const float* yim, const int* at, int n, int window, int hop,
              int synthesis, double* zre, double* zim),
             (mre, mim, qre, qim, yre, yim, at, n, window, hop, synthesis, zre, zim))
CRISP_KERNEL(Joins,
             (const float* mre, const float* mim, const float* qre, const float* qim,
              const float* ore, const float* oim, const int* at, const int* other,
              const float* turn, int n, int window, int hop, float factor, double* zre,
              double* zim),
             (mre, mim, qre, qim, ore, oim, at, other, turn, n, window, hop, factor, zre, zim))
CRISP_KERNEL(Apply,
             (const float* zre, const float* zim, const float* mre, const float* mim, float* yre,
              float* yim, float* lre, float* lim, float* rre, float* rim, int n),
             (zre, zim, mre, mim, yre, yim, lre, lim, rre, rim, n))
CRISP_KERNEL_OF(Regions, RegionsBody<true>, RegionsBody<false>,
                (const float* p2, const int* at, int n, int bins, int room, const double* zr,
                 const double* zi, float* zre, float* zim),
                (p2, at, n, bins, room, zr, zi, zre, zim))
CRISP_KERNEL(LogMagnitudes,
             (const float* re, const float* im, int from, int to, double norm, double compress,
              double* out),
             (re, im, from, to, norm, compress, out))

// (each level with vectors of its own width)
CRISP_AVX512 void Decimate512(const float* taps, int reach, const float* const* x, int count,
                              float* const* out, int channels) {
    DecimateBody<Sixteen>(taps, reach, x, count, out, channels);
}
CRISP_AVX2 void Decimate256(const float* taps, int reach, const float* const* x, int count,
                            float* const* out, int channels) {
    DecimateBody<Eight>(taps, reach, x, count, out, channels);
}
void DecimatePlain(const float* taps, int reach, const float* const* x, int count,
                   float* const* out, int channels) {
    DecimateBody<Four>(taps, reach, x, count, out, channels);
}
CRISP_AVX512 void Upsample512(const float* phase, int taps, const float* const* x, int j0, int n,
                              float* const* out, int channels) {
    UpsampleBody<Sixteen>(phase, taps, x, j0, n, out, channels);
}
CRISP_AVX2 void Upsample256(const float* phase, int taps, const float* const* x, int j0, int n,
                            float* const* out, int channels) {
    UpsampleBody<Eight>(phase, taps, x, j0, n, out, channels);
}
void UpsamplePlain(const float* phase, int taps, const float* const* x, int j0, int n,
                   float* const* out, int channels) {
    UpsampleBody<Four>(phase, taps, x, j0, n, out, channels);
}

// (these return a value)
CRISP_AVX512 bool Silent512(const float* x, int n) {
    return SilentBody(x, n);
}
CRISP_AVX2 bool Silent256(const float* x, int n) {
    return SilentBody(x, n);
}
bool SilentPlain(const float* x, int n) {
    return SilentBody(x, n);
}
CRISP_AVX512 float Loudest512(const float* a, const float* b, int n) {
    return LoudestBody(a, b, n);
}
CRISP_AVX2 float Loudest256(const float* a, const float* b, int n) {
    return LoudestBody(a, b, n);
}
float LoudestPlain(const float* a, const float* b, int n) {
    return LoudestBody(a, b, n);
}
CRISP_AVX512 int Peaks512(const float* p2, int from, int to, int narrow, float floor, int* found) {
    return PeaksBody(p2, from, to, narrow, floor, found);
}
CRISP_AVX2 int Peaks256(const float* p2, int from, int to, int narrow, float floor, int* found) {
    return PeaksBody(p2, from, to, narrow, floor, found);
}
int PeaksPlain(const float* p2, int from, int to, int narrow, float floor, int* found) {
    return PeaksBody(p2, from, to, narrow, floor, found);
}

} // namespace

float CCrispKernels::Loudest(const float* a, const float* b, int n) {
    static const CMorvaneIsa::Level level = CMorvaneIsa::Detected();
    return level == CMorvaneIsa::Avx512 ? Loudest512(a, b, n)
           : level == CMorvaneIsa::Avx2 ? Loudest256(a, b, n)
                                        : LoudestPlain(a, b, n);
}

bool CCrispKernels::Silent(const float* x, int n) {
    static const CMorvaneIsa::Level level = CMorvaneIsa::Detected();
    return level == CMorvaneIsa::Avx512 ? Silent512(x, n)
           : level == CMorvaneIsa::Avx2 ? Silent256(x, n)
                                        : SilentPlain(x, n);
}

int CCrispKernels::Peaks(const float* power, int from, int to, int narrow, float floor,
                         int* found) {
    static const CMorvaneIsa::Level level = CMorvaneIsa::Detected();
    return level == CMorvaneIsa::Avx512 ? Peaks512(power, from, to, narrow, floor, found)
           : level == CMorvaneIsa::Avx2 ? Peaks256(power, from, to, narrow, floor, found)
                                        : PeaksPlain(power, from, to, narrow, floor, found);
}

void CCrispKernels::Decimate(const float* taps, int reach, const float* const* x, int count,
                             float* const* out, int channels) {
    static const CMorvaneIsa::Level level = CMorvaneIsa::Detected();
    if (level == CMorvaneIsa::Avx512)
        Decimate512(taps, reach, x, count, out, channels);
    else if (level == CMorvaneIsa::Avx2)
        Decimate256(taps, reach, x, count, out, channels);
    else
        DecimatePlain(taps, reach, x, count, out, channels);
}

void CCrispKernels::Mix(const float* lre, const float* lim, const float* rre, const float* rim,
                        float* mre, float* mim, float* power, int n) {
    MixAny(lre, lim, rre, rim, mre, mim, power, n);
}

void CCrispKernels::Turns(const float* mre, const float* mim, const float* qre, const float* qim,
                          const float* yre, const float* yim, const int* at, int n, int window,
                          int hop, int synthesis, double* zre, double* zim) {
    TurnsAny(mre, mim, qre, qim, yre, yim, at, n, window, hop, synthesis, zre, zim);
}

void CCrispKernels::Joins(const float* mre, const float* mim, const float* qre, const float* qim,
                          const float* ore, const float* oim, const int* at, const int* other,
                          const float* turn, int n, int window, int hop, float factor, double* zre,
                          double* zim) {
    JoinsAny(mre, mim, qre, qim, ore, oim, at, other, turn, n, window, hop, factor, zre, zim);
}

void CCrispKernels::Apply(const float* zre, const float* zim, const float* mre, const float* mim,
                          float* yre, float* yim, float* lre, float* lim, float* rre, float* rim,
                          int n) {
    ApplyAny(zre, zim, mre, mim, yre, yim, lre, lim, rre, rim, n);
}

void CCrispKernels::Regions(const float* power, const int* at, int n, int bins, int room,
                            const double* zr, const double* zi, float* zre, float* zim) {
    RegionsAny(power, at, n, bins, room, zr, zi, zre, zim);
}

void CCrispKernels::Upsample(const float* phase, int taps, const float* const* x, int j0, int n,
                             float* const* out, int channels) {
    static const CMorvaneIsa::Level level = CMorvaneIsa::Detected();
    if (level == CMorvaneIsa::Avx512)
        Upsample512(phase, taps, x, j0, n, out, channels);
    else if (level == CMorvaneIsa::Avx2)
        Upsample256(phase, taps, x, j0, n, out, channels);
    else
        UpsamplePlain(phase, taps, x, j0, n, out, channels);
}

void CCrispKernels::LogMagnitudes(const float* re, const float* im, int from, int to, double norm,
                                  double compress, double* out) {
    LogMagnitudesAny(re, im, from, to, norm, compress, out);
}
