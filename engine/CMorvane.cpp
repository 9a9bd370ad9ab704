#include "CMorvane.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "SampleClean.h"
#include "Zeroed.h"

namespace {

constexpr int kHistoryFrames = 1024; // audio kept before the current data for the splice search

// The onset detector's frame, 20 ms at the sampling rate; the detector evens it.
int DetectFrame(int rate) {
    return rate * CMorvaneBlock::kFrameMs / 1000;
}

// The resampler's filter: 60 dB at start-up and after a change during a job, 80 dB when the
// pitch is set between jobs. Deliberately different, and kept so.
constexpr int kStopbandDb = 60;
constexpr int kStopbandDbBetweenJobs = 80;
constexpr double kTransitionBand = 0.1; // of the sampling rate, below the cutoff

// Differing is the unordered inequality: a NaN on either side counts as a change.
bool Differs(double a, double b) {
    return !(a == b);
}

// The parameter code keeps rates within 0.5 to 2.0. The engine holds to that too, because its
// buffers are sized for it and a NaN rate would make the frame arithmetic undefined.
double SafeRate(double rate) {
    return rate == rate ? std::clamp(rate, 0.5, 2.0) : 1.0;
}

} // namespace

using SampleClean::CleanCopy;
using SampleClean::CleanInterleave;

CMorvane::CMorvane() {
    InitMorvane();
    bOver = 0;
}

CMorvane::~CMorvane() = default;

int CMorvane::InitMorvane() {
    static_cast<mvArg&>(*this) = mvArg{};
    m_Block.IniBlock();
    m_nFill = m_nOpen = 0;
    m_bInputDone = false;
    bLowSound = 1;
    m_bDetectDue = true;
    m_nLatency = m_Resample.IniResample(dPitchRate, kStopbandDb, kTransitionBand);
    AllocMem();
    bActive = 1;
    bOver = 0;
    bPreServ = 1;
    return m_nLatency;
}

void CMorvane::AllocMem() {
    m_bPending = 0;
    m_nSavedFinal = 100;
    // Hosts set the rate several times before a job; buffers of the right size that no job
    // has touched are already all zero.
    if (m_pInBuf != nullptr && m_nAllocRate == nSampleRate) {
        ClearBuffers();
        return;
    }
    // The parts a job never reaches cost nothing.
    m_pInBuf = Zeroed<float>(5 * static_cast<size_t>(nSampleRate));
    m_pOutBuf = Zeroed<float>(10 * static_cast<size_t>(nSampleRate));
    m_nAllocRate = nSampleRate;
    m_bDirty = false;
    m_Block.SetBufferPointer(m_pInBuf);
}

void CMorvane::ClearBuffers() {
    if (!m_bDirty)
        return;
    // Pages the last job wrote are handed back, so the next one touches only what it reaches.
    m_pInBuf.Clear();
    m_pOutBuf.Clear();
    m_bDirty = false;
}

void CMorvane::SetTimeRate(double rate, bool running) {
    std::lock_guard lock(m_cs);
    rate = SafeRate(rate);
    if (running && Differs(rate, dTimeRate)) {
        dTimeRateNext = rate;
        m_bPending = 1;
        return;
    }
    dTimeRateNext = dTimeRate = rate;
    dStretch = rate * dPitchRate;
}

void CMorvane::SetPitchRate(double rate, bool running) {
    std::lock_guard lock(m_cs);
    rate = SafeRate(rate);
    dPitchRateNext = rate;
    if (running && Differs(rate, dPitchRate)) {
        m_bPending = 1;
        return;
    }
    dPitchRate = rate;
    dStretch = dTimeRate * rate;
    m_nLatency = m_Resample.IniResample(rate, kStopbandDbBetweenJobs, kTransitionBand);
}

void CMorvane::SetSamplingRate(int rate) {
    std::lock_guard lock(m_cs);
    rate = std::clamp(rate, kMinRate, kMaxRate);
    nFrameLen = bLowSound ? DetectFrame(rate) & ~1 : 0;
    nSubBlockLen = bLowSound ? CMorvaneBlock::NominalLength(rate) : 0;
    nSampleRate = rate;
    m_bDetectDue = true;
    AllocMem();
    Restart();
}

void CMorvane::StartToProcess() {
    // Between blocks, but the user-interface thread may set a rate at this very moment.
    std::lock_guard lock(m_cs);
    Restart();
    PrepareDetect();
    // here, not in the job's first call; a job at the pitch of its input never reads it
    if (dPitchRate != 1.0)
        m_Resample.Design();
}

