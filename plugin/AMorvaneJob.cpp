// The offline job: the host's variable-I/O calls, the job's engine and its variable output, and
// the queue (a FIFO) that reconciles the two.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <mutex>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "AMorvane.h"
#include "SampleRateRange.h"

namespace {

// dst[i] = src[i] * gain for n samples; returns the larger of peak and the magnitudes written
// (NaN never counts).
float ScaleAndPeak(const float* src, float* dst, int64_t n, float gain, float peak) {
    // At unity gain in place the samples stay as they are (x * 1 is x): only read them.
    const bool store = gain != 1.0f || src != dst;
    int64_t i = 0;
#if defined(__SSE2__)
    // maxps(a, b) is a > b ? a : b, the same choice as std::max(b, a), NaN included.
    const __m128 g = _mm_set1_ps(gain);
    const __m128 magnitude = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    __m128 p = _mm_set1_ps(peak);
    for (; i + 4 <= n; i += 4) {
        const __m128 v = _mm_mul_ps(_mm_loadu_ps(src + i), g);
        if (store)
            _mm_storeu_ps(dst + i, v);
        p = _mm_max_ps(_mm_and_ps(v, magnitude), p);
    }
    alignas(16) float lanes[4];
    _mm_store_ps(lanes, p);
    for (float l : lanes)
        peak = std::max(peak, l);
#endif
    for (; i < n; ++i) {
        const float v = src[i] * gain;
        if (store)
            dst[i] = v;
        peak = std::max(peak, std::fabs(v));
    }
    return peak;
}

} // namespace

void AMorvane::FreeBuffers() {
    for (int c = 0; c < 2; ++c) {
        delete[] m_pEngineOut[c];
        delete[] m_pFifo[c];
        m_pEngineOut[c] = m_pFifo[c] = nullptr;
    }
}

void AMorvane::setSampleRate(float rate) {
    std::lock_guard lock(m_cs);
    // A rate the engine cannot run at is held to its range; the framework's own member is left.
    const int r = rate == rate ? static_cast<int>(std::clamp(rate, float(SampleRateRange::kMin),
                                                             float(SampleRateRange::kMax)))
                               : 44100;
    m_Format.nSamplesPerSec = static_cast<uint32_t>(r);
    m_Format.nAvgBytesPerSec = static_cast<uint32_t>(r) * 8;
    for (auto& e : m_Engines)
        e->SetSamplingRate(r);

    // A host block is fed to the engine in slices of a quarter second. The queue holds the
    // announced delay, which a job's output starts with, and what one slice can produce with
    // either engine, so the first slice always goes in; the engine writes into the queue, or
    // beside it (m_pEngineOut, as large) when the slice's output could reach the queue's end.
    // Left uninitialised: only what an engine writes is ever read, so a short job touches
    // only the pages it reaches.
    m_nSlice = r / 4;
    int64_t most = 0;
    for (auto& e : m_Engines)
        most = std::max<int64_t>(most, e->MaxOutput(static_cast<int>(m_nSlice)));
    // Hosts set the same rate several times: the queue it asks for is already there.
    if (m_pFifo[0] == nullptr || m_nCapacity != kInitialDelay + most) {
        FreeBuffers();
        m_nCapacity = kInitialDelay + most;
        for (int c = 0; c < 2; ++c) {
            m_pEngineOut[c] = new float[m_nCapacity];
            m_pFifo[c] = new float[m_nCapacity];
        }
    }
    m_nRead = m_nWrite = m_nFill = m_nSilence = 0;
    m_bFinished = 0;
    m_nTotal = 0;
    m_nConsumed = 0;
}

VstInt32 AMorvane::startProcess() {
    m_bFinished = 0;
    m_nFill = m_nRead = m_nWrite = m_nSilence = 0;
    m_nTotal = 0;
    m_nConsumed = 0;
    // The engine the host chose takes this job; a choice made during it waits for the next.
    m_pJob = m_Engines[m_nEngineWanted.load() - 1].get();
    m_pJob.load()->SetMono(m_bMono.exchange(false));
    m_nStep = m_nStepWanted.exchange(0);
    m_pJob.load()->SetFlushStep(m_nStep);
    m_pJob.load()->StartJob();
    // The job's output starts with the announced delay as silence, counted in the fill but not
    // stored, so that the FIFO's memory is touched only by what the engine makes; unless the
    // host said it would drop it.
    m_nSilence = m_nFill = m_bLeadIn.exchange(true) ? cEffect.initialDelay : 0;
    std::fill(std::begin(m_fMeter), std::end(m_fMeter), 0.0f);
    m_nProcessCount = 0xFFFF;
    return 0;
}

