#include "CCrisp.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <numbers>
#include <utility>

#include "CCrispKernels.h"
#include "SampleClean.h"
#include "SampleRateRange.h"

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
// The resampler's history sits in front of each hop it reads; it never needs more than this.
constexpr int kHistory = CCrispPolyphase::kMaxHistory;

double SafeRate(double rate) {
    return rate == rate ? std::clamp(rate, 0.5, 2.0) : 1.0;
}

// 46 ms at 44.1 kHz: long enough to resolve the partials of low notes, short enough that an
// attack's 1:1 stretch stays short. Taken as the nearest power of two, so 48 kHz keeps 2048;
// with three, the nearest power of two or three times one.
int WindowFor(double rate, bool three = false) {
    const double ideal = 0.0464 * rate;
    int best = 256;
    for (int n = 256; n <= CRealFft::kMaxPoints; n *= 2)
        for (int m : {n, three ? 3 * n / 2 : n})
            if (m <= CRealFft::kMaxPoints &&
                std::fabs(std::log2(m / ideal)) < std::fabs(std::log2(best / ideal)))
                best = m;
    return best;
}

// The step the input is read at before the vocoder in a job that starts at a pitch rate: the
// pitch rate itself from +600 cents while a window of the rate over it is the one of three times
// a power of two between the full window and its half (to about +850 cents at 44.1 kHz), else 1.
// Read first, the vocoder makes the frames of the time rate alone and the resampler reads fewer;
// on that shorter window its frames span about as much of the output as they do read after it.
// Bass notes decide the range: read first a fourth up, or on half the window from +850, their
// strongest inharmonic component came out 1-5 dB higher than read after. (A fifth up read first
// on the full window smeared attacks: 0.02 of onsets F lost on speech.)
constexpr double kPreFrom = 1.41;
double PreFor(double pitch, int rate) {
    return pitch >= kPreFrom && 4 * WindowFor(rate / pitch, true) == 3 * WindowFor(rate) ? pitch
                                                                                         : 1.0;
}

// The vocoder's window for a job read first at step pre.
int MainWindow(int rate, double pre) {
    return pre != 1.0 ? WindowFor(rate / pre, true) : WindowFor(rate);
}

// The low band: a window four times as long (as far as the transform goes), below a crossover
// fading out from 1.6 to 2.4 kHz. Up to there the short window cannot tell apart the partials of
// a note of 55 Hz and locks each pair to one peak, heard as sidebands a fraction of a partial
// away; higher up they are 40 dB down. Higher still would cost the peaks of bright solo
// instruments, which the long window's phases leave less aligned.
int LowWindowFor(int window) {
    return std::min(4 * window, CRealFft::kMaxPoints);
}
constexpr double kCrossFrom = 1600, kCrossTo = 2400;
// Below 35 kHz it comes down with the rate, to stay where the filters below are flat.
constexpr double kCrossMost = 0.068;
// It runs at a quarter of the rate, its input and output filtered by a 49-tap Kaiser-windowed
// sinc cut at an eighth of the rate: flat to 0.07 of the rate (3.1 kHz), 80 dB down from 0.18
// (7.9 kHz), where all that would fold back below the crossover lies.
constexpr int kDown = 4;
// How alike two low frames' spectra must be (1 the same shape) before the low band is heard again
// after an onset. It joins the short window's phases at the pace it measures between them, so a
// kick's glide must have ended: at 0.9 an 808's tail came back out of phase at 75 % and a fifth
// down, a dip heard as a second attack.
constexpr double kSteady = 0.97;
constexpr int kReach = 24; // taps each side of the centre
int64_t FloorDiv(int64_t a, int64_t b) {
    return a >= 0 ? a / b : -((-a + b - 1) / b);
}

// n frames from at of a ring of size (a power of two) that has taken held frames, of the first
// `channels` channels: where they lie when held whole and in one run, else copied into room
// with zeros for what it no longer or not yet holds.
void ReadRing(float* const ring[2], int channels, int64_t size, int64_t held, int64_t at, int n,
              float* const room[2], const float** frame) {
    const int64_t start = at & (size - 1), oldest = std::max<int64_t>(0, held - size);
    if (at >= oldest && at + n <= held && start + n <= size) {
        for (int c = 0; c < channels; ++c)
            frame[c] = ring[c] + start;
        return;
    }
    const int64_t from = std::clamp<int64_t>(at, oldest, at + n);
    const int64_t until = std::clamp<int64_t>(held, from, at + n);
    for (int c = 0; c < channels; ++c) {
        float* to = room[c];
        frame[c] = to;
        std::fill(to, to + (from - at), 0.0f);
        for (int64_t f = from; f < until;) {
            const int64_t i = f & (size - 1), k = std::min(until - f, size - i);
            std::memcpy(to + (f - at), ring[c] + i, sizeof(float) * k);
            f += k;
        }
        std::fill(to + (until - at), to + n, 0.0f);
    }
}

// The last frames a ring of wrap `from` holds, where a ring of wrap `to` (a multiple of it) keeps
// them: at most two runs, each in one piece at both wraps, and each moved (if at all) to past the
// old wrap, clear of what is still to move.
void Rewrap(float* ring, int64_t held, int64_t from, int64_t to) {
    for (int64_t f = held - std::min(held, from); f < held;) {
        const int64_t i = f & (from - 1), k = std::min(held - f, from - i), j = f & (to - 1);
        if (j != i)
            std::memcpy(ring + j, ring + i, sizeof(float) * k);
        f += k;
    }
}

} // namespace

