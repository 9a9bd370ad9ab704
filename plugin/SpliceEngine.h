#pragma once

#include "CMorvane.h"
#include "StretchEngine.h"

// The plug-in's own engine behind the effect's engine interface: cuts at onsets and splices
// sub-blocks of the waveform. CMorvane keeps its own names for its operations.
class SpliceEngine final : public StretchEngine {
public:
    void SetTimeRate(double rate, bool running) override { m_Engine.SetTimeRate(rate, running); }
    void SetPitchRate(double rate, bool running) override { m_Engine.SetPitchRate(rate, running); }
    void SetSamplingRate(int rate) override { m_Engine.SetSamplingRate(rate); }
    void SetActive(bool on) override { m_Engine.SetActive(on); }
    void SetLowSound(float v) override { m_Engine.SetLowSound(v); }
    void StartJob() override { m_Engine.StartToProcess(); }
    int Process(float** out, float** in, int count, bool last) override {
        return m_Engine.procMorvane(out, in, count, last);
    }
    void SetFlushStep(int frames) override { m_Engine.SetFlushStep(frames); }
    int Flush(float** out) override { return m_Engine.Flush(out); }
    bool Flushing() override { return m_Engine.Flushing(); }
    int MaxOutput(int count) const override { return m_Engine.MaxOutput(count); }
    bool TakeOver() override {
        bool over = false;
        m_Engine.get_OverLevel(&over);
        return over;
    }
    int64_t SilencedFrames() override { return m_Engine.SilencedFrames(); }

private:
    CMorvane m_Engine;
};