VstInt32 AMorvane::setTotalSampleToProcess(VstInt32 value) {
    m_nTotal = value;
    return value;
}

void AMorvane::CopyFromFifo(float** out, int64_t at, int64_t frames, const float* gain) {
    // The lead-in first: silence at any gain, which leaves the meters as they are.
    const int64_t silent = std::min(frames, m_nSilence);
    if (silent > 0) {
        for (int c = 0; c < 2; ++c)
            std::fill(out[c] + at, out[c] + at + silent, 0.0f);
        m_nSilence -= silent;
        m_nFill -= silent;
        at += silent;
        frames -= silent;
    }
    const int64_t first = std::min(frames, m_nCapacity - m_nRead);
    for (int c = 0; c < 2; ++c) {
        float* to = out[c] + at;
        if (gain) {
            const float peak =
                ScaleAndPeak(m_pFifo[c] + m_nRead, to, first, *gain, m_fMeter[2 + c]);
            m_fMeter[2 + c] = ScaleAndPeak(m_pFifo[c], to + first, frames - first, *gain, peak);
        } else {
            std::memcpy(to, m_pFifo[c] + m_nRead, sizeof(float) * first);
            std::memcpy(to + first, m_pFifo[c], sizeof(float) * (frames - first));
        }
    }
    m_nRead = (m_nRead + frames) % m_nCapacity;
    m_nFill -= frames;
}

int64_t AMorvane::FlushStep(float** out, int64_t want) {
    // What is queued first, then the engine's next step: straight to the host when it has room
    // for the most a step can be, else through the queue, which is empty by then. All of it at
    // the job's gain, metered.
    int64_t given = std::min(m_nFill, want);
    if (given > 0)
        CopyFromFifo(out, 0, given, &m_fGain);
    StretchEngine& engine = *m_pJob.load();
    if (given == want || m_nFill > 0 || !engine.Flushing())
        return given;
    m_nRead = m_nWrite = 0;
    if (want - given >= engine.MaxOutput(0)) {
        float* to[2] = {out[0] + given, out[1] + given};
        const int produced = engine.Flush(to);
        for (int c = 0; c < 2; ++c)
            m_fMeter[2 + c] = ScaleAndPeak(to[c], to[c], produced, m_fGain, m_fMeter[2 + c]);
        return given + produced;
    }
    m_nWrite = engine.Flush(m_pFifo);
    m_nFill = m_nWrite;
    const int64_t k = std::min(m_nFill, want - given);
    CopyFromFifo(out, given, k, &m_fGain);
    if (m_nFill == 0)
        m_nRead = m_nWrite = 0;
    return given + k;
}

void AMorvane::AppendToFifo(float* const* src, int64_t frames) {
    const int64_t first = std::min(frames, m_nCapacity - m_nWrite);
    for (int c = 0; c < 2; ++c) {
        std::memcpy(m_pFifo[c] + m_nWrite, src[c], sizeof(float) * first);
        std::memcpy(m_pFifo[c], src[c] + first, sizeof(float) * (frames - first));
    }
    m_nWrite = (m_nWrite + frames) % m_nCapacity;
    m_nFill += frames;
}

