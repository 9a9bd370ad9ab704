#include "CCrispVocoder.h"

#include "CCrispHann.h"
#include "CCrispKernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <utility>

namespace {

constexpr double kTwoPi = 2 * std::numbers::pi;
// Two partials less than this many of a Hann window's bins apart share its main lobe; the weaker
// counts from this share of the stronger's power (20 dB down).
constexpr double kCloseBins = 4, kCloseLevel = 0.01;

double PrincipalArgument(double x) {
    return x - kTwoPi * std::nearbyint(x / kTwoPi);
}

} // namespace

void CCrispVocoder::Configure(int window) {
    if (window == m_nWindow && m_pStore) {
        Restart();
        return;
    }
    m_nWindow = window;
    m_nBins = window / 2 + 1;
    m_Fft.Prepare(window);
    // Two zeroed allocations: the phase lock's room, the fade and the joins' turns; the window, two
    // overlap-add rings and 14 spectra.
    float** spectra[] = {&m_pLre,   &m_pLim,   &m_pRre,    &m_pRim,    &m_pMre,
                         &m_pMim,   &m_pPower, &m_pAttack, &m_pPrevRe, &m_pPrevIm,
                         &m_pOutRe, &m_pOutIm, &m_pZre,    &m_pZim};
    m_pStore = Zeroed<double>(static_cast<size_t>(window) + 3 * static_cast<size_t>(m_nBins));
    double* next = m_pStore.get();
    const auto take = [&](size_t n) { return std::exchange(next, next + n); };
    m_pScratch = take(window);
    m_pMask = take(m_nBins);
    m_pJoinZ = take(2 * static_cast<size_t>(m_nBins));
    m_pJoins = std::make_unique<int[]>(3 * static_cast<size_t>(m_nBins));
    m_pJoinTurn = std::make_unique<float[]>(m_nBins);
    // Each spectrum a whole number of cache lines apart from the next, plus one: arrays a page
    // apart (or a few bytes off it) make the processor stall each load behind the store to the
    // array before, taking the same low address bits for the same place.
    const size_t stride = ((m_nBins + 15) & ~size_t(15)) + 16;
    m_pSpectra = Zeroed<float>(std::size(spectra) * stride + 4 * static_cast<size_t>(window) + 16);
    float* spectrum = m_pSpectra.get();
    for (float*& acc : m_pAcc)
        acc = std::exchange(spectrum, spectrum + 2 * window + 8);
    for (float** p : spectra)
        *p = std::exchange(spectrum, spectrum + stride);
    m_pPeaks = std::make_unique<int[]>(m_nBins + 8); // (the peak finder writes ahead)
    // Periodic Hann on both sides; at a quarter-window hop the squares add up to 1.5, which the
    // synthesis side divides out.
    m_pWin = CCrispHann::Periodic(window);
    m_nSplit = m_nNarrow = 0;
    m_nActive = m_nBins;
    // New pages are zeros already, but written first they take one fault each, not two (a read
    // that maps the zero page, then the overlap-add's write).
    m_bClean = false;
    Restart();
}

void CCrispVocoder::Split(double from, double to, bool low) {
    m_nSplit = low ? 1 : -1;
    m_nActive = m_nFade = m_nBins;
    m_nNarrow = std::min(m_nBins, static_cast<int>(4 * to * m_nWindow));
    for (int k = 0; k < m_nBins; ++k) {
        const double f = double(k) / m_nWindow;
        m_pMask[k] = f <= from ? 1.0
                     : f >= to ? 0.0
                               : 0.5 + 0.5 * std::cos(std::numbers::pi * (f - from) / (to - from));
        // the low side works only up to its fade's end, and a margin for the peaks there
        if (f >= to && m_nFade == m_nBins) {
            m_nFade = k; // the fade's end: the rest are whole, or none
            if (low)
                m_nActive = std::min(m_nBins, k + 8);
        }
    }
}

void CCrispVocoder::Restart() {
    m_bFirst = true;
    m_nAccAt = 0;
    // Hosts start a job after setting the rate and the size more than once: clear only what a
    // frame has written since.
    if (std::exchange(m_bClean, true))
        return;
    std::fill(m_pAttack, m_pAttack + m_nBins, 0.0f);
    std::fill(m_pPrevRe, m_pPrevRe + m_nBins, 0.0f);
    std::fill(m_pPrevIm, m_pPrevIm + m_nBins, 0.0f);
    for (float* acc : m_pAcc)
        std::fill(acc, acc + 2 * m_nWindow, 0.0f);
}

