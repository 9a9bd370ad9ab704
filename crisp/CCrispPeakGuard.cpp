#include "CCrispPeakGuard.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "CCrispKernels.h"
#include "SampleClean.h"

namespace {
// The look-ahead over which the gain comes down to a peak (s): long enough that the dip adds
// nothing audible of its own, short enough to stay with the peak it serves.
constexpr double kAhead = 0.003;
// How long a cut is held after its peak before it recovers (s): longer than the period of a low
// note, so that a tone whose every period rises over the peak gets one steady gain rather than a
// ripple at its period, which would add partials of its own.
constexpr double kHold = 0.5;
// The time constant of the recovery (s).
constexpr double kRecover = 0.1;
// The most the gain comes down (dB).
constexpr double kMostCut = 1.0;
const float kMostCutGain = static_cast<float>(1 - std::pow(10.0, -kMostCut / 20));
// A cut this small is none (a millionth of a dB).
constexpr float kNearNone = 1e-7f;

} // namespace

// (as cuts, 1 less the gains, in Slow, Steady and Release: small ones keep their precision;
// both taken into the frame loops that call them, a frame at a time)
__attribute__((always_inline)) inline void CCrispPeakGuard::Recover(float ramp) {
    m_fCut *= m_fRecover;
    if (m_fCut < kNearNone)
        m_fCut = 0;
    m_fCut = std::max(m_fCut, ramp);
}

// (the ramp's sum rounded may leave a peak an ulp or two over)
__attribute__((always_inline)) inline float CCrispPeakGuard::GainFor(float out) {
    float g = 1 - m_fCut;
    while (out * g > m_fPeak && m_fCut < kMostCutGain) {
        g = std::nextafter(g, 0.0f);
        m_fCut = 1 - g;
    }
    return g;
}

void CCrispPeakGuard::Configure(int rate) {
    const int ahead = std::max(1, static_cast<int>(std::lround(kAhead * rate)));
    m_nHold = static_cast<int>(std::lround(kHold * rate));
    const int mask = static_cast<int>(std::bit_ceil(unsigned(ahead + m_nHold + 2))) - 1;
    if (ahead != m_nAhead || mask != m_nWantMask || !m_pStore) {
        m_nAhead = ahead;
        m_nWantMask = mask;
        m_pStore = Zeroed<float>(3 * size_t(ahead) + size_t(mask + 1));
        float* next = m_pStore.get();
        m_pStash[0] = next;
        m_pStash[1] = next + ahead;
        m_pWant = next + 2 * ahead;
        m_pShort = m_pWant + mask + 1;
        m_pAtStore = Zeroed<int64_t>(size_t(mask + 1));
        m_pWantAt = m_pAtStore.get();
    }
    m_fRecover = static_cast<float>(std::exp(-1.0 / (kRecover * rate)));
    Restart();
}

void CCrispPeakGuard::Restart() {
    m_fPeak = 0;
    m_fCut = 0;
    m_nAt = 0;
    m_nPending = 0;
    m_nHotUntil = 0;
    m_nClearFrom = 0;
    m_nWantFirst = m_nWantCount = 0;
    m_dShort = 0;
    m_nShortAt = 0;
    m_fShortLast = 0;
    m_nShortSame = m_nAhead;
    if (m_pStore)
        std::fill(m_pShort, m_pShort + m_nAhead, 0.0f);
}

void CCrispPeakGuard::Watch(const float* left, const float* right, int n) {
    Hear(CCrispKernels::Loudest(left, right, n));
}

void CCrispPeakGuard::Hear(float loudest) {
    // as cleaning takes them: beyond the limit, limited; not finite, silence
    m_fPeak = std::max(m_fPeak, std::min(loudest, SampleClean::kMaxSample));
}

void CCrispPeakGuard::Want(float want, int64_t u) {
    while (m_nWantCount > 0 && m_pWant[(m_nWantFirst + m_nWantCount - 1) & m_nWantMask] >= want)
        --m_nWantCount;
    const int at = (m_nWantFirst + m_nWantCount++) & m_nWantMask;
    m_pWant[at] = want;
    m_pWantAt[at] = u;
    m_nClearFrom = u + 2 * m_nAhead + m_nHold + 1;
}

// Each incoming frame wants the gain that brings it to the peak, or 1; the frame going out,
// m_nAhead earlier, takes the least wanted from m_nHold before it to the incoming one, averaged
// over the m_nAhead frames before: a ramp that reaches every peak's gain by the peak.
void CCrispPeakGuard::Slow(float* l, float* r, int start, int n) {
    const int ahead = m_nAhead;
    for (int j = 0, next = 0; j < n; ++j) {
        // (most frames of a loud piece are held at a cut that stands: those go by in blocks,
        // and a block that cannot is taken frame by frame)
        if (j >= next && m_nShortSame >= ahead) {
            if ((j += Steady(l, r, start, j, n)) == n)
                break;
            next = j + kSteady;
        }
        const int64_t u = m_nAt + j;
        const float a = std::max(std::fabs(l[start + j]), std::fabs(r[start + j]));
        if (a > m_fPeak)
            Want(std::max(m_fPeak / a, 1 - kMostCutGain), u);
        while (m_nWantCount > 0 && m_pWantAt[m_nWantFirst] < u - ahead - m_nHold) {
            m_nWantFirst = (m_nWantFirst + 1) & m_nWantMask;
            --m_nWantCount;
        }
        const float least = m_nWantCount > 0 ? m_pWant[m_nWantFirst] : 1.0f;
        // (the ring's place kept as a count: a 64-bit remainder each frame is slow; while the
        // guard is clear the ring is all zeros, so where it starts again does not matter)
        const int s = m_nShortAt;
        m_nShortAt = s + 1 == ahead ? 0 : s + 1;
        m_dShort += double(1 - least) - m_pShort[s];
        m_pShort[s] = 1 - least;
        m_nShortSame = m_pShort[s] == m_fShortLast ? std::min(m_nShortSame + 1, ahead) : 1;
        m_fShortLast = m_pShort[s];
        Recover(static_cast<float>(m_dShort / ahead));
        const int o = start + j - ahead; // (none yet at the job's start)
        if (o < 0)
            continue;
        const float g = GainFor(std::max(std::fabs(l[o]), std::fabs(r[o])));
        l[o] *= g;
        r[o] *= g;
    }
}

