#include "CMorvaneResample.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// The table holds 8 entries per tap, so the sinc's argument steps by pi / 8 an entry.
constexpr double kPiOver8 = M_PI * 0.125;

// Splits interleaved stereo frames into the two channels with the level applied, noting any
// overs, four frames at a time; returns the frames done (the rest are the caller's).
int SplitStereo(const float* in, int frames, float level, float* left, float* right, mvArg* arg) {
    int i = 0;
#if defined(__SSE2__)
    const __m128 g = _mm_set1_ps(level);
    const __m128 one = _mm_set1_ps(1.0f);
    __m128 over = _mm_setzero_ps();
    for (; i + 4 <= frames; i += 4) {
        const __m128 a = _mm_loadu_ps(in + 2 * i);     // L0 R0 L1 R1
        const __m128 b = _mm_loadu_ps(in + 2 * i + 4); // L2 R2 L3 R3
        const __m128 l = _mm_mul_ps(_mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)), g);
        const __m128 r = _mm_mul_ps(_mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)), g);
        _mm_storeu_ps(left + i, l);
        _mm_storeu_ps(right + i, r);
        over = _mm_or_ps(over, _mm_or_ps(_mm_cmpgt_ps(l, one), _mm_cmpgt_ps(r, one)));
    }
    if (_mm_movemask_ps(over) != 0)
        arg->bOver = 1;
#else
    (void)in, (void)frames, (void)level, (void)left, (void)right, (void)arg;
#endif
    return i;
}

// dst = src * level, noting any overs.
void ScaleInto(const float* src, int n, float level, float* dst, mvArg* arg) {
    int i = 0;
#if defined(__SSE2__)
    const __m128 g = _mm_set1_ps(level);
    const __m128 one = _mm_set1_ps(1.0f);
    __m128 over = _mm_setzero_ps();
    for (; i + 4 <= n; i += 4) {
        const __m128 a = _mm_mul_ps(_mm_loadu_ps(src + i), g);
        _mm_storeu_ps(dst + i, a);
        over = _mm_or_ps(over, _mm_cmpgt_ps(a, one));
    }
    if (_mm_movemask_ps(over) != 0)
        arg->bOver = 1;
#endif
    for (; i < n; ++i) {
        dst[i] = src[i] * level;
        if (dst[i] > 1.0f)
            arg->bOver = 1;
    }
}

// The Kaiser window of a design, w[k] for k = 0 .. M. Its Bessel series costs 40 pow calls a
// point, and every job designs a filter or two; there are only a couple of distinct windows in
// a process, so each is computed once and shared by every instance and thread.
const std::vector<double>& KaiserWindow(double beta, int M) {
    static std::mutex lock;
    static std::map<std::pair<double, int>, std::vector<double>> windows;
    std::lock_guard guard(lock);
    std::vector<double>& w = windows[{beta, M}];
    if (w.empty()) {
        w.resize(static_cast<size_t>(M) + 1);
        const double i0Beta = CMorvaneResample::I0(beta);
        for (int k = 1; k <= M; ++k) {
            const double r = static_cast<double>(k) / M;
            w[k] = CMorvaneResample::I0(beta * std::sqrt(1.0 - r * r)) / i0Beta;
        }
    }
    return w; // map nodes stay put, and entries are never removed
}

} // namespace

int CMorvaneResample::IniResample(double ratio, int attenuation, double transition, double, bool) {
    const int taps = TapsFor(attenuation, transition);
    m_bDesignDue = true;
    m_dDueRatio = ratio;
    m_nDueAttenuation = attenuation;
    m_dDueTransition = transition;
    m_nHistory = taps - 1;
    m_nHalf = (taps - 1) / 2;
    m_dPos = 0.0;
    return m_nHistory;
}

void CMorvaneResample::Design() {
    if (m_bDesignDue) {
        m_bDesignDue = false;
        makeFIR(m_dDueRatio, m_nDueAttenuation, m_dDueTransition);
    }
}

int CMorvaneResample::TapsFor(int attenuation, double transition) {
    const int R = RawLength(attenuation, transition);
    return R > kMaxTaps ? kMaxTaps : (R | 1);
}

int CMorvaneResample::RawLength(int attenuation, double transition) {
    const double x =
        attenuation <= 21 ? 0.9222 / transition : (attenuation - 7.95) / (14.36 * transition);
    return static_cast<int>(std::ceil(x + 1.0));
}

double CMorvaneResample::KaiserBeta(int attenuation) {
    if (attenuation < 22)
        return 0.0;
    if (attenuation > 49) // 50 dB already takes the upper formula
        return 0.1102 * (attenuation - 8.7);
    return 0.5842 * std::pow(attenuation - 21, 0.4) + 0.07886 * (attenuation - 21);
}

