#include "CMorvaneBlock.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "Intrinsics.h"

#include "Scale16.h"

namespace {

// out[i] = (i * to[i] + (n - i) * from[i]) / n in float, four at a time where SSE2 is there (the
// same operations, each rounded once).
void CrossFade(float* out, const float* to, const float* from, int n) {
    int i = 0;
#if defined(__SSE2__)
    const __m128 total = _mm_set1_ps(static_cast<float>(n));
    __m128i k = _mm_setr_epi32(0, 1, 2, 3);
    for (; i + 4 <= n; i += 4) {
        const __m128 up = _mm_cvtepi32_ps(k);
        const __m128 down = _mm_cvtepi32_ps(_mm_sub_epi32(_mm_set1_epi32(n), k));
        const __m128 sum = _mm_add_ps(_mm_mul_ps(up, _mm_loadu_ps(to + i)),
                                      _mm_mul_ps(down, _mm_loadu_ps(from + i)));
        _mm_storeu_ps(out + i, _mm_div_ps(sum, total));
        k = _mm_add_epi32(k, _mm_set1_epi32(4));
    }
#endif
    for (; i < n; ++i)
        out[i] = (static_cast<float>(i) * to[i] + static_cast<float>(n - i) * from[i]) /
                 static_cast<float>(n);
}

// CrossFade's n interleaved stereo samples, each channel into its own run: the same operations
// on the same samples, each rounded once.
void CrossFadeApart(float* left, float* right, const float* to, const float* from, int n) {
    int j = 0;
#if defined(__SSE2__)
    const __m128 total = _mm_set1_ps(static_cast<float>(n));
    const __m128i all = _mm_set1_epi32(n);
    __m128i k = _mm_setr_epi32(0, 2, 4, 6); // the left samples' places
    for (; j + 8 <= n; j += 8) {
        const __m128 t0 = _mm_loadu_ps(to + j), t1 = _mm_loadu_ps(to + j + 4);
        const __m128 f0 = _mm_loadu_ps(from + j), f1 = _mm_loadu_ps(from + j + 4);
        for (int c = 0; c < 2; ++c) {
            const __m128i at = _mm_add_epi32(k, _mm_set1_epi32(c));
            const __m128 t = c ? _mm_shuffle_ps(t0, t1, _MM_SHUFFLE(3, 1, 3, 1))
                               : _mm_shuffle_ps(t0, t1, _MM_SHUFFLE(2, 0, 2, 0));
            const __m128 f = c ? _mm_shuffle_ps(f0, f1, _MM_SHUFFLE(3, 1, 3, 1))
                               : _mm_shuffle_ps(f0, f1, _MM_SHUFFLE(2, 0, 2, 0));
            const __m128 sum = _mm_add_ps(_mm_mul_ps(_mm_cvtepi32_ps(at), t),
                                          _mm_mul_ps(_mm_cvtepi32_ps(_mm_sub_epi32(all, at)), f));
            _mm_storeu_ps((c ? right : left) + j / 2, _mm_div_ps(sum, total));
        }
        k = _mm_add_epi32(k, _mm_set1_epi32(8));
    }
#endif
    for (; j < n; ++j) {
        const float v = (static_cast<float>(j) * to[j] + static_cast<float>(n - j) * from[j]) /
                        static_cast<float>(n);
        if (j & 1)
            right[j / 2] = v;
        else
            left[j / 2] = v;
    }
}

// frames stereo frames from in, a channel to each run.
void CopyApart(float* left, float* right, const float* in, long frames) {
    long i = 0;
#if defined(__SSE2__)
    for (; i + 4 <= frames; i += 4) {
        const __m128 a = _mm_loadu_ps(in + 2 * i), b = _mm_loadu_ps(in + 2 * i + 4);
        _mm_storeu_ps(left + i, _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)));
        _mm_storeu_ps(right + i, _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
    }
#endif
    for (; i < frames; ++i) {
        left[i] = in[2 * i];
        right[i] = in[2 * i + 1];
    }
}

uint64_t MagnitudeSum(const float* x, int from, int n) {
    uint64_t sum = 0;
    for (int i = from; i < n; ++i)
        sum += Scale16::Magnitude(x[i]);
    return sum;
}

