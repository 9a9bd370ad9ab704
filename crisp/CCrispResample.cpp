#include "CCrispResample.h"

namespace {

// 80 dB: the resampler's cleaner design, which the splice engine uses for rates set between jobs.
constexpr int kAttenuation = 80;
// The transition band below the cutoff, as a share of the sampling rate, as in the splice engine.
constexpr double kTransition = 0.1;

} // namespace

CCrispResample::CCrispResample() {
    m_Arg.nChannels = 2;
    m_Arg.fOutputLevel = 1.0f;
    m_Arg.bLastSegment = 0; // the end is pushed out with silence instead (Delay)
}

void CCrispResample::Design(double pitchRate) {
    m_Arg.dPitchRate = pitchRate;
    m_Resample.IniResample(pitchRate, kAttenuation, kTransition);
}

int CCrispResample::Read(float** out, float* in, int n, bool* over) {
    m_Arg.bOver = 0;
    const int k = m_Resample.Resample(out, in, n, &m_Arg, true);
    *over = *over || m_Arg.bOver;
    return k;
}

int CCrispResample::Delay() const {
    // The filter's half length, and two frames for where the fractional read position rounds.
    return m_Resample.HalfLength() + 2;
}