CCrisp::CCrisp() {
    // The transforms run one after another under the engine's lock: one set of work pages.
    m_Low.ShareWork(m_Vocoder.Transform());
    m_Onsets.ShareWork(m_Vocoder.Transform());
    SetSamplingRate(44100);
}

void CCrisp::SetTimeRate(double rate, bool running) {
    std::lock_guard lock(m_cs);
    m_dTimeNext = SafeRate(rate);
    if (!running)
        ApplyRates();
}

void CCrisp::SetPitchRate(double rate, bool running) {
    std::lock_guard lock(m_cs);
    m_dPitchNext = SafeRate(rate);
    if (!running)
        ApplyRates();
}

void CCrisp::SetActive(bool on) {
    std::lock_guard lock(m_cs);
    m_bActive = on;
}

void CCrisp::SetLowSound(float v) {
    std::lock_guard lock(m_cs);
    // Only -1.0 turns the option off; 0.0 and 1.0 both leave it on, as in the splice engine.
    // The onset search runs ahead of the frames, so a change waits for the next job.
    m_bOnsetsNext = static_cast<double>(v) + 1.0 != 0;
}

void CCrisp::SetMono(bool mono) {
    std::lock_guard lock(m_cs);
    m_bMonoNext = mono;
}

bool CCrisp::TakeOver() {
    std::lock_guard lock(m_cs);
    return std::exchange(m_bOver, false);
}

int CCrisp::MaxOutput(int count) const {
    return static_cast<int>(
        std::min<long>(2L * (std::max(count, 0) + m_nRingSize) + m_nRate / 2, 0x7fffffff));
}

void CCrisp::SetSamplingRate(int rate) {
    std::lock_guard lock(m_cs);
    rate = std::clamp(rate, SampleRateRange::kMin, SampleRateRange::kMax);
    // The buffers are made at the first job: a plug-in whose other engine does the work never
    // pays for them, and hosts set the rate several times before a job.
    if (rate != m_nRate)
        m_bSized = false;
    m_nRate = rate;
    // The ring the time map's lookahead asks for (at most 15 windows, at a stretch of 1/4),
    // twice over; MaxOutput needs it before the buffers exist.
    m_nRingSize = 32L * WindowFor(rate);
    Restart();
}

void CCrisp::Size() {
    const int window = MainWindow(m_nRate, m_dPre), low = LowWindowFor(window);
    m_Vocoder.Configure(window);
    // (read first, the ring holds the input at the pitch rate: the finder counts its bands and
    // gaps at the rate that gives them as they were in the input)
    m_Onsets.Configure(window / 2, static_cast<int>(std::lround(m_nRate / m_dPre)));
    m_Guard.Configure(m_nRate);
    m_Map.Configure(window);
    m_bLow = low > window; // (none where the transform cannot go longer)
    m_nLowWindow = low;
    m_Low.Configure(low / kDown);
    // the filter, with a gain of 1 (interpolating takes kDown times it)
    const double beta = 8.0;
    const auto bessel = [](double x) {
        double sum = 1, term = 1;
        for (int k = 1; k < 30; ++k) {
            term *= (x / (2 * k)) * (x / (2 * k));
            sum += term;
        }
        return sum;
    };
    // every kDown-th tap from the centre is zero (sin(pi i / kDown)), and is left out
    double taps[kReach + 1] = {}, total = 0;
    for (int i = 0; i <= kReach; ++i) {
        const double r = double(i) / kReach, a = std::numbers::pi * i / kDown;
        const double w = bessel(beta * std::sqrt(std::max(0.0, 1 - r * r))) / bessel(beta);
        taps[i] = i == 0 ? w : i % kDown == 0 ? 0.0 : std::sin(a) / a * w;
        total += i == 0 ? taps[i] : 2 * taps[i];
    }
    static_assert(kReach < kHalfTaps, "the filter fits its taps");
    for (int i = 0; i <= kReach; ++i)
        m_fTaps[i] = static_cast<float>(taps[i] / total);
    // by phase, for interpolating: each output sample takes every kDown-th tap, times kDown
    for (int phase = 0; phase < kDown; ++phase)
        for (int k = 0; k < kPhaseTaps; ++k) {
            const int i = phase + kDown * k - kReach;
            m_fPhase[phase][k] = std::abs(i) <= kReach ? kDown * m_fTaps[std::abs(i)] : 0.0f;
        }
    m_LowMap.Configure(window);
    // a low frame needs the onsets within half its window each side
    m_LowMap.SetReach(0.75 * low);
    if (m_bLow) {
        // (at the crossover's frequency in the output when the input is read first)
        const double to = std::min(kCrossTo * m_dPre / m_nRate, kCrossMost);
        const double from = to * kCrossFrom / kCrossTo;
        m_Vocoder.Split(from, to, false);
        m_Low.Split(kDown * from, kDown * to, true);
    }
    m_nLowRing = static_cast<int>(std::bit_ceil(4u * m_Low.Hop()));
    m_nDownRing = m_nRingSize / kDown;
    const int hop = m_Vocoder.Hop();
    m_nStretchRoom = 2 * kHistory + hop;
    // One zeroed allocation, in the order of the members that view it.
    m_pStore = Zeroed<float>(2 * (m_nRingSize + low + hop + m_nLowRing + m_nDownRing) + 3 * window +
                             window / 2 + 2L * m_nStretchRoom +
                             2 * (kHistory + kPreChunk + kPreChunk + 1) + kBuckets);
    float* next = m_pStore.get();
    const auto take = [&](int64_t n) { return std::exchange(next, next + n); };
    for (int c = 0; c < 2; ++c) {
        m_pRing[c] = take(m_nRingSize);
        m_pFrame[c] = take(low);
        m_pHop[c] = take(hop);
        m_pLowOut[c] = take(m_nLowRing);
        m_pDown[c] = take(m_nDownRing);
    }
    m_pMono = take(window);
    m_pLongBefore = take(window);
    m_pSilence = take(window);
    m_pDetect = take(window / 2);
    m_pStretch = take(2L * m_nStretchRoom);
    for (int c = 0; c < 2; ++c) {
        m_pPreIn[c] = take(kHistory + kPreChunk);
        m_pPreOut[c] = take(kPreChunk + 1);
    }
    m_pBuckets = take(kBuckets);
    m_bSized = true;
}