// The same four at a time: the same double operations, then the integers added in any order.
__attribute__((target("avx2"))) uint64_t MagnitudeSumAvx2(const float* x, int n) {
    const __m256d scale = _mm256_set1_pd(32768.0);
    const __m256d half = _mm256_set1_pd(0.5);
    const __m256d limit = _mm256_set1_pd(Scale16::kLimit);
    const __m256d magnitude = _mm256_castsi256_pd(_mm256_set1_epi64x(0x7FFFFFFFFFFFFFFF));
    __m256i sum = _mm256_setzero_si256();
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m256d v = _mm256_add_pd(
            _mm256_mul_pd(_mm256_and_pd(_mm256_cvtps_pd(_mm_loadu_ps(x + i)), magnitude), scale),
            half);
        const __m256d inside = _mm256_cmp_pd(v, limit, _CMP_LT_OQ);
        const __m256d number = _mm256_cmp_pd(v, v, _CMP_ORD_Q);
        const __m256d r = _mm256_or_pd(_mm256_and_pd(inside, v),
                                       _mm256_andnot_pd(inside, _mm256_and_pd(number, limit)));
        sum = _mm256_add_epi64(sum, _mm256_cvtepu32_epi64(_mm256_cvttpd_epi32(r)));
    }
    alignas(32) uint64_t lanes[4];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), sum);
    return lanes[0] + lanes[1] + lanes[2] + lanes[3] + MagnitudeSum(x, i, n);
}

} // namespace

CMorvaneBlock::CMorvaneBlock() : m_pPartial(CMorvaneCorrelate::kCapacity) {}

CMorvaneBlock::~CMorvaneBlock() = default;

unsigned int CMorvaneBlock::sqr(unsigned int v) {
    unsigned int b = 1u << 30;
    while (b > v)
        b >>= 2;
    unsigned int r = 0;
    for (; b != 0; b >>= 2) {
        if (v >= (r | b)) {
            v -= r | b;
            r = (r >> 1) | b;
        } else {
            r >>= 1;
        }
    }
    return r;
}

int CMorvaneBlock::NominalLength(int rate) {
    return static_cast<int>(rate * kFrameMs / 1000 * 1.8);
}

long CMorvaneBlock::HistoryOf(const float* in, int ch) const {
    return m_pBufTop ? (in - m_pBufTop) / ch : 0;
}

int CMorvaneBlock::LongestInside(int inLen, long history, const mvArg* arg) {
    // stretch's end-aligned source starts at inLen - outLen + trunc(outLen x head share), which
    // must not lie more than history frames before the sub-block.
    const long reach = inLen + history;
    const auto start = [&](long o) { return o - static_cast<long>(o * arg->dHeadRatio); };
    long o = static_cast<long>(reach / std::max(1.0 - arg->dHeadRatio, 0.01)) + 1;
    while (o > 0 && start(o) > reach)
        --o;
    return static_cast<int>(std::min<long>(o, INT32_MAX));
}

int CMorvaneBlock::Block(float* out, float* in, int frames, mvArg* arg) {
    return Plan(Out{out, nullptr}, in, frames, arg);
}

int CMorvaneBlock::Block(float* left, float* right, float* in, int frames, mvArg* arg) {
    return Plan(Out{left, right}, in, frames, arg);
}

int CMorvaneBlock::Plan(Out out, float* in, int frames, mvArg* arg) {
    Begin(in, frames, arg);
    return Next(out, arg, 0);
}

int CMorvaneBlock::Next(float* left, float* right, mvArg* arg, int most) {
    return Next(Out{left, right}, arg, most);
}