bool CCrispVocoder::Analyse(const float* x, float* re, float* im) {
    if (CCrispKernels::Silent(x, m_nWindow)) {
        std::fill(re, re + m_nBins, 0.0f);
        std::fill(im, im + m_nBins, 0.0f);
        return false;
    }
    m_Fft.Forward(x, m_pWin, re, im);
    return true;
}

void CCrispVocoder::Attack(const float* left, const float* right) {
    m_bClean = false;
    Analyse(left, m_pLre, m_pLim);
    Analyse(right, m_pRre, m_pRim);
    for (int k = 0; k < m_nBins; ++k) {
        const float re = m_pLre[k] + m_pRre[k], im = m_pLim[k] + m_pRim[k];
        m_pAttack[k] = re * re + im * im;
    }
}

// Identity phase locking: each peak's phase advances by its measured frequency over the
// synthesis hop; every bin takes the turn of the peak whose region (up to the lowest bin
// between two peaks) it lies in. With align finite, each peak's phase is instead its input phase
// moved on by its frequency over align samples.
void CCrispVocoder::Lock(int hop, double align) {
    const int bins = m_nActive;
    const float* p2 = m_pPower;
    // the largest, in eight interleaved runs that vectorise
    float part[8] = {};
    int k = 0;
    for (; k + 8 <= bins; k += 8)
        for (int j = 0; j < 8; ++j)
            part[j] = std::max(part[j], p2[k + j]);
    float top = 0;
    for (; k < bins; ++k)
        top = std::max(top, p2[k]);
    for (float v : part)
        top = std::max(top, v);
    const float floor = top * 1e-10f; // 100 dB down: dust, not partials worth a turn of their own
    // A peak stands out of one neighbour each side, below m_nNarrow (the dense partials of low
    // notes), else of two.
    const auto peak = [&](int k) {
        const float v = p2[k];
        return v > floor && v > p2[k - 1] && v >= p2[k + 1] &&
               (k < m_nNarrow || ((k < 2 || v > p2[k - 2]) && (k + 2 >= bins || v >= p2[k + 2])));
    };
    int* found = m_pPeaks.get();
    int peaks = 0;
    for (k = 1; k < std::min(2, bins - 1); ++k)
        if (peak(k))
            found[peaks++] = k;
    if (k + 2 < bins) {
        peaks += CCrispKernels::Peaks(p2, k, bins - 2, m_nNarrow, floor, found + peaks);
        k = bins - 2;
    }
    for (; k + 1 < bins; ++k)
        if (peak(k))
            found[peaks++] = k;
    const double step = kTwoPi / m_nWindow;
    // The peaks' own turns in one vectorised run; a peak that joins another vocoder or aligns
    // takes its own instead.
    const bool dense = align != align;
    double* ownRe = m_pScratch;
    double* ownIm = m_pScratch + m_nWindow / 2;
    if (dense)
        CCrispKernels::Turns(m_pMre, m_pMim, m_pPrevRe, m_pPrevIm, m_pOutRe, m_pOutIm,
                             m_pPeaks.get(), peaks, m_nWindow, hop, Hop(), ownRe, ownIm);
    // The peaks that join the other vocoder are gathered for one vectorised run; the rest of
    // an aligned frame's take their turn here.
    const CCrispVocoder* o = m_pJoin;
    int* joinAt = m_pJoins.get();
    int* joinTo = joinAt + m_nBins;
    int* joinOf = joinTo + m_nBins;
    int joins = 0;
    // how many of the other's bins lie within half of one of this one's either side
    const long reach = o ? static_cast<long>(o->m_nWindow / (m_nWindow * m_dJoinDown) / 2) : 0;
    for (int i = 0; i < (o || !dense ? peaks : 0); ++i) {
        const int p = m_pPeaks[i];
        const double mr = m_pMre[p], mi = m_pMim[p];
        const double m2 = mr * mr + mi * mi;
        const double wj = step * p / m_dJoinDown;
        long kj = o ? std::lround(wj * o->m_nWindow / kTwoPi) : -1;
        if (dense && kj >= o->m_nActive)
            break; // (the other holds nothing from there up, and the peaks only rise)
        if (o && reach > 0 && kj >= 0 && kj < o->m_nActive) {
            // the other's partial: its loudest bin within half of this one's, not the bin at
            // this one's centre, which for a partial off that centre lies on the edge of its
            // main lobe, where the phase turns over
            long best = kj;
            float most = -1;
            for (long k = std::max(0L, kj - reach);
                 k <= std::min<long>(o->m_nActive - 1, kj + reach); ++k) {
                const float v = o->m_pOutRe[k] * o->m_pOutRe[k] + o->m_pOutIm[k] * o->m_pOutIm[k];
                if (v > most) {
                    most = v;
                    best = k;
                }
            }
            kj = best;
        }
        if (o && m2 > 0 && kj >= 0 && kj < o->m_nBins &&
            (o->m_pOutRe[kj] != 0 || o->m_pOutIm[kj] != 0)) {
            // the other's partial at its frame's centre, moved on to this one's by the peak's
            // frequency over the shift: its own pace here, modulo a turn
            const double turn = wj * m_dJoinShift;
            m_pJoinTurn[joins] = static_cast<float>(turn - kTwoPi * std::nearbyint(turn / kTwoPi));
            joinAt[joins] = p;
            joinTo[joins] = static_cast<int>(kj);
            joinOf[joins++] = i;
            continue;
        }
        if (dense)
            continue; // its own turn stands
        double zr = 1, zi = 0;
        if (m2 > 0) {
            const double w = Frequency(p, hop);
            zr = std::cos(w * align);
            zi = std::sin(w * align);
        }
        ownRe[i] = zr;
        ownIm[i] = zi;
    }
    if (joins > 0) {
        double* zr = m_pJoinZ;
        double* zi = m_pJoinZ + m_nBins;
        CCrispKernels::Joins(m_pMre, m_pMim, m_pPrevRe, m_pPrevIm, o->m_pOutRe, o->m_pOutIm, joinAt,
                             joinTo, m_pJoinTurn.get(), joins, m_nWindow, hop,
                             static_cast<float>(m_dJoinShift / (double(hop) * m_dJoinDown)), zr,
                             zi);
        for (int j = 0; j < joins; ++j) {
            ownRe[joinOf[j]] = zr[j];
            ownIm[joinOf[j]] = zi[j];
        }
        if (m_dJoinNear == m_dJoinNear) {
            // Partials closer than the other's window tells apart (a low note's) come out of it
            // blended, each pair's phases one: those move as one instead, by the shift that
            // keeps the strongest of them its join. The rest keep theirs, or where both bands
            // are heard they would cancel.
            const double close = kCloseBins * m_dJoinDown * m_nWindow / o->m_nWindow;
            const auto blended = [&](int i) {
                const int p = m_pPeaks[i];
                for (int n : {i - 1, i + 1})
                    if (n >= 0 && n < peaks && std::abs(m_pPeaks[n] - p) < close &&
                        p2[m_pPeaks[n]] >= kCloseLevel * p2[p])
                        return true;
                return false;
            };
            int s = -1;
            for (int j = 0; j < joins; ++j)
                if (blended(joinOf[j]) && (s < 0 || p2[joinAt[j]] > p2[joinAt[s]]))
                    s = j;
            if (s >= 0) {
                const double w = Frequency(joinAt[s], hop), near = m_dJoinNear;
                const double shift =
                    w > 0.5 * step
                        ? near + PrincipalArgument(std::atan2(zi[s], zr[s]) - w * near) / w
                        : near;
                for (int j = 0; j < joins; ++j)
                    if (blended(joinOf[j])) {
                        const double wj = Frequency(joinAt[j], hop);
                        ownRe[joinOf[j]] = std::cos(wj * shift);
                        ownIm[joinOf[j]] = std::sin(wj * shift);
                    }
            }
        }
    }
    CCrispKernels::Regions(p2, m_pPeaks.get(), peaks, bins, m_nBins, ownRe, ownIm, m_pZre, m_pZim);
}

