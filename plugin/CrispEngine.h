#pragma once

#include "CCrisp.h"
#include "StretchEngine.h"

// The phase vocoder that keeps each attack once, behind the effect's engine interface.
class CrispEngine final : public StretchEngine {
public:
    void SetTimeRate(double rate, bool running) override { m_Engine.SetTimeRate(rate, running); }
    void SetPitchRate(double rate, bool running) override { m_Engine.SetPitchRate(rate, running); }
    void SetSamplingRate(int rate) override { m_Engine.SetSamplingRate(rate); }
    void SetActive(bool on) override { m_Engine.SetActive(on); }
    void SetLowSound(float v) override { m_Engine.SetLowSound(v); }
    void SetMono(bool mono) override { m_Engine.SetMono(mono); }
    void StartJob() override { m_Engine.StartToProcess(); }
    int Process(float** out, float** in, int count, bool last) override {
        return m_Engine.Process(out, in, count, last);
    }
    void SetFlushStep(int frames) override { m_Engine.SetFlushStep(frames); }
    int Flush(float** out) override { return m_Engine.Flush(out); }
    bool Flushing() override { return m_Engine.Flushing(); }
    int MaxOutput(int count) const override { return m_Engine.MaxOutput(count); }
    bool TakeOver() override { return m_Engine.TakeOver(); }

private:
    CCrisp m_Engine;
};