void CMorvaneBlock::Begin(float* in, int frames, mvArg* arg) {
    const int L = frames;
    const double f = arg->dStretch;
    const int ch = arg->nChannels;

    // Without a sub-block length (low-sound option off) the change is still spread over pieces
    // of the nominal length: one piece for a whole segment would be stretched far beyond the
    // history its splice may reach.
    const bool plain = arg->nSubBlockLen <= 0;
    int S = plain ? NominalLength(arg->nSampleRate) : arg->nSubBlockLen;
    if (f <= 1.0)
        S = static_cast<int>(S / f); // shortening works on longer input sub-blocks

    const int T = static_cast<int>(L * f) + m_nCarry;
    m_nCarry = T;

    // The count never exceeds the weight table.
    int nr = S > 0 ? (S / 2 + L) / S : 1;
    nr = std::min(nr, kMaxSubBlocks);
    const int n = std::max(1, nr);
    int D = (T - L) / n;

    // Weights are 32-bit as stored, but every product with a frame count is taken in 64 bits:
    // with a full-scale square wave beside silence a weight reaches 65536.
    int32_t* w = m_Run.w;
    std::fill(w, w + kMaxSubBlocks, 0);
    int64_t W = 0;
    bool useW = arg->bWeighted != 0;
    if (n == 2) {
        w[0] = w[1] = 1;
        W = 2;
    } else if (n == 1) {
        W = 1;
    } else {
        const int s = L / n;
        uint32_t level[kMaxSubBlocks];
        uint32_t A = 0;
        for (int k = 0; k < n; ++k) {
            const float* p = in + static_cast<long>(k) * s * ch;
            const uint64_t sum = m_Correlate.UsedIsa() != CMorvaneIsa::Baseline
                                     ? MagnitudeSumAvx2(p, s * ch)
                                     : MagnitudeSum(p, 0, s * ch);
            const uint64_t mean = s > 0 ? sum / static_cast<uint64_t>(s) : 0;
            level[k] = sqr(static_cast<unsigned int>(std::min<uint64_t>(mean, 0xFFFFFFFFu)));
            A = std::max(A, level[k]);
        }
        for (int k = 0; k < n; ++k) {
            const int64_t d = A - level[k];
            w[k] = static_cast<int32_t>(std::min<int64_t>(d * d, INT32_MAX));
            W += w[k];
        }
        if (A == 0 || W == 0) {
            useW = false;
        } else if (f < 1.0) {
            // Flatten the weights so that no sub-block loses more than 7/8 of its length.
            const int64_t d = L - T;
            const int64_t lim = static_cast<int64_t>(s) * 7 / 8;
            for (int k = 0; k < n; ++k) {
                const int64_t den = d - lim * n;
                if (w[k] * d / W > lim && den != 0) {
                    const int64_t add = (W * lim - w[k] * d) / den;
                    for (int j = 0; j < n; ++j)
                        w[j] = static_cast<int32_t>(
                            std::clamp<int64_t>(w[j] + add, INT32_MIN, INT32_MAX));
                    W += n * add;
                }
            }
        } else {
            // The first and last sub-blocks border onsets: cap what they take.
            D = 2 * D / n;
            const int64_t c = 2 * W / (nr > 0 ? int64_t{nr} * nr : 1);
            for (int k : {0, n - 1}) {
                if (w[k] > c) {
                    const int64_t e = w[k] - c;
                    for (int j = 1; j <= n - 2; ++j)
                        w[j] =
                            static_cast<int32_t>(std::min<int64_t>(w[j] + e / (n - 2), INT32_MAX));
                    w[k] = static_cast<int32_t>(c);
                }
            }
        }
    }
    m_bLastSub = 0;
    if (n != 2 && W == 0)
        W = 1;

    // One sub-block taking more than 70 % of the change would be audible: spread evenly.
    int64_t total = 0;
    for (int k = 0; k < n; ++k)
        total += w[k];
    const int64_t most = static_cast<int64_t>(0.7 * static_cast<float>(total));
    for (int k = 0; k < n; ++k)
        if (w[k] > most)
            useW = false;
    if (arg->bFinal)
        useW = false;

    m_Run.in = in;
    m_Run.n = n;
    m_Run.k = 0;
    m_Run.D = D;
    m_Run.W = W;
    m_Run.useW = useW;
    m_Run.plain = plain;
    m_Run.RI = L;
    m_Run.RT = T;
    m_Run.pi = 0;
    m_nPlan = 0;
}

int CMorvaneBlock::Next(Out out, mvArg* arg, int most) {
    const int ch = arg->nChannels;
    Run& r = m_Run;
    const int32_t* w = r.w;
    const int n = r.n;
    int po = 0;
    for (; r.k < n && (most <= 0 || po < most); ++r.k) {
        const int k = r.k;
        const int l = r.RI / (n - k);
        int o;
        if (k == n - 1) {
            m_bLastSub = 1;
            o = r.RT;
        } else if (r.useW) {
            o = l + static_cast<int>(int64_t{r.RT - r.RI} * w[k] / r.W);
        } else if (k == 0) {
            o = l + r.D;
        } else {
            o = l + (r.RT - (r.RI + r.D)) / (n - k - 1);
        }
        if (o < 0)
            continue; // its input passes to the following sub-blocks
        // In the low-sound-off mode no piece may reach outside the buffer (and end in silence):
        // what it cannot take is carried to the pieces after it.
        float* in = r.in + static_cast<long>(r.pi) * ch;
        if (r.plain)
            o = std::min(o, LongestInside(l, HistoryOf(in, ch), arg));

        const int got = Splice(out.At(po, ch), in, l, o, arg);
        m_Plan[m_nPlan++] = SubBlock{l, o, got - o};
        m_nCarry -= got;
        r.RT = m_nCarry;
        r.W -= w[k];
        if (r.W <= 0)
            r.useW = false;
        r.pi += l;
        r.RI -= l;
        po += got;
    }
    return po;
}