void CMorvane::PrepareDetect() {
    // The detector's window and transform wait for a job: hosts set the rate and LowSound
    // several times first, and a plug-in whose jobs go to another engine never needs them.
    if (std::exchange(m_bDetectDue, false))
        m_Detect.IniDetect(nFrameLen);
}

void CMorvane::Restart() {
    m_bPending = 0;
    m_nSavedFinal = 100;
    bFinal = 0;
    m_Block.IniBlock();
    m_nFill = m_nOpen = 0;
    m_bInputDone = false;
    // Every job starts from the same state, so the same input renders to the same bits: the
    // splice search at the end of a stream reads past the held data, so both buffers are cleared
    // whole, not only their history, and the resampler's read position starts again at 0.
    m_Resample.Restart();
    ClearBuffers();
}

void CMorvane::SetActive(bool on) {
    std::lock_guard lock(m_cs);
    bActive = on;
}

void CMorvane::SetOutputLevel(float gain) {
    std::lock_guard lock(m_cs);
    fOutputLevel = gain;
}

void CMorvane::SetPreServ(float v) {
    std::lock_guard lock(m_cs);
    bPreServ = v != 0;
}

void CMorvane::SetLowSound(float v) {
    std::lock_guard lock(m_cs);
    // Only -1.0 turns the option off; 0.0 and 1.0 both leave it on. Deliberate.
    bLowSound = static_cast<double>(v) + 1.0 != 0;
    nFrameLen = bLowSound ? DetectFrame(nSampleRate) & ~1 : 0;
    nSubBlockLen = bLowSound ? CMorvaneBlock::NominalLength(nSampleRate) : 0;
    m_bDetectDue = true;
}

void CMorvane::SetDrum(float v) {
    std::lock_guard lock(m_cs);
    bDrum = v != 0;
}

void CMorvane::get_OverLevel(bool* over) {
    std::lock_guard lock(m_cs);
    *over = bOver != 0;
    bOver = 0;
}

int64_t CMorvane::SilencedFrames() {
    std::lock_guard lock(m_cs);
    // The block stretcher counts frames before the resampler reads them at the pitch rate.
    return std::llround(static_cast<double>(m_Block.SilencedFrames()) / dPitchRate);
}

int CMorvane::MaxOutput(int count) const {
    // A call turns at most the second held plus its own frames into output, at most twice as
    // many (the time rate; the pitch rate stretches and the resampler reads it back by the same
    // factor). Half a second more covers the carry, the last splice's lag and the resampler's
    // flush.
    return static_cast<int>(std::min<long>(
        2L * (std::max(count, 0) + static_cast<long>(nSampleRate)) + nSampleRate / 2, 0x7fffffff));
}

int CMorvane::Segment(float** out, int produced, bool lastFlag) {
    float* current = m_pInBuf + 2 * kHistoryFrames;
    float* dest[2] = {out[0] + produced, out[1] + produced};
    float* stretched = m_pOutBuf + 2 * m_nLatency;
    int L = m_nOpen;
    bool direct = true;
    int M = 0;
    if (L > 0) {
        M = m_Block.Next(dest[0], dest[1], this, m_nFlushStep - produced);
    } else {
        L = m_Detect.Detect(current, m_nFill, this);
        L = std::clamp(L, 0, m_nFill);
        // Stereo the resampler would only bring to the output level goes to the output straight
        // from the splices, each channel apart: one pass over it, and no holding buffer to fill.
        direct = nChannels == 2 && CMorvaneResample::PassesThrough(this, bPreServ != 0);
        if (direct && Stepping()) {
            // a flush in steps: a long segment's output comes over several calls too
            m_Block.Begin(current, L, this);
            M = m_Block.Next(dest[0], dest[1], this, m_nFlushStep - produced);
        } else {
            M = direct ? m_Block.Block(dest[0], dest[1], current, L, this)
                       : m_Block.Block(stretched, current, L, this);
        }
    }
    // (the rest of a segment left open reads its input where it is)
    m_nOpen = direct && m_Block.Pending() ? L : 0;
    if (m_nOpen == 0) {
        // The last 1024 frames before the next segment become its history.
        std::memmove(m_pInBuf, m_pInBuf + 2 * L,
                     sizeof(float) * 2 * static_cast<size_t>(kHistoryFrames - L + m_nFill));
        bLastSegment = lastFlag && L == m_nFill;
    }
    int K = 0;
    if (direct) {
        // The resampler's history, its last frames of the stretched stream, as if they had
        // passed through it: a later pitch reads back into them.
        const int keep = std::min(M, m_nLatency);
        std::memmove(m_pOutBuf, m_pOutBuf + 2 * static_cast<size_t>(keep),
                     sizeof(float) * 2 * static_cast<size_t>(m_nLatency - keep));
        float* h = m_pOutBuf + 2 * static_cast<size_t>(m_nLatency - keep);
        for (int i = 0; i < keep; ++i) {
            h[2 * i] = dest[0][M - keep + i];
            h[2 * i + 1] = dest[1][M - keep + i];
        }
        K = CMorvaneResample::ScaleInPlace(dest, M, this);
    } else {
        K = m_Resample.Resample(dest, stretched, M, this, bPreServ != 0);
        // Keep the resampler's history in front of the next segment.
        std::memmove(m_pOutBuf, m_pOutBuf + 2 * static_cast<size_t>(M),
                     sizeof(float) * 2 * m_nLatency);
    }
    if (m_nOpen == 0)
        m_nFill -= L;
    return K;
}