double CMorvaneResample::I0(double x) {
    // The factorial is accumulated in a 32-bit signed integer and wraps from 13! on. This is
    // deliberate: the wrapped terms dominate the series for the betas used here and shape the
    // window, so every table depends on it.
    double sum = 1.0;
    int32_t factorial = 1;
    for (int j = 1; j <= 20; ++j) {
        factorial =
            static_cast<int32_t>(static_cast<uint32_t>(factorial) * static_cast<uint32_t>(j));
        const double term = std::pow(x / 2, j) / static_cast<double>(factorial);
        sum += term * term;
    }
    return sum;
}

int CMorvaneResample::makeFIR(double ratio, int attenuation, double transition, double, bool) {
    const double fc = ratio < 1.0 ? 1.0 : 1.0 / ratio;
    const double cutoff = fc - transition;

    const int taps = TapsFor(attenuation, transition);
    const double beta = KaiserBeta(attenuation);
    m_bDesignDue = false; // (a design asked for here replaces one waiting)
    const int M = 4 * taps;
    // Hosts set the rates again and again between jobs; the same design leaves the table as it is.
    if (m_nDesignTaps == taps && m_dDesignCutoff == cutoff && m_dDesignBeta == beta)
        return taps;
    const std::vector<double>& window = KaiserWindow(beta, M);

    std::memset(m_Table, 0, sizeof(m_Table));
    m_Table[M] = static_cast<int16_t>(static_cast<int32_t>(32768 * cutoff));
    for (int k = 1; k <= M; ++k) {
        const double w = window[k];
        const double h = std::sin(k * cutoff * M_PI * 0.125) / (k * kPiOver8);
        // Truncated toward zero, then the low 16 bits.
        const int16_t c = static_cast<int16_t>(static_cast<int32_t>(w * h * 32768));
        m_Table[M + k] = c;
        m_Table[M - k] = c;
    }
    m_Interpolator.Prepare(m_Table, kTableSize);
    m_nDesignTaps = taps;
    m_dDesignCutoff = cutoff;
    m_dDesignBeta = beta;
    return taps;
}

int CMorvaneResample::ScaleInPlace(float** out, int n, mvArg* arg) {
    if (n < 1)
        return 0;
    for (int c = 0; c < 2; ++c)
        ScaleInto(out[c], n, arg->fOutputLevel, out[c], arg);
    return n;
}

int CMorvaneResample::Resample(float** out, float* in, int n, mvArg* arg, bool preserve) {
    const int ch = arg->nChannels;
    const float level = arg->fOutputLevel;
    const double ratio = arg->dPitchRate;

    if (PassesThrough(arg, preserve)) {
        if (n < 1)
            return 0;
        int i = ch == 2 ? SplitStereo(in, n, level, out[0], out[1], arg) : 0;
        for (; i < n; ++i) {
            const float a = in[static_cast<long>(i) * ch] * level;
            out[0][i] = a;
            if (a > 1.0f)
                arg->bOver = 1;
            if (ch == 2) {
                const float b = in[static_cast<long>(i) * ch + 1] * level;
                out[1][i] = b;
                if (b > 1.0f)
                    arg->bOver = 1;
            }
        }
        return n;
    }

    Design(); // (a stream passed through never reads the table)
    const int half = m_nHalf;
    double limit;
    if (arg->bLastSegment) {
        std::memset(in + static_cast<long>(n) * ch, 0, sizeof(float) * half * ch);
        limit = n - 0.5;
    } else {
        limit = (n - half) - 0.5;
    }
    // A read step that does not advance would never reach the limit.
    if (!(limit > m_dPos) || !(ratio > 0.0)) {
        m_dPos -= n;
        return 0;
    }

    const int taps = 2 * half + 1;
    // Stereo goes through the vector kernels, several frames at a time, wherever every sample
    // they read is exact there; the samples are checked once each, as the reads move on. Without
    // them (the baseline) exact stereo frames still add in single precision, both channels at
    // once.
    const bool vectors = ch == 2 && m_Interpolator.Available();
    const int batch = ch == 2 ? CMorvaneInterpolator::kBatch : 1;
    long checked = LONG_MIN; // samples before in[checked] have been found exact
    if (vectors)             // history in front; the zeroed frames after a last segment
        m_Interpolator.Source(in - static_cast<long>(m_nHistory) * ch,
                              in + static_cast<long>(arg->bLastSegment ? n + half : n) * ch);
    int k = 0;
    double pos = m_dPos;
    while (limit > pos) {
        CMorvaneInterpolator::Point points[CMorvaneInterpolator::kBatch];
        int count = 0;
        for (; count < batch && limit > pos; ++count) {
            // The position is split by truncation toward zero, also below zero, where the first
            // frames of every block read back into the history. There the phase is negative
            // and the table segment next to the wanted one is extended rather than
            // interpolated. This is the defined behaviour; floor() would give other numbers.
            const int ip = static_cast<int>(pos);
            const double f8 = (pos - ip) * 8.0;
            const int phase = static_cast<int>(f8);
            const int shift = phase > 3 ? 1 : 0;
            points[count] = {in + static_cast<long>(ip - half + shift) * ch, 8 * shift + 3 - phase,
                             static_cast<int32_t>((f8 - phase) * 32768.0)};
            pos += ratio;
        }

        float left[CMorvaneInterpolator::kBatch];
        float right[CMorvaneInterpolator::kBatch];
        bool done = false;
        if (ch == 2) {
            const long from = std::max(points[0].x - in, checked);
            const long to = points[count - 1].x - in + static_cast<long>(taps) * ch;
            const bool exact = from >= to || CMorvaneInterpolator::Exact(in + from, to - from);
            if (exact) {
                checked = std::max(checked, to);
                done = vectors ? m_Interpolator.Run(points, count, taps, left, right)
                               : PlainStereo(points, count, taps, left, right);
            }
        }
        if (!done) {
            for (int i = 0; i < count; ++i)
                Plain(points[i], taps, ch, left + i, right + i);
        }
        ScaleInto(left, count, level, out[0] + k, arg);
        if (ch == 2)
            ScaleInto(right, count, level, out[1] + k, arg);
        k += count;
    }
    m_dPos = pos - n;
    return k;
}