void CCrisp::StartToProcess() {
    std::lock_guard lock(m_cs);
    m_bMono = std::exchange(m_bMonoNext, false); // for this job only
    // sized again for a job whose step in front wants another window (never during processing:
    // a restart there keeps the window it has)
    if (m_bSized && MainWindow(m_nRate, PreFor(m_dPitchNext, m_nRate)) != m_Vocoder.Window())
        m_bSized = false;
    Restart();
    if (m_bRestartDue)
        Rebuild(); // here, so that processing never allocates
}

void CCrisp::Restart() {
    m_bOnsets = m_bOnsetsNext;
    m_dTime = m_dTimeNext;
    m_dPitch = m_dPitchNext;
    m_dPre = PreFor(m_dPitch, m_nRate);
    m_nIn = m_nKeepFrom = m_nTaken = m_nWatched = 0;
    // The ring starts at a quarter of its room and doubles whenever the frames wait on more than
    // it holds (most settings need half of it, the slowest stretches all): a short job touches
    // only the pages its settings need.
    m_nWrap = m_nRingSize / 4;
    m_nDownWrap = m_nWrap / kDown;
    m_nPreFlushed = 0;
    m_bFinal = m_bDone = false;
    m_nFrame = m_nLastRead = 0;
    m_bMainCentre = false;
    m_nLowFrame = m_nLowLastRead = 0;
    m_dLowMadeAt = -kInf;
    m_nDown = 0;
    m_bLowSkipped = m_bLowSettling = false;
    m_nLowFirst = m_nLowCount = 0;
    m_nLastStop = std::numeric_limits<int64_t>::min() / 2;
    m_nHopsCentre = m_nDetectAt = std::numeric_limits<int64_t>::min() / 2;
    m_dLowPassed = -kInf;
    std::fill(std::begin(m_dLowS), std::end(m_dLowS), 0.0);
    m_dLastOnset = -1;
    m_nStretchEnd = -1;
    m_dOutBase = m_dInBase = 0;
    m_nOut = 0;
    m_bRestartDue = true;
    if (m_bSized)
        Rebuild();
}

// The part of a restart that needs the buffers, from the settings the restart took; done at
// the first job when the buffers are not made yet.
void CCrisp::Rebuild() {
    if (!m_bSized)
        Size();
    m_Map.Restart(m_dTime * m_dPitch);
    m_Map.SetHorizon(m_bOnsets ? -kInf : kInf);
    m_LowMap.Restart(m_dTime * m_dPitch);
    m_LowMap.SetHorizon(m_bOnsets ? -kInf : kInf);
    m_Onsets.Restart();
    m_Guard.Restart();
    m_Vocoder.Restart();
    m_Low.Restart();
    m_nLowEnd = static_cast<int64_t>(LowOutputCentre(0) - m_nLowWindow / 2.0);
    for (float* x : m_pLowOut)
        std::fill(x, x + m_nLowRing, 0.0f);
    m_Resample.Design(m_dPitch / m_dPre);
    std::fill(m_pStretch, m_pStretch + 2L * m_nStretchRoom, 0.0f);
    if (m_dPre != 1.0) { // (its table kept from job to job at the same rate)
        m_Pre.Design(m_dPre);
        for (float* x : m_pPreIn)
            std::fill(x, x + kHistory, 0.0f);
    }
    m_nStretched = static_cast<int64_t>(OutputCentre(0) - m_Vocoder.Window() / 2.0);
    m_bRestartDue = false;
}

int64_t CCrisp::Target() const {
    return std::llround(m_dOutBase + (m_nTaken - m_dInBase) * m_dTime);
}

// What the resampler has yet to give, at its rate now: a job whose pitch changed is not at that
// rate from its start.
int64_t CCrisp::StretchEnd() const {
    return std::max<int64_t>(m_nStretched, 0) +
           static_cast<int64_t>(std::ceil((Target() - m_nOut) * (m_dPitch / m_dPre))) +
           m_Resample.Delay();
}

double CCrisp::OutputCentre(int64_t frame) const {
    const int window = m_Vocoder.Window(), hop = m_Vocoder.Hop();
    // the first frames start before the output does, so that its first samples are whole
    return double(frame) * hop - (window - hop) + window / 2.0;
}

double CCrisp::LowOutputCentre(int64_t frame) const {
    const int window = m_nLowWindow, hop = window / 4;
    return double(frame) * hop - (window - hop) + window / 2.0;
}

