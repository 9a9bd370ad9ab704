#pragma once

#include <cstdint>

#include "CMorvaneInterpolator.h"
#include "mvArg.h"

// Reads the stretched stream at a step of the pitch ratio per output frame, so that every
// frequency is multiplied by the ratio and the duration divided by it. Interpolation is a
// Kaiser-windowed sinc kept as 16-bit integers, 8 table points per input frame, linearly
// interpolated between them. Also applies the output level, de-interleaves into the host's
// channel arrays and raises the over flag.
class CMorvaneResample {
public:
    static constexpr int kMaxTaps = 101;
    // 8 entries per tap plus the end point; negative read positions index up to three entries
    // past the design (see Resample), which stay zero.
    static constexpr int kTableSize = 8 * kMaxTaps + 1 + 8;

    // Sets the filter for ratio and returns the frames of history the caller must keep in
    // front of each call's input (taps - 1). Resets the read position. The table is filled when
    // first needed (Design): a process that never resamples with it, or sets it again first,
    // never pays for the design.
    int IniResample(double ratio, int attenuation, double transition, double unused = 100.0,
                    bool unusedFlag = true);
    // Fills the table for the filter IniResample last set, if it is not filled yet.
    void Design();

    // Fills the coefficient table and returns the number of taps (odd, at most 101).
    int makeFIR(double ratio, int attenuation, double transition, double unused = 100.0,
                bool unusedFlag = false);

    // Consumes n interleaved frames at in (with History() frames before in, and, when
    // arg->bLastSegment is set, room for HalfLength() more after the n frames, which are
    // zeroed) and writes output frames from index 0 of out[0] (and out[1] for stereo).
    // Returns the frames written.
    int Resample(float** out, float* in, int n, mvArg* arg, bool preserve);
    // Whether Resample would only bring the frames to the output level: a pitch rate of 1, or
    // a pitch not kept.
    static bool PassesThrough(const mvArg* arg, bool preserve) {
        return !preserve || !(arg->dPitchRate != 1.0);
    }
    // What Resample then gives, for stereo frames already in out[0] and out[1]: each scaled in
    // place; returns n, or 0 for none.
    static int ScaleInPlace(float** out, int n, mvArg* arg);

    // Starts reading a new stream: the position returns to 0 as after IniResample.
    void Restart() { m_dPos = 0.0; }

    // Closed-form design figures, exposed so they can be checked against the formulas.
    static int RawLength(int attenuation, double transition);
    static double KaiserBeta(int attenuation);
    // Modified Bessel function of the first kind, order 0, as the design evaluates it.
    static double I0(double x);

    int History() const { return m_nHistory; }
    int HalfLength() const { return m_nHalf; }
    int Taps() const { return m_nHistory + 1; }
    double Position() const { return m_dPos; }
    const int16_t* Table() {
        Design();
        return m_Table;
    }

private:
    static int TapsFor(int attenuation, double transition); // odd, at most kMaxTaps
    // One output frame the plain way: per tap, the interpolated coefficient times the sample,
    // added in double and rounded to float.
    // Tap j's coefficient for a point: between two table entries, the quotient truncated toward
    // zero as integer division does.
    int32_t Coefficient(const CMorvaneInterpolator::Point& p, int j) const {
        const int idx = p.row + 8 * j;
        return m_Table[idx + 1] + ((m_Table[idx] - m_Table[idx + 1]) * p.sub) / 32768;
    }
    // Stereo points whose samples are all exact (CMorvaneInterpolator::Exact), in single
    // precision with SSE2, to the same bits; false where SSE2 is not there.
    bool PlainStereo(const CMorvaneInterpolator::Point* points, int count, int taps, float* left,
                     float* right) const;
    void Plain(const CMorvaneInterpolator::Point& p, int taps, int ch, float* left,
               float* right) const;

    double m_dPos = 0.0; // read position of the next output frame, relative to the next in[0]
    int32_t m_nHistory = 0;
    int32_t m_nHalf = 0;
    int16_t m_Table[kTableSize] = {};
    // the design the table holds; none yet
    int m_nDesignTaps = 0;
    double m_dDesignCutoff = 0.0, m_dDesignBeta = 0.0;
    // the filter IniResample set, while the table waits for it
    bool m_bDesignDue = false;
    double m_dDueRatio = 1.0, m_dDueTransition = 0.0;
    int m_nDueAttenuation = 0;
    CMorvaneInterpolator m_Interpolator;
    static_assert(kMaxTaps <= CMorvaneInterpolator::kMaxTaps);
};