int64_t CMorvaneBlock::Correlate(const float* a, const float* b, int samples) const {
    int64_t sum = 0;
    for (int i = 0; i < samples; ++i)
        sum += (int64_t{Scale16::Round(a[i])} * Scale16::Round(b[i])) >> 20;
    return sum;
}

// The lag from -back to fwd - 1 whose score ((span - |lag|) >> 4) x R(lag) is the first to be
// strictly greater than every earlier one, starting from 0 at lag 0: only a positive score moves
// it, and ties keep the earlier (more negative) lag. That is the earliest lag with the highest
// score, when that score is positive, and lag 0 otherwise.
int CMorvaneBlock::SearchLag(const float* start, const float* E, int back, int fwd, int span, int m,
                             int ch) {
    const int samples = m * ch;
    // frames from the first lag's start to the last lag's end: no more than the search reads
    const long region = std::max(0L, static_cast<long>(back) + fwd + m - 1) * ch;
    const bool rounded = region <= CMorvaneCorrelate::kCapacity && samples >= 0 &&
                         m_Correlate.Load(start - static_cast<long>(back) * ch,
                                          static_cast<int>(region), E, samples);
    if (rounded && back + fwd > 0 && m_Correlate.EnergyB(0, samples) > 0)
        return PrunedSearch(back, fwd, span, samples, ch);

    int64_t best = 0;
    int g = 0;
    int64_t R[kLagChunk];
    for (int lag0 = -back; lag0 < fwd; lag0 += kLagChunk) {
        const int count = std::min(kLagChunk, fwd - lag0);
        if (rounded) {
            m_Correlate.Lags(lag0 + back, count, ch, R);
        } else {
            for (int j = 0; j < count; ++j)
                R[j] = Correlate(start + static_cast<long>(lag0 + j) * ch, E, samples);
        }
        for (int j = 0; j < count; ++j) {
            const int lag = lag0 + j;
            const int64_t score = int64_t{(span - std::abs(lag)) >> 4} * R[j];
            if (score > best) {
                best = score;
                g = lag;
            }
        }
    }
    return g;
}

// The same answer with less work. The sums over the pattern's first quarter come first, for all
// lags; one lag with a high partial score is finished, which gives a score to beat. Then the lags
// go on in groups, quarter by quarter, and a group stops as soon as none of its lags can reach
// that score even if the rest of its sum were as large as Cauchy-Schwarz allows. A group stopped
// can neither beat the best score nor tie it from an earlier lag, so the answer is unchanged.
int CMorvaneBlock::PrunedSearch(int back, int fwd, int span, int samples, int ch) {
    const int lags = back + fwd; // index j is lag j - back
    int stage[kStages + 1];
    for (int s = 0; s <= kStages; ++s) // quarters, whole vectors where possible
        stage[s] = s == kStages ? samples : static_cast<int>(int64_t{samples} * s / kStages) & ~31;
    double restB[kStages + 1]; // energy of the pattern from each stage on
    for (int s = 0; s <= kStages; ++s)
        restB[s] = m_Correlate.EnergyB(stage[s], samples);

    const auto weight = [&](int j) { return int64_t{(span - std::abs(j - back)) >> 4}; };
    int64_t best = 0;
    int g = 0;
    // Whether any of lags [j0, j0 + count), with partial sums R[j] after stages [0, s), may
    // still beat the best score or tie it from an earlier lag: its weight times its partial sum
    // plus the most the rest of the sum can add (Cauchy-Schwarz over all the samples the group
    // still reads). A negative weight turns the bound around: such lags always go on.
    const auto open = [&](const int64_t* R, int j0, int count, int s) {
        const long from = static_cast<long>(j0) * ch + stage[s];
        const long to = static_cast<long>(j0 + count - 1) * ch + samples;
        const double e = std::sqrt(m_Correlate.EnergyA(from, to) * restB[s]) * 0x1p-20;
        const int64_t rest = static_cast<int64_t>(e) + 2; // the 2 covers the rounding above
        for (int j = j0; j < j0 + count; ++j) {
            const int64_t w = weight(j);
            const int64_t most = w * (R[j] + rest);
            if (w < 0 || most > best || (most == best && j < g))
                return true;
        }
        return false;
    };

    int64_t* R = m_pPartial;
    for (int j0 = 0; j0 < lags; j0 += kLagChunk)
        m_Correlate.Lags(j0, std::min(kLagChunk, lags - j0), ch, stage[0], stage[1], R + j0);

    int pick = 0;
    int64_t top = weight(0) * R[0];
    for (int j = 1; j < lags; ++j) {
        const int64_t score = weight(j) * R[j];
        if (score > top) {
            top = score;
            pick = j;
        }
    }
    int64_t rest = 0;
    m_Correlate.Lags(pick, 1, ch, stage[1], samples, &rest);
    best = weight(pick) * (R[pick] + rest);
    g = pick;

    for (int j0 = 0; j0 < lags; j0 += kGroup) {
        const int count = std::min(kGroup, lags - j0);
        int s = 1;
        for (; s < kStages && open(R, j0, count, s); ++s) {
            int64_t part[kGroup];
            m_Correlate.Lags(j0, count, ch, stage[s], stage[s + 1], part);
            for (int j = 0; j < count; ++j)
                R[j0 + j] += part[j];
        }
        if (s < kStages)
            continue; // stopped early
        for (int j = j0; j < j0 + count; ++j) {
            const int64_t score = weight(j) * R[j];
            if (score > best || (score == best && j < g)) {
                best = score;
                g = j;
            }
        }
    }
    return best > 0 ? g - back : 0;
}