// A change during a job: the map goes on from the last frame at the new pace, and the output
// owed for the input after it is counted at the new time rate.
void CCrisp::ApplyRates() {
    if (m_dTimeNext == m_dTime && m_dPitchNext == m_dPitch)
        return;
    if (m_nFrame == 0) {
        Restart();
        return;
    }
    const double o = OutputCentre(m_nFrame - 1);
    const double c = m_nLastRead + m_Vocoder.Window() / 2.0;
    m_dOutBase += (c * m_dPre - m_dInBase) * m_dTime;
    m_dInBase = c * m_dPre;
    m_dTime = m_dTimeNext;
    if (m_dPitchNext != m_dPitch) {
        m_dPitch = m_dPitchNext;
        m_Resample.Design(m_dPitch / m_dPre);
    }
    m_Map.Rebase(m_dTime * m_dPitch, c, o);
    m_bMainCentre = false; // asked again, of the new map
    // the low map goes on from the same point, so that both bands keep one map
    m_LowMap.Rebase(m_dTime * m_dPitch, c, o);
    if (m_bFinal)
        m_nStretchEnd = StretchEnd();
}

void CCrisp::Gather(int64_t at, int n, const float** frame) const {
    ReadRing(m_pRing, m_bMono ? 1 : 2, m_nWrap, m_nIn, at, n, m_pFrame, frame);
    if (m_bMono)
        frame[1] = m_pSilence; // (silent: the vocoders skip its transforms)
}

const float* CCrisp::GatherMono(int64_t at, int n) {
    const float* frame[2] = {};
    Gather(at, n, frame);
    if (m_bMono) // (the mean of two of the same)
        std::copy(frame[0], frame[0] + n, m_pMono);
    else
        for (int i = 0; i < n; ++i)
            m_pMono[i] = 0.5f * (frame[0][i] + frame[1][i]);
    return m_pMono;
}

// The detector's frames move on by a hop: each takes the last one's samples and the mean of
// only the hop that is new.
const float* CCrisp::DetectorFrame(int64_t at, int n) {
    const int hop = m_Onsets.Hop();
    const int64_t from = at == m_nDetectAt + hop ? at + n - hop : at;
    if (from > at)
        std::memmove(m_pDetect, m_pDetect + hop, sizeof(float) * (n - hop));
    const float* mono = GatherMono(from, static_cast<int>(at + n - from));
    std::copy(mono, mono + (at + n - from), m_pDetect + (from - at));
    m_nDetectAt = at;
    return m_pDetect;
}

void CCrisp::FeedDetector() {
    if (!m_bOnsets)
        return;
    const int frame = m_Onsets.FrameLength(), half = frame / 2;
    for (;;) {
        const int64_t centre = m_Onsets.NextCentre();
        if (m_bFinal ? centre - half > m_nIn + CCrispOnsets::kLead * m_Onsets.Hop()
                     : centre + half > m_nIn)
            break;
        const float* mono = DetectorFrame(centre - half, frame);
        // A sound cut off short: the long window would spread its end into a ragged tail. (The
        // energies of the frame's four hops, each worked out once: the frames move on by one.)
        const int hop = m_Onsets.Hop();
        if (centre == m_nHopsCentre + hop) {
            std::copy(m_dHops + 1, m_dHops + 4, m_dHops);
            m_dHops[3] = CCrispOnsets::Energy(mono + 3 * hop, hop);
        } else {
            for (int k = 0; k < 4; ++k)
                m_dHops[k] = CCrispOnsets::Energy(mono + k * hop, hop);
        }
        m_nHopsCentre = centre;
        if (CCrispOnsets::Stops(m_dHops[0] + m_dHops[1], m_dHops[2] + m_dHops[3], frame) &&
            centre - m_nLastStop > frame) {
            m_nLastStop = centre;
            KeepLowAway(double(centre + half / 2));
        }
        int64_t onset = m_Onsets.Analyse(mono);
        if (onset >= 0) {
            // (each gathered apart: the mono frame holds one)
            const int n = m_Onsets.LongFrame();
            std::copy_n(GatherMono(onset + m_Onsets.LongBefore(), n), n, m_pLongBefore);
            if (!m_Onsets.Holds(m_pLongBefore, GatherMono(onset + m_Onsets.LongAfter(), n)))
                onset = -1;
        }
        if (onset >= 0) {
            GatherMono(onset - half, frame);
            const double t =
                double(onset - half + CCrispOnsets::Refine(m_pMono, frame, frame / 16));
            m_Map.AddOnset(t);
            m_LowMap.AddOnset(t);
            KeepLowAway(t);
        }
    }
    const bool all =
        m_bFinal && m_Onsets.NextCentre() - half > m_nIn + CCrispOnsets::kLead * m_Onsets.Hop();
    // A refined onset lies at most half a frame before its frame's centre.
    m_Map.SetHorizon(all ? kInf : double(m_Onsets.Undecided() - half));
    m_LowMap.SetHorizon(all ? kInf : double(m_Onsets.Undecided() - half));
}

// Kept in order: onsets are decided some frames after the stops found beside them.
void CCrisp::KeepLowAway(double t) {
    const auto at = [&](int k) -> double& { return m_dLowOnset[(m_nLowFirst + k) % kLowOnsets]; };
    int k = m_nLowCount;
    while (k > 0 && at(k - 1) >= t) {
        if (std::fabs(at(k - 1) - t) < 1)
            return; // there already
        --k;
    }
    if (m_nLowCount == kLowOnsets)
        return;
    for (int j = m_nLowCount; j > k; --j)
        at(j) = at(j - 1);
    at(k) = t;
    ++m_nLowCount;
}

bool CCrisp::MainCentre(double* c) {
    if (!m_bMainCentre && !m_Map.Centre(OutputCentre(m_nFrame), &m_dMainCentre))
        return false;
    m_bMainCentre = true;
    *c = m_dMainCentre;
    return true;
}

