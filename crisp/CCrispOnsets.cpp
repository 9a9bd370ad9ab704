#include "CCrispOnsets.h"

#include "CCrispHann.h"
#include "CCrispKernels.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <utility>

namespace {
// Compression of magnitudes: a full-scale partial counts log(101), one 40 dB down log(2).
constexpr double kCompress = 100.0;
// An onset's rise stands this far above the average of the frames around it.
constexpr double kAboveAverage = 0.025;
constexpr double kOverAverage = 1.3;
constexpr int kAverageBefore = 10;
// The bass band, up to this (Hz), and how much its mean rise counts against the whole band's.
constexpr double kBassTop = 250;
constexpr double kBassShare = 0.25;
// A low note's every pitch period (up to 40 ms, E1 and below) rises like an attack in frames
// shorter than it: a rise that came as large or nearly (this share) within 40 ms, with a dip
// between, repeats.
constexpr double kRepeat = 0.6;
constexpr double kRepeatSpan = 0.04;
// What an onset's rise must still reach in frames twice as long: a steady low note's beating
// gives them 0.001 to 0.013 (0.02 at 27.5 Hz and 32 kHz), attacks 0.016 and more.
constexpr double kHolds = 0.015;
} // namespace

void CCrispOnsets::Configure(int frame, int rate) {
    if (frame != m_nFrame || !m_pStore) {
        m_nFrame = frame;
        m_Fft.Prepare(frame);
        m_Long.Prepare(2 * frame);
        const int bins = frame / 2 + 1, longBins = frame + 1;
        // One allocation for the rows of magnitudes, one for the windows and the spectra (the
        // transform's own precision). (The rows a cache line more than a whole number of lines
        // apart: rows a page apart, or a few bytes off it, stall each load behind the store to
        // the row before.)
        const int row = ((bins + 1 + 7) & ~7) + 8;
        m_pStore = std::make_unique<double[]>(3 * row + 2 * (longBins + 1));
        double* next = m_pStore.get();
        const auto take = [&](int n) { return std::exchange(next, next + n); };
        m_pLog = take(row);
        m_pPrev = take(row);
        m_pOlder = take(row);
        m_pLongLog = take(2 * (longBins + 1));
        m_pFloats = std::make_unique<float[]>(2 * bins + 2 * longBins);
        float* floats = m_pFloats.get();
        const auto takeFloats = [&](int n) { return std::exchange(floats, floats + n); };
        m_pRe = takeFloats(bins);
        m_pIm = takeFloats(bins);
        m_pLongSpectrum = takeFloats(2 * longBins);
        m_pWin = CCrispHann::Periodic(frame);
        m_pLongWin = CCrispHann::Periodic(2 * frame);
    }
    // 40 Hz to 16 kHz, or Nyquist below that.
    const double binHz = double(rate) / frame;
    m_nLow = std::max(1, static_cast<int>(40 / binHz));
    m_nHigh = std::clamp(static_cast<int>(16000 / binHz), m_nLow + 1, frame / 2);
    m_nBass = std::clamp(static_cast<int>(std::ceil(kBassTop / binHz)), m_nLow, m_nHigh);
    // A Hann window sums to frame / 2, and a sine's energy splits between two bins.
    m_dNorm = 4.0 / frame;
    // 30 ms between onsets
    m_nMinGap = std::max(1, static_cast<int>(0.03 * rate / Hop()));
    m_nRepeat =
        std::clamp(static_cast<int>(std::ceil(kRepeatSpan * rate / Hop())), kLead, kAverageBefore);
    Restart();
}

void CCrispOnsets::Restart() {
    m_nNext = 0;
    m_nLastOnset = -1000;
    std::fill(std::begin(m_dFlux), std::end(m_dFlux), 0.0);
    for (double* row : {m_pPrev, m_pOlder})
        if (row)
            std::fill(row, row + m_nFrame / 2 + 2, 0.0);
}