bool AMorvane::processVariableIo(VstVariableIo* io) {
    std::lock_guard lock(m_cs);
    ++m_nProcessCount;
    std::fill(std::begin(m_fMeter), std::end(m_fMeter), 0.0f);
    if (!io)
        return true;

    // Channel arrays that are missing count as no room and no input.
    const bool hasIn = io->inputs && io->inputs[0] && io->inputs[1];
    const bool hasOut = io->outputs && io->outputs[0] && io->outputs[1];
    const int64_t offered = hasIn ? std::max<VstInt32>(io->numSamplesInput, 0) : 0;
    const int64_t want = hasOut ? std::max<VstInt32>(io->numSamplesOutput, 0) : 0;
    auto report = [&](int64_t taken, int64_t written) {
        if (io->numSamplesInputProcessed)
            *io->numSamplesInputProcessed = static_cast<VstInt32>(taken);
        if (io->numSamplesOutputProcessed)
            *io->numSamplesOutputProcessed = static_cast<VstInt32>(written);
    };

    if (m_bFinished && m_nStep > 0) {
        m_nConsumed += offered;
        report(offered, FlushStep(io->outputs, want));
        return true;
    }
    if (m_bFinished) {
        // Draining: what was queued when the input ended leaves at unity gain, unmetered.
        m_nConsumed += offered;
        const int64_t k = std::min(m_nFill, want);
        if (k > 0)
            CopyFromFifo(io->outputs, 0, k);
        report(offered, k);
        return true;
    }

    // Feed the engine slice by slice while the FIFO has room for what a slice can produce, handing
    // output to the host (with the gain, metered) whenever room runs short. A host that asks for
    // too little output is told, through the input count it gets back, how much input was taken;
    // it offers the rest again. Nothing is dropped and nothing overflows.
    int64_t given = 0;
    auto giveOut = [&] {
        const int64_t k = std::min(m_nFill, want - given);
        if (k > 0)
            CopyFromFifo(io->outputs, given, k, &m_fGain);
        given += std::max<int64_t>(k, 0);
    };
    // The block that brings the input to the job's total is handed over whole, the announced
    // frames and any beyond them, and the engine hears of the end with its final slice.
    StretchEngine& engine = *m_pJob.load();
    const int64_t worst = engine.MaxOutput(static_cast<int>(m_nSlice));
    const bool lastBlock = m_nConsumed + offered >= m_nTotal && m_nTotal > 0;
    // A host may hand the same arrays for input and output; the engine must not write over
    // input it has yet to read.
    const auto apart = [&] {
        if (!hasIn || !hasOut)
            return hasOut;
        for (float* o : {io->outputs[0], io->outputs[1]})
            for (float* i : {io->inputs[0], io->inputs[1]}) {
                const auto o0 = reinterpret_cast<uintptr_t>(o), i0 = reinterpret_cast<uintptr_t>(i);
                if (o0 < i0 + sizeof(float) * offered && i0 < o0 + sizeof(float) * want)
                    return false;
            }
        return true;
    }();
    int64_t taken = 0;
    // What is queued leaves in this call anyway, as far as the host has room: it goes first, so
    // that the queue is often empty below (not into arrays that still hold the input).
    if (apart)
        giveOut();
    do {
        if (m_nCapacity - m_nFill < worst)
            giveOut();
        if (m_nCapacity - m_nFill < worst)
            break;
        const int64_t slice = std::min(offered - taken, m_nSlice);
        const bool last = lastBlock && taken + slice == offered;
        static float none = 0.0f;
        float* in[2] = {hasIn ? io->inputs[0] + taken : &none,
                        hasIn ? io->inputs[1] + taken : &none};
        if (apart && m_nFill == 0 && want - given >= worst) {
            // Nothing queued and room for all a slice can make: straight to the host, as the
            // queue would have handed it over in this call, scaled and metered in place.
            float* to[2] = {io->outputs[0] + given, io->outputs[1] + given};
            const int produced = engine.Process(to, in, static_cast<int>(slice), last);
            for (int c = 0; c < 2; ++c)
                m_fMeter[2 + c] = ScaleAndPeak(to[c], to[c], produced, m_fGain, m_fMeter[2 + c]);
            given += produced;
        } else if (m_nWrite + worst <= m_nCapacity) {
            // Straight into the FIFO when what a slice can produce fits before its end.
            float* to[2] = {m_pFifo[0] + m_nWrite, m_pFifo[1] + m_nWrite};
            const int produced = engine.Process(to, in, static_cast<int>(slice), last);
            m_nWrite = (m_nWrite + produced) % m_nCapacity;
            m_nFill += produced;
        } else {
            const int produced = engine.Process(m_pEngineOut, in, static_cast<int>(slice), last);
            AppendToFifo(m_pEngineOut, produced);
        }
        m_nConsumed += slice;
        taken += slice;
        if (last) {
            m_bFinished = 1; // the engine is not called again in this job
            break;
        }
    } while (taken < offered);

    giveOut();
    if (m_nFill == 0)
        m_nRead = m_nWrite = 0;
    report(taken, given);
    return true;
}

void AMorvane::GetVU(float* m0, float* m1, float* m2, float* m3) {
    std::lock_guard lock(m_cs);
    *m0 = m_fMeter[0];
    *m1 = m_fMeter[1];
    *m2 = m_fMeter[2];
    *m3 = m_fMeter[3];
}

bool AMorvane::GetClip() {
    return m_pJob.load()->TakeOver();
}