// None within half a low window of an onset or of the job's start, in the input or in the
// output: its frames there would smear the attack before and after it (when the output runs
// slower than the input, a frame read past an onset still reaches back over it).
double CCrisp::LowShare(double c, double o) const {
    const double reach = m_nLowWindow / 2.0;
    if (c < reach)
        return 0;
    for (int k = 0; k < m_nLowCount; ++k) {
        const double t = m_dLowOnset[(m_nLowFirst + k) % kLowOnsets];
        if (std::fabs(c - t) < reach || std::fabs(o - m_LowMap.Output(t)) < reach)
            return 0;
    }
    return 1;
}

// The low frames' shares under their synthesis windows (squared, over their sum of 1.5): the
// short window takes the rest, so that the bands add up to the whole as shares change.
double CCrisp::LowWeight(double o) const {
    const int window = m_nLowWindow;
    double sum = 0;
    for (int k = 0; k < kLowShares; ++k) {
        const double n = o - m_dLowO[k] + window / 2.0;
        if (m_dLowS[k] > 0 && n > 0 && n < window) {
            const double w = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * n / window);
            sum += m_dLowS[k] * w * w;
        }
    }
    return std::min(sum / 1.5, 1.0);
}

bool CCrisp::NextLowFrame() {
    const int window = m_nLowWindow, hop = window / 4;
    const double o = LowOutputCentre(m_nLowFrame);
    double c = 0;
    if (!m_LowMap.Centre(o, &c))
        return false;
    // read at a multiple of kDown, from the quarter-rate input
    const int64_t at = kDown * std::llround((c - window / 2.0) / kDown);
    if (!m_bFinal && at / kDown + m_Low.Window() > m_nDown)
        return false;
    const double read = double(at) + window / 2.0;
    // An onset passed: the low band is heard again only once its spectrum holds still (a kick's
    // glide, stretched over its long frames, would not sound whole).
    const auto onset = [&](int k) { return m_dLowOnset[(m_nLowFirst + k) % kLowOnsets]; };
    for (int k = 0; k < m_nLowCount && onset(k) <= read; ++k)
        if (onset(k) > m_dLowPassed) {
            m_dLowPassed = onset(k);
            m_bLowSettling = true;
        }
    while (m_nLowCount && onset(0) + window / 2.0 <= read) {
        m_nLowFirst = (m_nLowFirst + 1) % kLowOnsets;
        --m_nLowCount;
    }
    double share = LowShare(read, o);
    const bool make = share > 0;
    if (make) {
        // a frame not made before this one is analysed now, for its peaks' frequencies
        if (m_bLowSkipped) {
            const float* frame[2] = {};
            GatherDown(m_nLowLastRead / kDown, frame);
            m_Low.Prime(frame[0], frame[1]);
        }
        double align = std::numeric_limits<double>::quiet_NaN();
        if (m_bLowSkipped || m_bLowSettling || m_nLowFrame == 0) {
            if (m_nFrame > 0) {
                // taking the low bins back: the short window's phases, as it made them, at
                // about the shift between its output and its input
                const double lag =
                    OutputCentre(m_nFrame - 1) - (m_nLastRead + m_Vocoder.Window() / 2.0);
                m_Low.Join(&m_Vocoder, o - OutputCentre(m_nFrame - 1), kDown,
                           (o - lag - read) / kDown);
            } else {
                // the job's start: the short window's first frame, as it will read it
                double c0 = 0;
                if (!MainCentre(&c0))
                    return false;
                align = o + std::llround(c0 - m_Vocoder.Window() / 2.0) + m_Vocoder.Window() / 2.0 -
                        OutputCentre(0) - read;
            }
        }
        const float* frame[2] = {};
        GatherDown(at / kDown, frame);
        share =
            m_Low.Frame(frame[0], frame[1],
                        static_cast<int>(m_nLowFrame ? (at - m_nLowLastRead) / kDown : m_Low.Hop()),
                        false, share, align / kDown, m_bLowSettling ? kSteady : 0.0);
        if (share > 0)
            m_bLowSettling = false;
        m_dLowMadeAt = o;
    }
    m_bLowSkipped = !make;
    m_nLowLastRead = at;
    m_dLowO[m_nLowFrame % kLowShares] = o;
    m_dLowS[m_nLowFrame % kLowShares] = share;
    ++m_nLowFrame;
    m_Low.Take(m_pFrame[0], m_pFrame[1]); // the frame is read: its room holds a hop
    for (int ch = 0; ch < 2; ++ch)
        for (int i = 0; i < m_Low.Hop(); ++i)
            m_pLowOut[ch][(m_nLowEnd / kDown + i) & (m_nLowRing - 1)] = m_pFrame[ch][i];
    m_nLowEnd += hop;
    return true;
}