int64_t CCrispOnsets::Analyse(const float* x) {
    if (CCrispKernels::Silent(x, m_nFrame)) {
        std::fill(m_pRe, m_pRe + m_nFrame / 2 + 1, 0.0f);
        std::fill(m_pIm, m_pIm + m_nFrame / 2 + 1, 0.0f);
    } else {
        m_Fft.Forward(x, m_pWin, m_pRe, m_pIm);
    }
    CCrispKernels::LogMagnitudes(m_pRe, m_pIm, m_nLow, m_nHigh, m_dNorm, kCompress, m_pLog);
    // (in eight running sums, which vectorise)
    const auto rises = [&](int from, int to) {
        double part[8] = {};
        int k = from;
        for (; k + 8 <= to + 1; k += 8)
            for (int j = 0; j < 8; ++j)
                part[j] += std::max(0.0, m_pLog[k + j] - std::max(m_pPrev[k + j], m_pOlder[k + j]));
        for (; k <= to; ++k)
            part[0] += std::max(0.0, m_pLog[k] - std::max(m_pPrev[k], m_pOlder[k]));
        return ((part[0] + part[1]) + (part[2] + part[3])) +
               ((part[4] + part[5]) + (part[6] + part[7]));
    };
    const double bass = rises(m_nLow, m_nBass);
    double flux = (bass + rises(m_nBass + 1, m_nHigh)) / (m_nHigh - m_nLow + 1);
    // a kick or a bass note rises in a few bins only: the lowest ones count on their own too
    flux = std::max(flux, kBassShare * bass / (m_nBass - m_nLow + 1));
    for (int k = m_nLow; k <= m_nHigh; ++k)
        m_pOlder[k] = std::max({m_pLog[k - 1], m_pLog[k], m_pLog[k + 1]});
    std::swap(m_pPrev, m_pOlder);
    const int64_t j = m_nNext++;
    m_dFlux[j & (kHistory - 1)] = flux;

    // Decide on frame d, which has kLead frames after it now.
    const int64_t d = j - kLead;
    if (d < 0)
        return -1;
    const double v = Flux(d);
    double sum = 0;
    int count = 0;
    for (int64_t i = std::max<int64_t>(0, d - kAverageBefore); i <= j; ++i) {
        if (i < d - 0 && i > d - kLead - 1 && Flux(i) >= v)
            return -1; // an equal or larger value just before
        if (i > d && Flux(i) > v)
            return -1;
        sum += Flux(i);
        ++count;
    }
    if (v < kOverAverage * sum / count + kAboveAverage || d - m_nLastOnset < m_nMinGap)
        return -1;
    // An earlier peak nearly as large with a dip between, itself after one such: the periods of
    // a low note going on, not its first one.
    const auto repeats = [&](int64_t e) {
        double dip = Flux(e);
        for (int64_t i = e - 1; i >= std::max<int64_t>(0, e - m_nRepeat); --i) {
            if (Flux(i) >= kRepeat * Flux(e) && dip < 0.5 * Flux(i))
                return i;
            dip = std::min(dip, Flux(i));
        }
        return int64_t{-1};
    };
    if (const int64_t p = repeats(d); p >= 0 && repeats(p) >= 0)
        return -1;
    m_nLastOnset = d;
    return d * Hop();
}

bool CCrispOnsets::Holds(const float* before, const float* after) {
    const int n = 2 * m_nFrame, bins = m_nFrame + 1;
    const int low = 2 * m_nLow, high = std::min(2 * m_nHigh, m_nFrame - 1), bass = 2 * m_nBass;
    float* re = m_pLongSpectrum;
    double* logs[2] = {m_pLongLog, m_pLongLog + bins + 1};
    const float* frames[2] = {before, after};
    for (int f = 0; f < 2; ++f) {
        if (CCrispKernels::Silent(frames[f], n))
            std::fill(re, re + 2 * bins, 0.0f);
        else
            m_Long.Forward(frames[f], m_pLongWin, re, re + bins);
        CCrispKernels::LogMagnitudes(re, re + bins, low - 1, high + 1, 2.0 / n * 4.0 / 2, kCompress,
                                     logs[f]);
    }
    double flux = 0, bassFlux = 0;
    for (int k = low; k <= high; ++k) {
        const double rise =
            std::max(0.0, logs[1][k] - std::max({logs[0][k - 1], logs[0][k], logs[0][k + 1]}));
        flux += rise;
        if (k <= bass)
            bassFlux += rise;
    }
    flux = std::max(flux / (high - low + 1), kBassShare * bassFlux / (bass - low + 1));
    return flux >= kHolds;
}

int CCrispOnsets::Refine(const float* x, int n, int block) {
    int best = 0;
    double bestRise = -1, before = 0;
    for (int b = 0; (b + 1) * block <= n; ++b) {
        double e = 0;
        for (int i = std::max(1, b * block); i < (b + 1) * block; ++i) {
            const double d = double(x[i]) - x[i - 1];
            e += d * d;
        }
        if (b > 0 && e - before > bestRise) {
            bestRise = e - before;
            best = b;
        }
        before = e;
    }
    // The slope of a low note swells and dips within each period, so its largest rise may come
    // a period after the attack: the attack starts where the signal first stands clear of what
    // came before it, up to a period of 40 Hz back.
    const int at = best * block;
    const int from = std::max(0, at - std::max(4 * block, n / 4));
    double calm = 0, peak = 0;
    for (int i = std::max(0, from - 2 * block); i < from; ++i)
        calm = std::max(calm, std::fabs(double(x[i])));
    for (int i = at; i < std::min(n, at + 4 * block); ++i)
        peak = std::max(peak, std::fabs(double(x[i])));
    const double clear = std::max(2 * calm, 0.03 * peak);
    if (from == 0 && at > 0)
        return at; // nothing seen before to stand clear of
    for (int i = from; i < at; ++i)
        if (std::fabs(double(x[i])) > clear)
            return i;
    return at;
}

double CCrispOnsets::Energy(const float* x, int n) {
    // in eight running sums, which vectorise (one is a chain of additions each waiting on the last)
    double part[8] = {};
    int i = 0;
    for (; i + 8 <= n; i += 8)
        for (int j = 0; j < 8; ++j)
            part[j] += double(x[i + j]) * x[i + j];
    for (; i < n; ++i)
        part[0] += double(x[i]) * x[i];
    return ((part[0] + part[1]) + (part[2] + part[3])) +
           ((part[4] + part[5]) + (part[6] + part[7]));
}

bool CCrispOnsets::Stops(double first, double second, int n) {
    return first > 1e-7 * (n / 2) && second < 1e-4 * first;
}

bool CCrispOnsets::Stops(const float* x, int n) {
    return Stops(Energy(x, n / 2), Energy(x + n / 2, n / 2), n);
}