int CMorvane::procMorvane(float** out, float** in, int count, bool last) {
    std::lock_guard lock(m_cs);
    m_bDirty = true;
    count = std::max(count, 0);
    if (!bActive || (dPitchRate == 1.0 && dTimeRate == 1.0)) {
        CleanCopy(in[0], out[0], count);
        CleanCopy(in[1], out[1], count);
        return count;
    }

    PrepareDetect(); // (a host that never said a job starts)
    const int cap = nSampleRate;
    int produced = 0;
    int taken = 0;

    if (m_bPending) {
        // Flush what is held with the old rates, as if the stream ended here; then switch.
        m_nSavedFinal = bFinal;
        m_bPending = 0;
        do {
            if (!bFinal && m_nFill < cap)
                bFinal = 1;
            produced += Segment(out, produced, true);
        } while (m_nFill >= 1);
        bFinal = m_nSavedFinal != 0;
        m_nSavedFinal = 100;
        m_nFill = 0;
        if (Differs(dTimeRateNext, dTimeRate)) {
            dTimeRate = dTimeRateNext;
            dStretch = dTimeRate * dPitchRate;
        }
        if (Differs(dPitchRateNext, dPitchRate)) {
            dPitchRate = dPitchRateNext;
            dStretch = dTimeRate * dPitchRate;
            m_nLatency = m_Resample.IniResample(dPitchRate, kStopbandDb, kTransitionBand);
        }
    }

    do {
        if (!bFinal) {
            const int k = std::min(cap - m_nFill, count - taken);
            CleanInterleave(in[0] + taken, in[1] + taken, m_pInBuf + 2 * (kHistoryFrames + m_nFill),
                            k);
            m_nFill += k;
            taken += k;
            if (m_nFill < cap) {
                if (!last)
                    break; // wait for more input
                bFinal = 1;
            }
        }
        m_bInputDone = m_bInputDone || (last && taken == count);
        if (StepDone(produced))
            break; // the next segment at the next call
        produced += Segment(out, produced, last);
    } while (m_nFill > 0 && !StepDone(produced));
    return produced;
}

bool CMorvane::Stepping() const {
    return m_nFlushStep > 0 && (bFinal || m_bInputDone);
}

bool CMorvane::StepDone(int produced) const {
    return Stepping() && produced >= m_nFlushStep;
}

void CMorvane::SetFlushStep(int frames) {
    std::lock_guard lock(m_cs);
    m_nFlushStep = std::max(frames, 0);
}

bool CMorvane::Flushing() {
    std::lock_guard lock(m_cs);
    return (bFinal || m_bInputDone) && m_nFill > 0;
}

int CMorvane::Flush(float** out) {
    std::lock_guard lock(m_cs);
    PrepareDetect(); // (LowSound may have changed since the last block)
    int produced = 0;
    // the segments the last block would have gone on to make
    while ((bFinal || m_bInputDone) && m_nFill > 0 && !StepDone(produced)) {
        if (!bFinal && m_nFill < nSampleRate)
            bFinal = 1; // (as the last block would have found, with no input to come)
        produced += Segment(out, produced, true);
    }
    return produced;
}
