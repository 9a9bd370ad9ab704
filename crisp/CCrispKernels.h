#pragma once

// The crisp engine's per-bin loops, compiled for each instruction set the splice engine has
// kernels for and chosen by CMorvaneIsa::Detected() (so MORVANE_SIMD caps them too). They use
// only additions, multiplications, divisions and square roots, never contracted, in the same
// order on every path: each gives the same bits at every level.
//
// The trigonometry and logarithm are polynomials, in single precision.
class CCrispKernels {
public:
    // Whether every one of n samples is zero (of either sign).
    static bool Silent(const float* x, int n);
    // The largest magnitude among n samples of a and of b, those not finite counting as 0.
    static float Loudest(const float* a, const float* b, int n);

    // The peaks among bins from to to - 1 (each with two neighbours either side) into found, in
    // order; returns their count. A peak is above floor, above the bin below and not below the
    // bin above, and, from bin narrow on, the same against the bins two away. found has room for
    // eight more than the peaks.
    static int Peaks(const float* power, int from, int to, int narrow, float floor, int* found);

    // The sum of two channels' spectra and its power, over n bins.
    static void Mix(const float* lre, const float* lim, const float* rre, const float* rim,
                    float* mre, float* mim, float* power, int n);

    // The turn (zre[i], zim[i]) of bin at[i], i < n, that moves its phase on from the last output
    // frame at the pace of its own frequency: the frame's sum m against the last frame's q, at
    // analysis hop `hop`, with the last output y advanced over the synthesis hop. A bin without
    // m or y, or whose m is twice q or more (a new partial), is not turned. window: the
    // transform's length (a power of two). Worked out in single precision, the bins' own pace
    // over a hop first taken modulo a turn in integers: within about 1e-6 rad.
    static void Turns(const float* mre, const float* mim, const float* qre, const float* qim,
                      const float* yre, const float* yim, const int* at, int n, int window, int hop,
                      int synthesis, double* zre, double* zim);

    // The turn of peak at[i], i < n, that takes the phase of another vocoder's output at its
    // bin other[i], moved on to this frame: from the peak's phase in the sum m to that output's
    // (half a turn more for each bin between them, the two frames' centres), then by turn[i]
    // (the peak's own frequency over the shift, modulo a turn) plus, where the last frame q held
    // the partial, its measured deviation from that frequency over the analysis hop `hop`
    // times factor (the shift over the hop). A peak or output of no size takes no turn.
    // Single precision, as Turns.
    static void Joins(const float* mre, const float* mim, const float* qre, const float* qim,
                      const float* ore, const float* oim, const int* at, const int* other,
                      const float* turn, int n, int window, int hop, float factor, double* zre,
                      double* zim);

    // Each bin's turn, zre[k] and zim[k] for k < bins: that of the peak at[i] (zr[i], zi[i]) whose
    // region holds it, from the lowest bin after the peak before (the first if several) up to
    // and with the lowest before the next; none past the last region. zre and zim have room for
    // `room` bins (room >= bins), which past bins may take any value.
    static void Regions(const float* power, const int* at, int n, int bins, int room,
                        const double* zr, const double* zi, float* zre, float* zim);

    // Applies the turns to the sum m (into y) and to both channels.
    static void Apply(const float* zre, const float* zim, const float* mre, const float* mim,
                      float* yre, float* yim, float* lre, float* lim, float* rre, float* rim,
                      int n);

    // To a quarter of the rate, the first `channels` channels (x[c] into out[c], c < channels),
    // through a symmetric filter given from its centre out, taps[i] for i <= reach (<= 32):
    // out[o], o < count, is taps[0] x[c] plus, in the order of i, taps[i] (x[c - i] + x[c + i])
    // for each tap that is not zero, where c = 4 o + reach. In single precision, one output per
    // lane: the same at every level.
    static void Decimate(const float* taps, int reach, const float* const* x, int count,
                         float* const* out, int channels);

    // Interpolation to four times the rate through a filter by phase, the first `channels`
    // channels (x[c] into out[c], c < channels): to out[i], i < n, is added the sum of
    // phase[j taps + k] x[m - k] for k < taps, where m and j are the quotient and the remainder
    // of (j0 + i) / 4 (j0 < 4, taps <= 16). Summed in the order of k over the taps that are not
    // zero, per output, in single precision.
    static void Upsample(const float* phase, int taps, const float* const* x, int j0, int n,
                         float* const* out, int channels);

    // log(1 + compress |re + i im| norm) for bins from to to (inclusive), into out (within 2e-7).
    static void LogMagnitudes(const float* re, const float* im, int from, int to, double norm,
                              double compress, double* out);
};
