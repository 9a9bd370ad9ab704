#pragma once

#include <cstdint>

// Where in the input each synthesis frame is read from. Away from onsets the input is read at
// 1 / ratio of the output's pace. Around each onset the frames that hold it are read 1:1, so
// the frames nearest it put the attack at the same output instant and it sounds once; that instant
// is the onset's own time x ratio. What the 1:1 stretch costs is made up on ramps beside it, whose
// pace stays within a factor of two of the ratio. Close onsets share their ramps, and onsets
// too close for that at strong compression get narrower 1:1 stretches.
//
// The map is kept in frame centres: c in the input, o in the output, and
// o = o0 + (c - c0) - (1 - ratio) (A(c) - c0), where A(c) is c far from onsets, the onset's time
// across its 1:1 stretch, and linear between.
class CCrispTimeMap {
public:
    static constexpr int kMaxOnsets = 512;

    // window: the analysis frame in samples; the 1:1 stretch reaches a third of it each side.
    void Configure(int window);
    // A new job at ratio (output length over input length), its centres anchored at 0.
    void Restart(double ratio);
    // A new ratio from centre c on, which maps to o as before.
    void Rebase(double ratio, double c, double o);

    // Onsets in increasing order of input time; later or full ones are dropped.
    void AddOnset(double t);
    // Every onset before input time h has been added (infinite at the end of the input).
    void SetHorizon(double h) { m_dHorizon = h; }
    // How far past a centre the onsets must be known to place it: at least reach, which the
    // caller may want for its own use of the onsets.
    double Lookahead() const { return m_dLookahead; }
    void SetReach(double reach);

    // The input centre whose frame goes out at output centre o. Calls come with o increasing.
    // False when the onsets it depends on are not all known yet.
    bool Centre(double o, double* c);

    // The output centre of input centre c, near the centres asked for lately.
    double Output(double c) const;
    // The onset whose 1:1 stretch holds c, or a negative number.
    double OnsetAt(double c) const;
    double Ratio() const { return m_dRatio; }

private:
    struct Piece {
        double a;     // A at the start
        double slope; // of A
        double end;   // where the piece ends (infinite for the last)
    };
    Piece PieceAt(double c) const;
    double T(int i) const { return m_dOnset[(m_nFirst + i) % kMaxOnsets]; }
    double Half(int i) const { return m_dHalf[(m_nFirst + i) % kMaxOnsets]; }
    double Ramp(double half) const;
    double F(double c, const Piece& p, double at) const;
    void DropPassed(double c);

    int m_nWindow = 2048;
    double m_dRatio = 1.0;
    double m_dMaxSlope = 0; // of A on ramps, from the ratio
    double m_dShare = 1.0;  // of a gap that two 1:1 stretches may take
    double m_dLookahead = 0;
    double m_dReach = 0;
    double m_dC0 = 0, m_dO0 = 0;
    double m_dHorizon = 0;
    double m_dLast = -1e300; // the last centre returned
    double m_dOnset[kMaxOnsets] = {};
    double m_dHalf[kMaxOnsets] = {}; // of each onset's 1:1 stretch, set as its neighbours arrive
    int m_nFirst = 0, m_nCount = 0;
};
