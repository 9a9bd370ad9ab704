#pragma once

#include <cstdint>

#include "Zeroed.h"

// Linear-phase two-band low-pass FIR design by the Remez exchange (Parks-McClellan), working
// directly on the extremal frequencies with barycentric Lagrange interpolation instead of on a
// dense grid. Frequencies are handled in x = -2 cos(pi f), f relative to Nyquist, so x runs
// from -2 at 0 Hz to +2 at Nyquist. The taps come out as 16-bit integers scaled for an 8-phase
// interpolation table, on the scale of the resampler's Kaiser table.
class CRemez {
public:
    static constexpr int kCapacity = 10002; // doubles per array, used 1-based
    static constexpr int kMaxHalf = 9999;   // largest n
    // No converging design comes near this many exchange passes (they take a few dozen); it only
    // stops a design that cannot converge from running forever.
    static constexpr int kMaxPasses = 1000;
    static constexpr int kMaxHalvings = 200; // per extremum search

    enum class End { NotRun, FewMoves, DeltaSteady, PassLimit };

    CRemez();
    ~CRemez();
    CRemez(const CRemez&) = delete;
    CRemez& operator=(const CRemez&) = delete;

    // Designs L = 2n - 1 taps into out[0 .. 2n - 2], symmetric about out[n - 1]. fp and fs are
    // the passband and stopband edges relative to Nyquist, k the ratio of passband to stopband
    // deviation. A design that has not converged after kMaxPasses passes still writes the
    // response of its last points (symmetric, not equiripple) and reports Converged() false.
    // Arguments outside 3 <= n <= 9999, 0 < fp < fs < 1, k > 0 write nothing.
    void Remez(int16_t* out, int n, double fp, double fs, double k);

    // The taps of a symmetric response sampled at A[0 .. n - 1] (A[i] at frequency 2i/L of
    // Nyquist), scaled for an 8-phase table: what Remez does with its final response.
    static void ResponseToTaps(const double* A, int n, int16_t* out);

    void prp(double k);   // weights, deviation, values and sign for the current points
    double lag(double x); // the interpolating polynomial P(x)
    void mov();           // bisection for the extremum between search low and high

    bool Converged() const { return m_eEnd == End::FewMoves || m_eEnd == End::DeltaSteady; }
    End Ending() const { return m_eEnd; }
    void SetMaxPasses(int passes) { m_nMaxPasses = passes; }
    int Passes() const { return m_nPasses; }
    double Delta() const { return m_dDelta; } // stopband deviation of the last design
    int ExtremalCount() const { return m_nPoints; }
    double Extremum(int i) const { return m_pX[i]; } // 1-based, ascending in x
    // Tap i (0 .. 2n - 2) of the last design before quantisation, with unit passband gain.
    double Tap(int i) const;

private:
    void InitialPoints(int n, double fp, double fs);
    End Exchange(double k); // one pass; NotRun while the design goes on
    void ShiftPoints(int direction);

    double m_dDelta = 0.0;
    double m_dPrevDelta = 0.0;
    double m_dLow = 0.0;
    double m_dPoint = 0.0;
    double m_dHigh = 0.0;
    double m_dLeftSlope = 0.0;
    double m_dRightSlope = 0.0;
    double m_dDcErr = 0.0;
    double m_dNyqErr = 0.0;
    double m_dStep = 0.0;
    double m_dSign = 1.0;
    int32_t m_nPoints = 0; // r = n + 1
    int32_t m_nInterleave = 0;
    int32_t m_nPass = 0; // extremal points in the passband, its edge included
    int32_t m_nStop = 0;
    Zeroed<double> m_pX;      // extremal points; X[0] = -2 and X[n + 2] = +2 are sentinels
    Zeroed<double> m_pXw;     // the working copy one exchange pass moves
    Zeroed<double> m_pWeight; // barycentric weights, times Y after prp
    Zeroed<double> m_pY;      // prescribed response at each point
    Zeroed<double> m_pA;      // final response sampled for the inverse transform
    int32_t m_nHalf = 0;
    int32_t m_nPasses = 0;
    int32_t m_nMaxPasses = kMaxPasses;
    End m_eEnd = End::NotRun;
};