bool CCrisp::NextFrame(float** out, int* produced) {
    const int window = m_Vocoder.Window(), hop = m_Vocoder.Hop();
    if (m_nStretchEnd >= 0 && m_nStretched >= m_nStretchEnd) {
        Finish(out, produced);
        return false;
    }
    // the low band first, far enough for this hop and the shares under this frame
    while (m_bLow && m_nLowEnd < m_nStretched + window / 2 + kReach)
        if (!NextLowFrame())
            return false;
    double c = 0;
    if (!MainCentre(&c))
        return false;
    const int64_t at = std::llround(c - window / 2.0);
    if (!m_bFinal && at + window > m_nIn)
        return false;
    const double onset = m_Map.OnsetAt(c);
    const bool reset = onset >= 0 && onset != m_dLastOnset;
    if (reset) {
        // the spectrum with the attack a quarter into the window
        const int64_t from = std::llround(onset) - window / 4;
        if (!m_bFinal && from + window > m_nIn)
            return false;
        const float* frame[2] = {};
        Gather(from, window, frame);
        m_Vocoder.Attack(frame[0], frame[1]);
        m_dLastOnset = onset;
    }
    const float* frame[2] = {};
    Gather(at, window, frame);
    // Where both bands are heard, the low bins follow the low band's phases here too, so that
    // the crossover and the hand-over at an onset add the same partial in phase.
    const double o = OutputCentre(m_nFrame);
    if (m_bLow && std::fabs(o - m_dLowMadeAt) <= hop * 4 && LowWeight(o) > 0)
        m_Vocoder.Join(&m_Low, (o - m_dLowMadeAt) / kDown, 1.0 / kDown);
    m_Vocoder.Frame(frame[0], frame[1], m_nFrame ? static_cast<int>(at - m_nLastRead) : hop, reset,
                    m_bLow ? LowWeight(OutputCentre(m_nFrame)) : 0.0);
    m_nLastRead = at;
    // (an attack's spectrum is read at most a tenth of a window before the next frame)
    m_nKeepFrom = std::clamp<int64_t>(at - window / 4, m_nKeepFrom, m_nIn);
    ++m_nFrame;
    m_bMainCentre = false;

    m_Vocoder.Take(m_pHop[0], m_pHop[1]);
    if (m_bLow)
        AddLow(m_nStretched, hop);
    const int64_t from = std::max<int64_t>(m_nStretched, 0);
    const int64_t skip = from - m_nStretched;
    m_nStretched += hop;
    // (the map has read the onsets that far ahead before it placed this frame)
    WatchTo(m_bOnsets ? static_cast<int64_t>(c + m_Map.Lookahead()) : at + window);
    if (m_nStretched > from)
        Emit(out, produced, m_pHop[0] + skip, m_pHop[1] + skip,
             static_cast<int>(m_nStretched - from));
    return true;
}

void CCrisp::GatherDown(int64_t at, const float** frame) {
    ReadRing(m_pDown, m_bMono ? 1 : 2, m_nDownWrap, m_nDown, at, m_Low.Window(), m_pFrame, frame);
    if (m_bMono)
        frame[1] = m_pSilence;
}

// The low band's quarter-rate output, back at the full rate, added to the hop from `from`.
void CCrisp::AddLow(int64_t from, int n) {
    // the quarter-rate samples that reach the hop, in a straight run (the frame's room is free)
    const int64_t first = FloorDiv(from - kReach, kDown);
    const int count = static_cast<int>(FloorDiv(from + n - 1 + kReach, kDown) - first + 1);
    const int channels = m_bMono ? 1 : 2;
    for (int ch = 0; ch < channels; ++ch)
        for (int k = 0; k < count; ++k)
            m_pFrame[ch][k] = m_pLowOut[ch][(first + k) & (m_nLowRing - 1)];
    // output i: phase (from + i + kReach) mod kDown, from quarter-rate sample (...) / kDown
    static_assert(kDown == 4, "the kernel interpolates by four");
    const int64_t top = FloorDiv(from + kReach, kDown);
    const float* run[2] = {m_pFrame[0] + (top - first), m_pFrame[1] + (top - first)};
    CCrispKernels::Upsample(&m_fPhase[0][0], kPhaseTaps, run,
                            static_cast<int>(from + kReach - kDown * top), n, m_pHop, channels);
}

int64_t CCrisp::Room() const {
    const int64_t room = m_nWrap - (m_nIn - m_nKeepFrom);
    if (!m_bLow)
        return room;
    // The filter runs up to its reach behind the input, and the low frames read from their last
    // read on: the quarter-rate ring must not wrap onto that.
    const int64_t kept = std::max<int64_t>(m_nLowLastRead, 0) / kDown;
    return std::min(room, kDown * (kept + m_nDownWrap - 1) - kReach - m_nIn);
}

bool CCrisp::Grow() {
    // the ring whose room ran out: the quarter-rate one when its room is the less
    const bool down = m_bLow && Room() < m_nWrap - (m_nIn - m_nKeepFrom);
    float* const* ring = down ? m_pDown : m_pRing;
    int64_t& wrap = down ? m_nDownWrap : m_nWrap;
    if (wrap >= (down ? m_nDownRing : m_nRingSize))
        return false;
    for (int c = 0; c < (m_bMono ? 1 : 2); ++c)
        Rewrap(ring[c], down ? m_nDown : m_nIn, wrap, 2 * wrap);
    wrap *= 2;
    return true;
}

