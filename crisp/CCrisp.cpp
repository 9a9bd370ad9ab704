#include "CCrisp.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>

#include "SampleClean.h"
#include "SampleRateRange.h"

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
// The resampler's history sits in front of each hop it reads; it never needs more than this.
constexpr int kHistory = CCrispResample::kMaxHistory;

double SafeRate(double rate) {
    return rate == rate ? std::clamp(rate, 0.5, 2.0) : 1.0;
}

// 46 ms at 44.1 kHz: long enough to resolve the partials of low notes, short enough that an
// attack's 1:1 stretch stays short. Taken as the nearest power of two, so 48 kHz keeps 2048.
int WindowFor(int rate) {
    const double ideal = 0.0464 * rate;
    int n = 256;
    while (n < CRealFft::kMaxPoints &&
           std::fabs(std::log2(2.0 * n / ideal)) < std::fabs(std::log2(n / ideal)))
        n *= 2;
    return n;
}

} // namespace

CCrisp::CCrisp() {
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
    const int window = WindowFor(m_nRate);
    m_Vocoder.Configure(window);
    m_Onsets.Configure(window / 2, m_nRate);
    m_Map.Configure(window);
    const int hop = m_Vocoder.Hop();
    m_nStretchRoom = 2 * kHistory + hop;
    // One zeroed allocation, in the order of the members that view it.
    m_pStore = std::make_unique<float[]>(2 * (m_nRingSize + window + hop) + window / 2 +
                                         2L * m_nStretchRoom);
    float* next = m_pStore.get();
    const auto take = [&](int64_t n) { return std::exchange(next, next + n); };
    for (int c = 0; c < 2; ++c) {
        m_pRing[c] = take(m_nRingSize);
        m_pFrame[c] = take(window);
        m_pHop[c] = take(hop);
    }
    m_pMono = take(window / 2);
    m_pStretch = take(2L * m_nStretchRoom);
    m_bSized = true;
}

void CCrisp::StartToProcess() {
    std::lock_guard lock(m_cs);
    Restart();
    if (m_bRestartDue)
        Rebuild(); // here, so that processing never allocates
}

void CCrisp::Restart() {
    m_bOnsets = m_bOnsetsNext;
    m_dTime = m_dTimeNext;
    m_dPitch = m_dPitchNext;
    m_nIn = m_nKeepFrom = 0;
    m_bFinal = m_bDone = false;
    m_nFrame = m_nLastRead = 0;
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
    m_Onsets.Restart();
    m_Vocoder.Restart();
    m_Resample.Design(m_dPitch);
    std::fill(m_pStretch, m_pStretch + 2L * m_nStretchRoom, 0.0f);
    m_nStretched = static_cast<int64_t>(OutputCentre(0) - m_Vocoder.Window() / 2.0);
    m_bRestartDue = false;
}

int64_t CCrisp::Target() const {
    return std::llround(m_dOutBase + (m_nIn - m_dInBase) * m_dTime);
}

double CCrisp::OutputCentre(int64_t frame) const {
    const int window = m_Vocoder.Window(), hop = m_Vocoder.Hop();
    // the first frames start before the output does, so that its first samples are whole
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
    m_dOutBase += (c - m_dInBase) * m_dTime;
    m_dInBase = c;
    m_dTime = m_dTimeNext;
    if (m_dPitchNext != m_dPitch) {
        m_dPitch = m_dPitchNext;
        m_Resample.Design(m_dPitch);
    }
    m_Map.Rebase(m_dTime * m_dPitch, c, o);
}

void CCrisp::Gather(int64_t at, int n, float* left, float* right) const {
    float* to[2] = {left, right};
    const int64_t from = std::clamp<int64_t>(at, std::max<int64_t>(0, m_nIn - m_nRingSize), at + n);
    const int64_t until = std::clamp<int64_t>(m_nIn, from, at + n);
    for (int c = 0; c < 2; ++c) {
        std::fill(to[c], to[c] + (from - at), 0.0f);
        int64_t f = from;
        while (f < until) {
            const int64_t i = f & (m_nRingSize - 1);
            const int64_t k = std::min(until - f, m_nRingSize - i);
            std::memcpy(to[c] + (f - at), m_pRing[c] + i, sizeof(float) * k);
            f += k;
        }
        std::fill(to[c] + (until - at), to[c] + n, 0.0f);
    }
}

const float* CCrisp::GatherMono(int64_t at, int n) {
    Gather(at, n, m_pFrame[0], m_pFrame[1]);
    for (int i = 0; i < n; ++i)
        m_pMono[i] = 0.5f * (m_pFrame[0][i] + m_pFrame[1][i]);
    return m_pMono;
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
        const int64_t onset = m_Onsets.Analyse(GatherMono(centre - half, frame));
        if (onset >= 0) {
            GatherMono(onset - half, frame);
            m_Map.AddOnset(double(onset - half + CCrispOnsets::Refine(m_pMono, frame, frame / 16)));
        }
    }
    const bool all =
        m_bFinal && m_Onsets.NextCentre() - half > m_nIn + CCrispOnsets::kLead * m_Onsets.Hop();
    // A refined onset lies at most half a frame before its frame's centre.
    m_Map.SetHorizon(all ? kInf : double(m_Onsets.Undecided() - half));
}