double CCrispVocoder::Frame(const float* left, const float* right, int hop, bool reset,
                            double share, double align, double steady) {
    m_bClean = false;
    const int bins = m_nActive;
    // a silent channel's spectrum stays zero through the turns: nothing of it to synthesise
    const bool heard[2] = {Analyse(left, m_pLre, m_pLim), Analyse(right, m_pRre, m_pRim)};
    CCrispKernels::Mix(m_pLre, m_pLim, m_pRre, m_pRim, m_pMre, m_pMim, m_pPower, bins);
    double both = 0, now = 0, before = 0;
    if (steady > 0) {
        for (int k = 0; k < bins; ++k) {
            const double q =
                double(m_pPrevRe[k]) * m_pPrevRe[k] + double(m_pPrevIm[k]) * m_pPrevIm[k];
            both += std::sqrt(m_pPower[k] * q);
            now += m_pPower[k];
            before += q;
        }
    }
    // how alike the two spectra's shapes are
    if (steady > 0 && (m_bFirst || both < steady * std::sqrt(now * before)))
        share = 0;
    if (m_bFirst && align != align && !m_pJoin) {
        std::fill(m_pZre, m_pZre + bins, 1.0f);
        std::fill(m_pZim, m_pZim + bins, 0.0f);
    } else {
        Lock(std::max(hop, 1), align);
    }
    m_bFirst = false;
    if (share > 0)
        m_pJoin = nullptr;
    if (reset) {
        for (int k = 0; k < bins; ++k)
            if (m_pAttack[k] > 4 * m_pPower[k]) {
                m_pZre[k] = 1;
                m_pZim[k] = 0;
            }
        std::fill(m_pAttack, m_pAttack + bins, 0.0f);
    }
    CCrispKernels::Apply(m_pZre, m_pZim, m_pMre, m_pMim, m_pOutRe, m_pOutIm, m_pLre, m_pLim, m_pRre,
                         m_pRim, bins);
    // The sum becomes the last frame's by trading places: the next Mix writes every bin in use,
    // and the bins past those stay zero in both.
    std::swap(m_pMre, m_pPrevRe);
    std::swap(m_pMim, m_pPrevIm);
    if (m_nSplit == 1 && share <= 0)
        return 0; // nothing of this frame is heard
    if (m_nSplit != 0) {
        for (int k = 0; k < (m_nSplit > 0 ? bins : std::min(bins, m_nFade)); ++k) {
            const double g = m_nSplit > 0 ? share * m_pMask[k] : 1 - share * m_pMask[k];
            m_pLre[k] *= g;
            m_pLim[k] *= g;
            m_pRre[k] *= g;
            m_pRim[k] *= g;
        }
        for (auto* x : {m_pLre, m_pLim, m_pRre, m_pRim})
            std::fill(x + bins, x + m_nBins, 0.0f);
    }
    const double scale = 1.0 / 1.5;
    // the ring in two straight runs
    const int first = std::min(m_nWindow, 2 * m_nWindow - m_nAccAt);
    int c = 0;
    for (const auto& [re, im] : {std::pair{m_pLre, m_pLim}, std::pair{m_pRre, m_pRim}}) {
        float* acc = m_pAcc[c];
        if (heard[c++])
            m_Fft.InverseAdd(re, im, m_pWin, scale, acc + m_nAccAt, first, acc);
    }
    return share;
}