// The input at a quarter of the rate, as far as it can be filtered (all of it at the end).
void CCrisp::Decimate() {
    const int channels = m_bMono ? 1 : 2;
    for (;;) {
        const int64_t t = kDown * m_nDown, lo = t - kReach;
        if (m_bFinal ? lo >= m_nIn : t + kReach >= m_nIn)
            break;
        const int64_t wrap = m_nDownWrap;
        const int64_t at = lo & (m_nWrap - 1);
        const int64_t to = m_nDown & (wrap - 1);
        if (lo >= 0 && t + kReach < m_nIn && at + 2 * kReach < m_nWrap) {
            // a run of outputs whose taps lie within the input and in one run of the ring, and
            // that fit before the quarter-rate ring wraps
            const int64_t count =
                std::min({(m_nIn - 1 - kReach - t) / kDown + 1,
                          (m_nWrap - 1 - 2 * kReach - at) / kDown + 1, wrap - to});
            const float* in[2] = {m_pRing[0] + at, m_pRing[1] + at};
            float* down[2] = {m_pDown[0] + to, m_pDown[1] + to};
            CCrispKernels::Decimate(m_fTaps, kReach, in, static_cast<int>(count), down, channels);
            m_nDown += count;
            continue;
        }
        // at the ends and where the ring wraps: the same filter on a copy, zeros outside the input
        float run[2][2 * kReach + 1];
        for (int ch = 0; ch < channels; ++ch)
            for (int i = -kReach; i <= kReach; ++i)
                run[ch][i + kReach] =
                    t + i >= 0 && t + i < m_nIn ? m_pRing[ch][(t + i) & (m_nWrap - 1)] : 0.0f;
        const float* in[2] = {run[0], run[1]};
        float* down[2] = {m_pDown[0] + to, m_pDown[1] + to};
        CCrispKernels::Decimate(m_fTaps, kReach, in, 1, down, channels);
        ++m_nDown;
    }
}

void CCrisp::Emit(float** out, int* produced, const float* left, const float* right, int n) {
    float* l = m_pStretch + kHistory;
    // (a mono job's right is its left, read through the same filter)
    float* r = m_bMono ? l : l + m_nStretchRoom;
    const int channels = m_bMono ? 1 : 2;
    // read at 1, the frames are copied from where they are; else after the history
    const bool direct = m_Resample.AsItIs();
    if (!direct) {
        std::copy(left, left + n, l);
        if (!m_bMono)
            std::copy(right, right + n, r);
    }
    // (after the frames the guard keeps pending there)
    const int pending = m_Guard.Pending();
    float* dest[2] = {out[0] + *produced + pending, out[1] + *produced + pending};
    float loudest = 0;
    int k = direct ? m_Resample.Read(dest, left, m_bMono ? left : right, n, &loudest)
                   : m_Resample.Read(dest, l, r, n, &loudest);
    k = m_Guard.Run(out[0] + *produced, out[1] + *produced, k, loudest, &m_bOver);
    // Frames past the job's length are dropped.
    if (m_nStretchEnd >= 0)
        k = static_cast<int>(std::clamp<int64_t>(Target() - m_nOut, 0, k));
    *produced += k;
    m_nOut += k;
    // the history: the last kHistory frames, for a read at another rate
    for (int c = 0; c < channels; ++c) {
        float* h = (c ? r : l) - kHistory;
        const float* from = c ? right : left;
        if (!direct)
            std::memmove(h, h + n, sizeof(float) * kHistory);
        else if (n >= kHistory)
            std::copy(from + n - kHistory, from + n, h);
        else {
            std::memmove(h, h + n, sizeof(float) * (kHistory - n));
            std::copy(from, from + n, h + kHistory - n);
        }
    }
}

int CCrisp::TakeRead(float* const* in, int count, bool last, bool* fed) {
    const int channels = m_bMono ? 1 : 2;
    float* l = m_pPreIn[0] + kHistory;
    float* r = m_bMono ? l : m_pPreIn[1] + kHistory;
    int done = 0;
    for (;;) {
        int n = count > done ? count - done : last ? m_Pre.Delay() - m_nPreFlushed : 0;
        // n frames give at most n / m_dPre + 1
        const int64_t space = Room() - 2;
        n = static_cast<int>(std::min<double>({double(n), kPreChunk, space * m_dPre}));
        if (n <= 0)
            break;
        for (int c = 0; c < channels; ++c) {
            float* to = c ? r : l;
            if (done < count)
                SampleClean::CleanCopy(in[c] + done, to, n);
            else
                std::fill(to, to + n, 0.0f);
        }
        if (done < count)
            Bucket(l, r, m_nTaken + done, n);
        float loudest = 0; // (of the input read: not the output's)
        float* dest[2] = {m_pPreOut[0], m_pPreOut[1]};
        const int k = m_Pre.Read(dest, l, r, n, &loudest);
        for (int c = 0; c < channels; ++c)
            for (int w = 0; w < k;) {
                const int64_t i = (m_nIn + w) & (m_nWrap - 1);
                const int part = static_cast<int>(std::min<int64_t>(k - w, m_nWrap - i));
                std::memcpy(m_pRing[c] + i, dest[c] + w, sizeof(float) * part);
                w += part;
            }
        m_nIn += k;
        *fed = *fed || k > 0;
        std::memmove(l - kHistory, l - kHistory + n, sizeof(float) * kHistory);
        if (!m_bMono)
            std::memmove(r - kHistory, r - kHistory + n, sizeof(float) * kHistory);
        if (done < count)
            done += n;
        else
            m_nPreFlushed += n;
    }
    m_nTaken += done;
    return done;
}

void CCrisp::Finish(float** out, int* produced) {
    // Silence through the resampler and the guard pushes out what they hold back; the rest is
    // padded.
    const int hop = m_Vocoder.Hop();
    std::fill(m_pHop[0], m_pHop[0] + hop, 0.0f);
    std::fill(m_pHop[1], m_pHop[1] + hop, 0.0f);
    WatchTo(m_nIn);
    for (int pushed = 0; pushed < m_Resample.Delay() + m_Guard.Delay(); pushed += hop)
        Emit(out, produced, m_pHop[0], m_pHop[1], hop);
    const int64_t pad = std::max<int64_t>(Target() - m_nOut, 0);
    std::fill(out[0] + *produced, out[0] + *produced + pad, 0.0f);
    std::fill(out[1] + *produced, out[1] + *produced + pad, 0.0f);
    *produced += static_cast<int>(pad);
    m_nOut += pad;
    m_bDone = true;
}