bool CCrisp::NextFrame(float** out, int* produced) {
    const int window = m_Vocoder.Window(), hop = m_Vocoder.Hop();
    if (m_nStretchEnd >= 0 && m_nStretched >= m_nStretchEnd) {
        Finish(out, produced);
        return false;
    }
    double c = 0;
    if (!m_Map.Centre(OutputCentre(m_nFrame), &c))
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
        Gather(from, window, m_pFrame[0], m_pFrame[1]);
        m_Vocoder.Attack(m_pFrame[0], m_pFrame[1]);
        m_dLastOnset = onset;
    }
    Gather(at, window, m_pFrame[0], m_pFrame[1]);
    m_Vocoder.Frame(m_pFrame[0], m_pFrame[1], m_nFrame ? static_cast<int>(at - m_nLastRead) : hop,
                    reset);
    m_nLastRead = at;
    m_nKeepFrom = std::clamp<int64_t>(at, m_nKeepFrom, m_nIn);
    ++m_nFrame;

    m_Vocoder.Take(m_pHop[0], m_pHop[1]);
    const int64_t from = std::max<int64_t>(m_nStretched, 0);
    const int64_t skip = from - m_nStretched;
    m_nStretched += hop;
    if (m_nStretched > from)
        Emit(out, produced, m_pHop[0] + skip, m_pHop[1] + skip,
             static_cast<int>(m_nStretched - from));
    return true;
}

void CCrisp::Emit(float** out, int* produced, const float* left, const float* right, int n) {
    float* data = m_pStretch + 2 * kHistory;
    for (int i = 0; i < n; ++i) {
        data[2 * i] = left[i];
        data[2 * i + 1] = right[i];
    }
    float* dest[2] = {out[0] + *produced, out[1] + *produced};
    int k = m_Resample.Read(dest, data, n, &m_bOver);
    // Frames past the job's length are dropped.
    if (m_nStretchEnd >= 0)
        k = static_cast<int>(std::clamp<int64_t>(Target() - m_nOut, 0, k));
    *produced += k;
    m_nOut += k;
    std::memmove(m_pStretch, m_pStretch + 2L * n, sizeof(float) * 2 * kHistory);
}

void CCrisp::Finish(float** out, int* produced) {
    // Silence through the resampler pushes out what it holds back; the rest is padded.
    const int hop = m_Vocoder.Hop();
    std::fill(m_pHop[0], m_pHop[0] + hop, 0.0f);
    std::fill(m_pHop[1], m_pHop[1] + hop, 0.0f);
    for (int pushed = 0; pushed < m_Resample.Delay(); pushed += hop)
        Emit(out, produced, m_pHop[0], m_pHop[1], hop);
    const int64_t pad = std::max<int64_t>(Target() - m_nOut, 0);
    std::fill(out[0] + *produced, out[0] + *produced + pad, 0.0f);
    std::fill(out[1] + *produced, out[1] + *produced + pad, 0.0f);
    *produced += static_cast<int>(pad);
    m_nOut += pad;
    m_bDone = true;
}

int CCrisp::Process(float** out, float** in, int count, bool last) {
    std::lock_guard lock(m_cs);
    count = std::max(count, 0);
    if (m_bRestartDue)
        Rebuild(); // a caller that did not start the job
    ApplyRates();
    if (!m_bActive || (m_dTime == 1.0 && m_dPitch == 1.0)) {
        SampleClean::CleanCopy(in[0], out[0], count);
        SampleClean::CleanCopy(in[1], out[1], count);
        return count;
    }
    int produced = 0;
    if (m_bDone)
        return 0;
    int taken = 0;
    for (;;) {
        int accepted = 0;
        if (!m_bFinal) {
            const int64_t space = m_nRingSize - (m_nIn - m_nKeepFrom);
            accepted = static_cast<int>(std::min<int64_t>(space, count - taken));
            for (int c = 0; c < 2; ++c) {
                int64_t f = m_nIn;
                int done = 0;
                while (done < accepted) {
                    const int64_t i = f & (m_nRingSize - 1);
                    const int k =
                        static_cast<int>(std::min<int64_t>(accepted - done, m_nRingSize - i));
                    SampleClean::CleanCopy(in[c] + taken + done, m_pRing[c] + i, k);
                    done += k;
                    f += k;
                }
            }
            m_nIn += accepted;
            taken += accepted;
            if (taken == count && last) {
                m_bFinal = true;
                m_nStretchEnd =
                    static_cast<int64_t>(std::ceil(Target() * m_dPitch)) + m_Resample.Delay();
            }
        }
        FeedDetector();
        bool moved = false;
        while (NextFrame(out, &produced))
            moved = true;
        if (m_bDone || (taken == count && !m_bFinal) || (!moved && accepted == 0))
            break;
    }
    return produced;
}
