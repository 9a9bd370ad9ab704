#pragma once

#include <cstdint>
#include <memory>

// One time-pitch engine as the effect drives it: the settings, a job's start, its blocks (the
// last one flushing what the engine holds) and the most one block can produce. The effect holds
// one of each kind, made here, and talks to them only through this interface.
//
// Settings may come from the user-interface thread while a job runs: every engine takes its
// own lock. A time or pitch rate set while running applies from where the job stands.
class StretchEngine {
public:
    virtual ~StretchEngine() = default;

    // MorvaneEngine::kSplice or kCrisp; null for any other kind.
    static std::unique_ptr<StretchEngine> Make(int kind);

    virtual void SetTimeRate(double rate, bool running) = 0;
    virtual void SetPitchRate(double rate, bool running) = 0;
    // Sizes the engine for rate (held to SampleRateRange) and restarts it.
    virtual void SetSamplingRate(int rate) = 0;
    virtual void SetActive(bool on) = 0;
    virtual void SetLowSound(float v) = 0; // only -1 turns the option off
    // Whether the next job's two inputs are the same; an engine may then work once for both.
    virtual void SetMono(bool) {}

    // Prepares a new job: whatever the engine held is dropped and its buffers are made, so that
    // nothing is allocated while processing.
    virtual void StartJob() = 0;
    // Processes count frames of in[0] and in[1]; last marks the block that ends the recording,
    // with which the engine flushes what it holds. Writes from index 0 of out[0] and out[1] and
    // returns the frames written, never more than MaxOutput(count).
    virtual int Process(float** out, float** in, int count, bool last) = 0;
    // With a step (frames; 0, the default, for none), the last block stops flushing once it has
    // written that many frames, and Flush, called after it, writes the rest a step (or a little
    // more) at a time, from index 0, never more than MaxOutput(0). Set before StartJob.
    virtual void SetFlushStep(int frames) = 0;
    virtual int Flush(float** out) = 0;
    virtual bool Flushing() = 0; // whether some of the job's flush is still to come
    // The most one Process call of count frames may write at the present sampling rate,
    // whatever the rates: what sizes the effect's queue.
    virtual int MaxOutput(int count) const = 0;

    // Whether some output went above full scale since the last call.
    virtual bool TakeOver() = 0;
    // Output frames of the job so far that are silence where the input sounded (a splice
    // engine's design at strong stretches); 0 for an engine that never does that.
    virtual int64_t SilencedFrames() { return 0; }
};
