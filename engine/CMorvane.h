#pragma once

#include <cstdint>

#include "CCriticalSection.h"
#include "CMorvaneBlock.h"
#include "CMorvaneDetect.h"
#include "CMorvaneResample.h"
#include "CRemez.h"
#include "SampleRateRange.h"
#include "Zeroed.h"
#include "mvArg.h"

// The engine front: takes the host's blocks, holds up to one second, cuts it at onsets, stretches
// each segment by time x pitch rate and resamples it by the pitch rate. Every public operation
// but construction takes the engine lock, so settings from the user-interface thread never
// interleave with a block. The stages see the settings through this object's mvArg base.
class CMorvane : public mvArg {
public:
    // Rates outside this range are taken as the nearest bound, for buffer sizes and frames.
    static constexpr int kMinRate = SampleRateRange::kMin;
    static constexpr int kMaxRate = SampleRateRange::kMax;

    CMorvane();
    ~CMorvane();
    CMorvane(const CMorvane&) = delete;
    CMorvane& operator=(const CMorvane&) = delete;

    int InitMorvane(); // defaults for 44100 Hz; returns the resampler's history length
    void flash() {}    // deliberately empty, as it has always been; nothing calls it
    void AllocMem();

    void SetTimeRate(double rate, bool running);
    void SetPitchRate(double rate, bool running);
    void SetSamplingRate(int rate);
    void StartToProcess(); // prepares a new job
    void SetActive(bool on);
    void SetLowSound(float v);
    // Setters the engine has always had and nobody calls, kept deliberately: the effect applies
    // its output gain itself (the engine's stays 1), the resampler always preserves the pitch,
    // and Drum is stored only.
    void SetOutputLevel(float gain);
    void SetPreServ(float v);
    void SetDrum(float v);
    void get_OverLevel(bool* over);

    // Processes count frames of in[0] and in[1]; last marks the block that ends the recording.
    // Writes from index 0 of out[0] and out[1] and returns the frames written: at most
    // MaxOutput(count) for this call.
    int procMorvane(float** out, float** in, int count, bool last);
    // With a step (frames, 0 for none, the default), the block that ends the recording stops
    // once it has written that many frames, between two segments, and Flush gives the rest a
    // step or a segment more a call, so that a host's output can pass through the same few
    // pages. Set before a job.
    void SetFlushStep(int frames);
    int Flush(float** out); // the frames written from index 0, at most MaxOutput(0)
    bool Flushing();        // whether some of the job's flush is still to come

    // Output frames of this job that are silence where a sounding input was, because a
    // sub-block's splice source lay before the held history (strong stretches with the
    // low-sound option on; the option off never does it).
    int64_t SilencedFrames();

    // What one call may write, whatever the rates: everything held plus the new frames, at the
    // largest stretch, plus what the lag and resampler can add.
    int MaxOutput(int count) const;

private:
    void Restart(); // StartToProcess under a lock already held
    void PrepareDetect();
    void ClearBuffers();
    int Segment(float** out, int produced, bool lastFlag);
    bool Stepping() const;             // a flush in steps, its input all taken
    bool StepDone(int produced) const; // the ended input's flush has written a step in this call

    CCriticalSection m_cs;
    CMorvaneDetect m_Detect;
    CMorvaneBlock m_Block;
    CMorvaneResample m_Resample;
    CRemez m_Remez; // kept with the engine for filter design; never used while processing
    // The two working buffers, two floats a frame whatever nChannels says, made for a sampling
    // rate and cleared at every job:
    // - m_pInBuf, 2.5 s (5 x rate floats): 1024 frames of history that the splice search may
    //   reach back into, then the held input, at most one second (a segment never spans more),
    //   then room that the search and the end-aligned copies may read past the held frames.
    // - m_pOutBuf, 5 s (10 x rate floats): the resampler's history (m_nLatency frames), then one
    //   segment as the block stretcher writes it: one second stretched by time x pitch, at most
    //   2, with the carry and the last lag on top, and the resampler's flush after it.
    Zeroed<float> m_pInBuf;
    Zeroed<float> m_pOutBuf;
    int32_t m_nLatency = 0;
    int32_t m_nFill = 0;
    bool m_bInputDone = false; // the block that ends the job has been taken whole
    int32_t m_nOpen = 0;       // the input frames of a segment whose output is still to come, or 0
    uint8_t m_bPending = 0;
    bool m_bDetectDue = true; // the detector waits to be prepared for nFrameLen
    uint32_t m_nSavedFinal = 100;
    int m_nAllocRate = 0; // the rate the buffers were sized for
    bool m_bDirty = true; // a job may have written the buffers since they were last cleared
    int m_nFlushStep = 0;
};