void CCrispVocoder::Join(const CCrispVocoder* other, double shift, double down, double near) {
    m_pJoin = other;
    m_dJoinShift = shift;
    m_dJoinDown = down;
    m_dJoinNear = near;
}

double CCrispVocoder::Frequency(int bin, int hop) const {
    const double step = kTwoPi / m_nWindow, mr = m_pMre[bin], mi = m_pMim[bin];
    const double qr = m_pPrevRe[bin], qi = m_pPrevIm[bin];
    if (qr * qr + qi * qi <= 1e-6 * (mr * mr + mi * mi))
        return step * bin; // (no frame before held the partial)
    const double expected = step * bin * hop;
    const double measured = std::atan2(mi * qr - mr * qi, mr * qr + mi * qi);
    return (expected + PrincipalArgument(measured - expected)) / hop;
}

void CCrispVocoder::Prime(const float* left, const float* right) {
    m_bClean = false;
    Analyse(left, m_pLre, m_pLim);
    Analyse(right, m_pRre, m_pRim);
    for (int k = 0; k < m_nActive; ++k) {
        m_pPrevRe[k] = m_pLre[k] + m_pRre[k];
        m_pPrevIm[k] = m_pLim[k] + m_pRim[k];
    }
    m_bFirst = false;
}

void CCrispVocoder::Take(float* left, float* right) {
    m_bClean = false;
    // A hop divides the ring, so a hop never wraps.
    float* to[2] = {left, right};
    for (int c = 0; c < 2; ++c) {
        float* acc = m_pAcc[c] + m_nAccAt;
        std::copy(acc, acc + Hop(), to[c]);
        std::fill(acc, acc + Hop(), 0.0f);
    }
    m_nAccAt += Hop();
    if (m_nAccAt == 2 * m_nWindow)
        m_nAccAt = 0;
}