// In those frames Slow would add nothing to the ring's sum (it writes what each place holds), so
// the ramp stands and the cut can only recover towards it. A new peak that wants no less than
// the least wanted already joins the queue behind it and changes nothing else. So the frames go
// by a block at a time while the cut stands at the ramp and none going out is over the peak
// with it, and otherwise with the few steps of Slow that are left.
int CCrispPeakGuard::Steady(float* l, float* r, int start, int j, int n) {
    const int ahead = m_nAhead;
    const float least = m_nWantCount > 0 ? m_pWant[m_nWantFirst] : 1.0f;
    if (1 - least != m_fShortLast || start + j < ahead)
        return 0;
    // up to the frame that lets the least wanted go
    int64_t most = n - j;
    if (m_nWantCount > 0)
        most = std::min(most, m_pWantAt[m_nWantFirst] + ahead + m_nHold - (m_nAt + j) + 1);
    const float ramp = static_cast<float>(m_dShort / ahead);
    float* const in[2] = {l + start + j, r + start + j};
    // frame k coming in: whether it leaves the least wanted as it is (queued if it wants a cut)
    const auto takes = [&](int k) {
        const float a = std::max(std::fabs(in[0][k]), std::fabs(in[1][k]));
        if (a <= m_fPeak)
            return true;
        const float want = std::max(m_fPeak / a, 1 - kMostCutGain);
        if (want < least)
            return false;
        Want(want, m_nAt + j + k);
        return true;
    };
    int k = 0;
    while (k < most) {
        const float g = 1 - m_fCut;
        if (m_fCut == ramp && k + kSteady <= most &&
            CCrispKernels::Loudest(in[0] + k - ahead, in[1] + k - ahead, kSteady) * g <= m_fPeak) {
            int i = 0;
            if (CCrispKernels::Loudest(in[0] + k, in[1] + k, kSteady) > m_fPeak) {
                for (; i < kSteady && takes(k + i); ++i) {
                    in[0][k + i - ahead] *= g;
                    in[1][k + i - ahead] *= g;
                }
            } else {
                for (float* c : in)
                    for (i = 0; i < kSteady; ++i)
                        c[k + i - ahead] *= g;
            }
            k += i;
            if (i < kSteady)
                break;
            continue;
        }
        // a frame as Slow takes it: the cut recovering, and an output over the peak by the
        // ramp's rounding brought down to it
        bool deeper = false;
        for (const int until = static_cast<int>(std::min<int64_t>(most, k + kSteady)); k < until;
             ++k) {
            if (!takes(k)) {
                deeper = true;
                break;
            }
            Recover(ramp);
            const float h =
                GainFor(std::max(std::fabs(in[0][k - ahead]), std::fabs(in[1][k - ahead])));
            in[0][k - ahead] *= h;
            in[1][k - ahead] *= h;
        }
        if (deeper)
            break;
    }
    m_nShortAt = static_cast<int>((m_nShortAt + k) % ahead);
    return k;
}

// Only recovering: no frame within reach wants less than 1.
void CCrispPeakGuard::Release(float* l, float* r, int start, int n) {
    float cut = m_fCut;
    for (int j = 0; j < n && cut > 0; ++j) {
        cut *= m_fRecover;
        if (cut < kNearNone)
            cut = 0;
        if (const int o = start + j - m_nAhead; o >= 0) {
            l[o] *= 1 - cut;
            r[o] *= 1 - cut;
        }
    }
    m_fCut = cut;
}

int CCrispPeakGuard::Run(float* left, float* right, int n, float loudest, bool* over) {
    const int start = m_nPending;
    for (int from = 0; from < n; from += kChunk) {
        const int m = std::min(kChunk, n - from), at = start + from;
        const bool clear = m_nWantCount == 0 && m_nAt >= m_nClearFrom;
        if (clear && m_dShort != 0) {
            // (what the rolling sum kept of its additions; every term in it is 0 now)
            m_dShort = 0;
        }
        // (the block's loudest first: most blocks have nothing over, and no chunk needs a look)
        if (!clear ||
            (loudest > m_fPeak && CCrispKernels::Loudest(left + at, right + at, m) > m_fPeak))
            Slow(left, right, at, m);
        else if (m_fCut > 0)
            Release(left, right, at, m);
        m_nAt += m;
    }
    const int done = std::max(0, start + n - m_nAhead);
    m_nPending = start + n - done;
    if (loudest > 1)
        m_nHotUntil = m_nAt;
    // (the frames' own block said whether they might be: most are not)
    if (m_nAt - m_nPending - done < m_nHotUntil && CCrispKernels::Loudest(left, right, done) > 1)
        *over = true;
    return done;
}

void CCrispPeakGuard::Stash(const float* left, const float* right) {
    std::copy(left, left + m_nPending, m_pStash[0]);
    std::copy(right, right + m_nPending, m_pStash[1]);
}

void CCrispPeakGuard::Resume(float* left, float* right) const {
    std::copy(m_pStash[0], m_pStash[0] + m_nPending, left);
    std::copy(m_pStash[1], m_pStash[1] + m_nPending, right);
}