int CMorvaneBlock::stretch(float* out, float* in, int inLen, int outLen, mvArg* arg, float*) {
    return Splice(Out{out, nullptr}, in, inLen, outLen, arg);
}

int CMorvaneBlock::Splice(Out out, float* in, int inLen, int outLen, mvArg* arg) {
    const int ch = arg->nChannels;
    const bool apart = out.right != nullptr && ch == 2;
    const int h = static_cast<int>(outLen * arg->dHeadRatio);
    const int t = static_cast<int>(outLen * arg->dTailRatio);
    const int m = outLen - h - t;

    // The end-aligned source ends where this sub-block's input ends. When lengthening at the
    // very start of a job it would begin before the buffer: then there is nothing to match,
    // and the tail becomes silence.
    long e0 = static_cast<long>(inLen) - outLen + h;
    const bool outside = e0 < -HistoryOf(in, ch);
    if (outside)
        e0 = std::max(0, inLen - t);
    const float* E = in + e0 * ch;

    int g = 0;
    if (arg->dStretch != 1.0 && !outside)
        g = SearchLag(in + static_cast<long>(h) * ch, E,
                      static_cast<int>(outLen * arg->dSearchBack),
                      static_cast<int>(outLen * arg->dSearchFwd),
                      static_cast<int>(outLen * arg->dLagWeight), m, ch);

    const int head = h + g;
    if (apart)
        CopyApart(out.left, out.right, in, std::max(0, head));
    else
        std::memmove(out.left, in, sizeof(float) * static_cast<size_t>(std::max(0, head) * ch));

    // The fade weights step per interleaved sample, not per frame.
    const int N = (m - g) * ch;
    const Out fade = out.At(head, ch);
    const float* start = in + static_cast<long>(head) * ch;
    if (apart)
        CrossFadeApart(fade.left, fade.right, E, start, N);
    else
        CrossFade(fade.left, E, start, N);

    const int tailFrames = t + g;
    if (tailFrames > 0) {
        const Out tail = out.At(outLen - t, ch);
        const size_t samples = static_cast<size_t>(tailFrames) * ch;
        if (outside) {
            if (apart) {
                std::fill(tail.left, tail.left + tailFrames, 0.0f);
                std::fill(tail.right, tail.right + tailFrames, 0.0f);
            } else {
                std::memset(tail.left, 0, sizeof(float) * samples);
            }
            const float* begin = in;
            const float* end = in + static_cast<long>(std::max(inLen, 0)) * ch;
            if (std::any_of(begin, end, [](float x) { return x != 0.0f; }))
                m_nSilenced += tailFrames;
        } else if (apart) {
            CopyApart(tail.left, tail.right, E + std::max(N, 0), tailFrames);
        } else {
            std::memmove(tail.left, E + std::max(N, 0), sizeof(float) * samples);
        }
    }
    return outLen + g;
}