bool CMorvaneResample::PlainStereo(const CMorvaneInterpolator::Point* points, int count, int taps,
                                   float* left, float* right) const {
#if defined(__SSE2__)
    // Two frames a vector, (left, right) of each, and two vectors in flight, so that four
    // running sums advance at once. Each is the plain sum: the coefficient as the plain loop
    // makes it, scaled by 2^-15 first (exact), then x * c and the add rounded to float, which for
    // exact samples are the plain loop's double-then-float results.
    const auto coefficient = [&](const CMorvaneInterpolator::Point& p, int j) {
        return static_cast<float>(Coefficient(p, j)) * 3.0517578125e-5f;
    };
    const auto frames = [](const float* a, const float* b) {
        return _mm_castpd_ps(_mm_loadh_pd(_mm_load_sd(reinterpret_cast<const double*>(a)),
                                          reinterpret_cast<const double*>(b)));
    };
    int i = 0;
    for (; i + 4 <= count; i += 4) {
        const CMorvaneInterpolator::Point* p = points + i;
        __m128 sum01 = _mm_setzero_ps(), sum23 = _mm_setzero_ps();
        for (int j = 0; j < taps; ++j) {
            const float c0 = coefficient(p[0], j), c1 = coefficient(p[1], j);
            const float c2 = coefficient(p[2], j), c3 = coefficient(p[3], j);
            const __m128 c01 = _mm_setr_ps(c0, c0, c1, c1);
            const __m128 c23 = _mm_setr_ps(c2, c2, c3, c3);
            sum01 = _mm_add_ps(sum01, _mm_mul_ps(frames(p[0].x + 2 * j, p[1].x + 2 * j), c01));
            sum23 = _mm_add_ps(sum23, _mm_mul_ps(frames(p[2].x + 2 * j, p[3].x + 2 * j), c23));
        }
        alignas(16) float s[8];
        _mm_store_ps(s, sum01);
        _mm_store_ps(s + 4, sum23);
        for (int k = 0; k < 4; ++k) {
            left[i + k] = s[2 * k];
            right[i + k] = s[2 * k + 1];
        }
    }
    for (; i < count; ++i)
        Plain(points[i], taps, 2, left + i, right + i);
    return true;
#else
    (void)points, (void)count, (void)taps, (void)left, (void)right;
    return false;
#endif
}

void CMorvaneResample::Plain(const CMorvaneInterpolator::Point& p, int taps, int ch, float* left,
                             float* right) const {
    const float* x = p.x;
    float acc0 = 0.0f;
    float acc1 = 0.0f;
    for (int j = 0; j < taps; ++j, x += ch) {
        const float fc = static_cast<float>(Coefficient(p, j));
        acc0 = static_cast<float>(static_cast<double>(acc0) +
                                  static_cast<double>(x[0] * fc) * 3.0517578125e-5);
        if (ch == 2)
            acc1 = static_cast<float>(static_cast<double>(acc1) +
                                      static_cast<double>(x[1] * fc) * 3.0517578125e-5);
    }
    *left = acc0;
    *right = acc1;
}