void CCrisp::Bucket(const float* left, const float* right, int64_t at, int n) {
    for (int i = 0; i < n;) {
        const int into = static_cast<int>((at + i) % kBucket);
        const int k = std::min(n - i, kBucket - into);
        const float loudest = CCrispKernels::Loudest(left + i, right + i, k);
        float& bucket = m_pBuckets[((at + i) / kBucket) & (kBuckets - 1)];
        bucket = into == 0 ? loudest : std::max(bucket, loudest);
        i += k;
    }
}

void CCrisp::WatchTo(int64_t until) {
    until = std::min(until, m_nIn);
    if (m_dPre != 1.0) {
        // The ring holds the input read at the pitch rate, whose peaks its filter may have
        // lowered: the guard hears the input as received, in whole buckets, up to where the
        // ring's frame until came from (all of them once the input has ended and all is heard).
        const int64_t taken = std::min(static_cast<int64_t>(until * m_dPre), m_nTaken);
        const int64_t full =
            m_bFinal && until == m_nIn ? (m_nTaken + kBucket - 1) / kBucket : taken / kBucket;
        for (; m_nWatched < full; ++m_nWatched)
            m_Guard.Hear(m_pBuckets[m_nWatched & (kBuckets - 1)]);
        return;
    }
    for (const int right = m_bMono ? 0 : 1; m_nWatched < until;) {
        const int64_t i = m_nWatched & (m_nWrap - 1);
        const int k = static_cast<int>(std::min(until - m_nWatched, m_nWrap - i));
        m_Guard.Watch(m_pRing[0] + i, m_pRing[right] + i, k);
        m_nWatched += k;
    }
}

bool CCrisp::MakeFrames(float** out, int* produced) {
    FeedDetector();
    if (m_bLow)
        Decimate();
    bool moved = false;
    while (!StepDone(*produced) && NextFrame(out, produced))
        moved = true;
    return moved;
}

bool CCrisp::StepDone(int produced) const {
    return m_bFinal && m_nFlushStep > 0 && produced >= m_nFlushStep;
}

void CCrisp::SetFlushStep(int frames) {
    std::lock_guard lock(m_cs);
    m_nFlushStep = std::max(frames, 0);
}

bool CCrisp::Flushing() {
    std::lock_guard lock(m_cs);
    return m_bFinal && !m_bDone;
}

int CCrisp::Flush(float** out) {
    std::lock_guard lock(m_cs);
    if (!m_bFinal || m_bDone)
        return 0;
    // The input has ended and the detector and the low band have had all of it: only frames
    // are left to make, as the last block would have gone on making them.
    m_Guard.Resume(out[0], out[1]);
    int produced = 0;
    for (;;) {
        const bool moved = MakeFrames(out, &produced);
        if (StepDone(produced) || m_bDone || !moved)
            break;
    }
    m_Guard.Stash(out[0] + produced, out[1] + produced);
    return produced;
}

int CCrisp::Process(float** out, float** in, int count, bool last) {
    std::lock_guard lock(m_cs);
    count = std::max(count, 0);
    if (m_bRestartDue)
        Rebuild(); // a caller that did not start the job
    ApplyRates();
    if (!m_bActive || (m_dTime == 1.0 && m_dPitch == 1.0)) {
        SampleClean::CleanCopy(in[0], out[0], count);
        SampleClean::CleanCopy(in[m_bMono ? 0 : 1], out[1], count);
        return count;
    }
    int produced = 0;
    if (m_bDone)
        return 0;
    m_Guard.Resume(out[0], out[1]);
    int taken = 0;
    for (;;) {
        int accepted = 0;
        bool fed = false;
        if (!m_bFinal && m_dPre != 1.0) {
            float* const at[2] = {in[0] + taken, in[m_bMono ? 0 : 1] + taken};
            accepted = TakeRead(at, count - taken, last, &fed);
            taken += accepted;
        } else if (!m_bFinal) {
            const int64_t space = Room();
            accepted = static_cast<int>(std::min<int64_t>(space, count - taken));
            for (int c = 0; c < (m_bMono ? 1 : 2); ++c) {
                int64_t f = m_nIn;
                int done = 0;
                while (done < accepted) {
                    const int64_t i = f & (m_nWrap - 1);
                    const int k = static_cast<int>(std::min<int64_t>(accepted - done, m_nWrap - i));
                    SampleClean::CleanCopy(in[c] + taken + done, m_pRing[c] + i, k);
                    done += k;
                    f += k;
                }
            }
            m_nIn += accepted;
            m_nTaken += accepted;
            taken += accepted;
            fed = accepted > 0;
        }
        if (!m_bFinal && taken == count && last &&
            (m_dPre == 1.0 || m_nPreFlushed >= m_Pre.Delay())) {
            m_bFinal = true;
            m_nStretchEnd = StretchEnd();
        }
        const bool moved = MakeFrames(out, &produced);
        if (StepDone(produced))
            break;
        // A ring too short for what the frames wait on takes nothing more: it grows.
        if (!moved && !fed && !m_bFinal && (taken < count || last) && Grow())
            continue;
        if (m_bDone || (taken == count && !m_bFinal && !last) || (!moved && !fed))
            break;
    }
    m_Guard.Stash(out[0] + produced, out[1] + produced);
    return produced;
}
