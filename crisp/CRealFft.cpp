#include "CRealFft.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <numbers>
#include <type_traits>
#include <utility>

#include "CrispTargets.h"

namespace {

// One radix-4 stage, decimation in frequency, natural order in and out: m groups p of `stride`
// elements q, each four (p, p + m, p + 2m, p + 3m) going to 4p ... 4p + 3 through a 4-point
// transform, output j turned by W^(jp) (w: W^p, W^2p, W^3p, each its real parts then imaginary).
// The inputs come as four streams a..d and the outputs go to four, each at its own pointer; the
// loops around it say (CRISP_NO_OVERLAP) that no stream overlaps another.

template <typename R>
CRISP_INLINE void Radix4(const R* __restrict ar, const R* __restrict ai, const R* __restrict br,
                         const R* __restrict bi, const R* __restrict cr, const R* __restrict ci,
                         const R* __restrict dr, const R* __restrict di, int i, R* __restrict y0r,
                         R* __restrict y0i, R* __restrict y1r, R* __restrict y1i, R* __restrict y2r,
                         R* __restrict y2i, R* __restrict y3r, R* __restrict y3i, int o, R w1r,
                         R w1i, R w2r, R w2i, R w3r, R w3i) {
    const R pr = ar[i] + cr[i], pi = ai[i] + ci[i]; // a + c
    const R nr = ar[i] - cr[i], ni = ai[i] - ci[i]; // a - c
    const R er = br[i] + dr[i], ei = bi[i] + di[i]; // b + d
    const R fr = br[i] - dr[i], fi = bi[i] - di[i]; // b - d, turned by -i below
    y0r[o] = pr + er;
    y0i[o] = pi + ei;
    const R ur = nr + fi, ui = ni - fr; // (a - c) - i (b - d)
    const R vr = pr - er, vi = pi - ei; // (a + c) - (b + d)
    const R tr = nr - fi, ti = ni + fr; // (a - c) + i (b - d)
    y1r[o] = ur * w1r - ui * w1i;
    y1i[o] = ur * w1i + ui * w1r;
    y2r[o] = vr * w2r - vi * w2i;
    y2i[o] = vr * w2i + vi * w2r;
    y3r[o] = tr * w3r - ti * w3i;
    y3i[o] = tr * w3i + ti * w3r;
}

// The first stage, of stride 1: the groups are the long run, each one's outputs side by side.
template <typename R>
CRISP_INLINE void FirstStage(const R* __restrict xr, const R* __restrict xi, R* __restrict yr,
                             R* __restrict yi, const R* __restrict w, int m) {
    const R *ar = xr, *ai = xi, *br = xr + m, *bi = xi + m, *cr = xr + 2 * m, *ci = xi + 2 * m,
            *dr = xr + 3 * m, *di = xi + 3 * m;
    CRISP_NO_OVERLAP
    for (int p = 0; p < m; ++p) {
        const R pr = ar[p] + cr[p], pi = ai[p] + ci[p];
        const R nr = ar[p] - cr[p], ni = ai[p] - ci[p];
        const R er = br[p] + dr[p], ei = bi[p] + di[p];
        const R fr = br[p] - dr[p], fi = bi[p] - di[p];
        const R ur = nr + fi, ui = ni - fr;
        const R vr = pr - er, vi = pi - ei;
        const R tr = nr - fi, ti = ni + fr;
        const R w1r = w[p], w1i = w[m + p], w2r = w[2 * m + p], w2i = w[3 * m + p],
                w3r = w[4 * m + p], w3i = w[5 * m + p];
        yr[4 * p] = pr + er;
        yi[4 * p] = pi + ei;
        yr[4 * p + 1] = ur * w1r - ui * w1i;
        yi[4 * p + 1] = ur * w1i + ui * w1r;
        yr[4 * p + 2] = vr * w2r - vi * w2i;
        yi[4 * p + 2] = vr * w2i + vi * w2r;
        yr[4 * p + 3] = tr * w3r - ti * w3i;
        yi[4 * p + 3] = tr * w3i + ti * w3r;
    }
}

// Wide strides: each group is a run with one set of twiddles.
template <typename R>
CRISP_INLINE void WideStage(const R* __restrict xr, const R* __restrict xi, R* __restrict yr,
                            R* __restrict yi, const R* __restrict w, int s, int m) {
    const int l = s * m;
    for (int p = 0; p < m; ++p) {
        const R w1r = w[p], w1i = w[m + p], w2r = w[2 * m + p], w2i = w[3 * m + p],
                w3r = w[4 * m + p], w3i = w[5 * m + p];
        const int a = s * p, o = 4 * s * p;
        CRISP_NO_OVERLAP
        for (int q = 0; q < s; ++q)
            Radix4(xr + a, xi + a, xr + a + l, xi + a + l, xr + a + 2 * l, xi + a + 2 * l,
                   xr + a + 3 * l, xi + a + 3 * l, q, yr + o, yi + o, yr + o + s, yi + o + s,
                   yr + o + 2 * s, yi + o + 2 * s, yr + o + 3 * s, yi + o + 3 * s, q, w1r, w1i, w2r,
                   w2i, w3r, w3i);
    }
}

// The last radix-4 stage (one group, whose twiddles are all 1): no products.
template <typename R>
CRISP_INLINE void LastStage(const R* __restrict xr, const R* __restrict xi, R* __restrict yr,
                            R* __restrict yi, int s) {
    for (int q = 0; q < s; ++q) {
        const R ar = xr[q], ai = xi[q], br = xr[q + s], bi = xi[q + s], cr = xr[q + 2 * s],
                ci = xi[q + 2 * s], dr = xr[q + 3 * s], di = xi[q + 3 * s];
        const R pr = ar + cr, pi = ai + ci, nr = ar - cr, ni = ai - ci;
        const R er = br + dr, ei = bi + di, fr = br - dr, fi = bi - di;
        yr[q] = pr + er;
        yi[q] = pi + ei;
        yr[q + s] = nr + fi;
        yi[q + s] = ni - fr;
        yr[q + 2 * s] = pr - er;
        yi[q + 2 * s] = pi - ei;
        yr[q + 3 * s] = nr - fi;
        yi[q + 3 * s] = ni + fr;
    }
}

// The last stage when the points are an odd power of two: pairs without twiddles.
template <typename R>
CRISP_INLINE void PairStage(const R* __restrict xr, const R* __restrict xi, R* __restrict yr,
                            R* __restrict yi, int s) {
    for (int q = 0; q < s; ++q) {
        const R ar = xr[q], ai = xi[q], br = xr[q + s], bi = xi[q + s];
        yr[q] = ar + br;
        yi[q] = ai + bi;
        yr[q + s] = ar - br;
        yi[q + s] = ai - bi;
    }
}

// One radix-3 stage, as Radix4's with three streams (w: W^p, then W^2p, each m long, real parts
// then imaginary). Transforms of three times a power of two take one, after the radix-4 ones.
template <typename R>
CRISP_INLINE void Radix3Stage(const R* __restrict xr, const R* __restrict xi, R* __restrict yr,
                              R* __restrict yi, const R* __restrict w, int s, int m) {
    const int l = s * m;
    const R half = 0.5, sine = R(0.86602540378443864676); // sin(pi / 3)
    for (int p = 0; p < m; ++p) {
        const R w1r = w[p], w1i = w[m + p], w2r = w[2 * m + p], w2i = w[3 * m + p];
        const int a = s * p, o = 3 * s * p;
        for (int q = 0; q < s; ++q) {
            const R ar = xr[a + q], ai = xi[a + q];
            const R br = xr[a + q + l], bi = xi[a + q + l];
            const R cr = xr[a + q + 2 * l], ci = xi[a + q + 2 * l];
            const R sr = br + cr, si = bi + ci, dr = br - cr, di = bi - ci;
            const R mr = ar - half * sr, mi = ai - half * si;
            const R ur = mr + sine * di, ui = mi - sine * dr; // a + W b + W^2 c
            const R vr = mr - sine * di, vi = mi + sine * dr; // a + W^2 b + W c
            yr[o + q] = ar + sr;
            yi[o + q] = ai + si;
            yr[o + s + q] = ur * w1r - ui * w1i;
            yi[o + s + q] = ur * w1i + ui * w1r;
            yr[o + 2 * s + q] = vr * w2r - vi * w2i;
            yi[o + 2 * s + q] = vr * w2i + vi * w2r;
        }
    }
}

// The forward complex transform of h points (a power of two, or three times one) in (xr, xi),
// using (yr, yi) as room; returns which of the two holds the result (true: y). w: each stage's
// twiddles in turn.
template <typename R> CRISP_INLINE bool Complex(R* xr, R* xi, R* yr, R* yi, const R* w, int h) {
    bool inY = false;
    int s = 1, n = h;
    for (; n % 4 == 0; n /= 4, s *= 4) {
        const int m = n / 4;
        if (s == 1)
            FirstStage(xr, xi, yr, yi, w, m);
        else if (m == 1)
            LastStage(xr, xi, yr, yi, s);
        else
            WideStage(xr, xi, yr, yi, w, s, m);
        w += 6 * m;
        std::swap(xr, yr);
        std::swap(xi, yi);
        inY = !inY;
    }
    if (n % 3 == 0) {
        Radix3Stage(xr, xi, yr, yi, w, s, n / 3);
        std::swap(xr, yr);
        std::swap(xi, yi);
        inY = !inY;
        s *= 3;
        n /= 3;
    }
    if (n == 2) {
        PairStage(xr, xi, yr, yi, s);
        inY = !inY;
    }
    return inY;
}

// (the vectors below live only in functions built for their width, and never cross a call)
#pragma GCC diagnostic ignored "-Wpsabi"

// The same lane-wise operations as the loops above, W floats (or W / 2 doubles) at a time in the
// compiler's own vectors, one of the level's registers each: each lane gives the bits the scalar
// loop gives. The stages whose stride is below W and the even/odd splits are where the
// compiler would not vectorise the loops above by itself; their data move by shuffles instead.
template <int W> struct Lanes {
    typedef float F __attribute__((vector_size(4 * W)));
    typedef float Half __attribute__((vector_size(2 * W)));
    typedef double D __attribute__((vector_size(4 * W))); // W / 2 doubles: one register
};

template <typename V, typename T> CRISP_INLINE V Load(const T* p) {
    V v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <typename V, typename T> CRISP_INLINE void Store(T* p, V v) {
    std::memcpy(p, &v, sizeof v);
}

// Shuffle patterns, lane t of the result: which lane of (a, b) side by side it takes.
struct Pattern {
    static constexpr int Even(int, int t) { return 2 * t; }
    static constexpr int Odd(int, int t) { return 2 * t + 1; }
    static constexpr int Reverse(int w, int t) { return w - 1 - t; }
};
// blocks of s lanes from a's and b's first halves (second with high) in turn
template <int S, bool High> constexpr int Blocks(int w, int t) {
    return (t / S % 2 ? w : 0) + (t / S / 2) * S + t % S + (High ? w / 2 : 0);
}

template <int (*P)(int, int), typename F, size_t... I>
CRISP_INLINE F Shuffle(F a, F b, std::index_sequence<I...>) {
    constexpr int w = sizeof...(I);
    return __builtin_shufflevector(a, b, P(w, int(I))...);
}
template <int W, int (*P)(int, int)>
CRISP_INLINE typename Lanes<W>::F Shuffle(typename Lanes<W>::F a, typename Lanes<W>::F b) {
    return Shuffle<P>(a, b, std::make_index_sequence<W>());
}

// Half of v (the second with High) in double precision.
template <int W, bool High, size_t... I>
CRISP_INLINE typename Lanes<W>::D Wide(typename Lanes<W>::F v, std::index_sequence<I...>) {
    using D = typename Lanes<W>::D;
    return __builtin_convertvector(__builtin_shufflevector(v, v, int(I + (High ? W / 2 : 0))...),
                                   D);
}
template <int W, bool High> CRISP_INLINE typename Lanes<W>::D Wide(typename Lanes<W>::F v) {
    return Wide<W, High>(v, std::make_index_sequence<W / 2>());
}
// Two runs of doubles rounded to floats, side by side.
template <int W, size_t... I>
CRISP_INLINE typename Lanes<W>::F Narrow(typename Lanes<W>::D a, typename Lanes<W>::D b,
                                         std::index_sequence<I...>) {
    using Half = typename Lanes<W>::Half;
    return __builtin_shufflevector(__builtin_convertvector(a, Half),
                                   __builtin_convertvector(b, Half), int(I)...);
}
template <int W>
CRISP_INLINE typename Lanes<W>::F Narrow(typename Lanes<W>::D a, typename Lanes<W>::D b) {
    return Narrow<W>(a, b, std::make_index_sequence<W>());
}
// v in double precision at to and to + W / 2.
template <int W> CRISP_INLINE void StoreWide(double* to, typename Lanes<W>::F v) {
    Store(to, Wide<W, false>(v));
    Store(to + W / 2, Wide<W, true>(v));
}

// y0 .. y3 of W lanes each as 4 W lanes in memory: s lanes of y0, s of y1, s of y2, s of y3,
// then the next s of each.
template <int W, int S>
CRISP_INLINE void StoreBlocks(float* out, typename Lanes<W>::F y0, typename Lanes<W>::F y1,
                              typename Lanes<W>::F y2, typename Lanes<W>::F y3) {
    using F = typename Lanes<W>::F;
    const F t0 = Shuffle<W, Blocks<S, false>>(y0, y2), t1 = Shuffle<W, Blocks<S, true>>(y0, y2);
    const F t2 = Shuffle<W, Blocks<S, false>>(y1, y3), t3 = Shuffle<W, Blocks<S, true>>(y1, y3);
    Store(out, Shuffle<W, Blocks<S, false>>(t0, t2));
    Store(out + W, Shuffle<W, Blocks<S, true>>(t0, t2));
    Store(out + 2 * W, Shuffle<W, Blocks<S, false>>(t1, t3));
    Store(out + 3 * W, Shuffle<W, Blocks<S, true>>(t1, t3));
}

// Radix4 on vectors; the twiddles are vectors too (lane by lane, or one value in every lane).
template <typename F>
CRISP_INLINE void Radix4V(F ar, F ai, F br, F bi, F cr, F ci, F dr, F di, F w1r, F w1i, F w2r,
                          F w2i, F w3r, F w3i, F* y) {
    const F pr = ar + cr, pi = ai + ci;
    const F nr = ar - cr, ni = ai - ci;
    const F er = br + dr, ei = bi + di;
    const F fr = br - dr, fi = bi - di;
    y[0] = pr + er;
    y[1] = pi + ei;
    const F ur = nr + fi, ui = ni - fr;
    const F vr = pr - er, vi = pi - ei;
    const F tr = nr - fi, ti = ni + fr;
    y[2] = ur * w1r - ui * w1i;
    y[3] = ur * w1i + ui * w1r;
    y[4] = vr * w2r - vi * w2i;
    y[5] = vr * w2i + vi * w2r;
    y[6] = tr * w3r - ti * w3i;
    y[7] = tr * w3i + ti * w3r;
}

// A stage of stride S below W: the groups' elements run on, i = S p + q over l = S m, and
// the twiddles w come expanded to one per i (each of the six runs l long).
template <int W, int S>
CRISP_INLINE void NarrowStageV(const float* __restrict xr, const float* __restrict xi,
                               float* __restrict yr, float* __restrict yi,
                               const float* __restrict w, int l) {
    using F = typename Lanes<W>::F;
    for (int i = 0; i < l; i += W) {
        F y[8];
        Radix4V(Load<F>(xr + i), Load<F>(xi + i), Load<F>(xr + i + l), Load<F>(xi + i + l),
                Load<F>(xr + i + 2 * l), Load<F>(xi + i + 2 * l), Load<F>(xr + i + 3 * l),
                Load<F>(xi + i + 3 * l), Load<F>(w + i), Load<F>(w + l + i), Load<F>(w + 2 * l + i),
                Load<F>(w + 3 * l + i), Load<F>(w + 4 * l + i), Load<F>(w + 5 * l + i), y);
        StoreBlocks<W, S>(yr + 4 * i, y[0], y[2], y[4], y[6]);
        StoreBlocks<W, S>(yi + 4 * i, y[1], y[3], y[5], y[7]);
    }
}

template <int W>
CRISP_INLINE void WideStageV(const float* __restrict xr, const float* __restrict xi,
                             float* __restrict yr, float* __restrict yi, const float* __restrict w,
                             int s, int m) {
    using F = typename Lanes<W>::F;
    const int l = s * m;
    for (int p = 0; p < m; ++p) {
        const F zero = {};
        const F w1r = zero + w[p], w1i = zero + w[m + p], w2r = zero + w[2 * m + p],
                w2i = zero + w[3 * m + p], w3r = zero + w[4 * m + p], w3i = zero + w[5 * m + p];
        const int a = s * p, o = 4 * s * p;
        for (int q = 0; q < s; q += W) {
            F y[8];
            const int i = a + q;
            Radix4V(Load<F>(xr + i), Load<F>(xi + i), Load<F>(xr + i + l), Load<F>(xi + i + l),
                    Load<F>(xr + i + 2 * l), Load<F>(xi + i + 2 * l), Load<F>(xr + i + 3 * l),
                    Load<F>(xi + i + 3 * l), w1r, w1i, w2r, w2i, w3r, w3i, y);
            for (int j = 0; j < 4; ++j) {
                Store(yr + o + j * s + q, y[2 * j]);
                Store(yi + o + j * s + q, y[2 * j + 1]);
            }
        }
    }
}

template <int W>
CRISP_INLINE void LastStageV(const float* __restrict xr, const float* __restrict xi,
                             float* __restrict yr, float* __restrict yi, int s) {
    using F = typename Lanes<W>::F;
    for (int q = 0; q < s; q += W) {
        const F ar = Load<F>(xr + q), ai = Load<F>(xi + q), br = Load<F>(xr + q + s),
                bi = Load<F>(xi + q + s), cr = Load<F>(xr + q + 2 * s),
                ci = Load<F>(xi + q + 2 * s), dr = Load<F>(xr + q + 3 * s),
                di = Load<F>(xi + q + 3 * s);
        const F pr = ar + cr, pi = ai + ci, nr = ar - cr, ni = ai - ci;
        const F er = br + dr, ei = bi + di, fr = br - dr, fi = bi - di;
        Store(yr + q, pr + er);
        Store(yi + q, pi + ei);
        Store(yr + q + s, nr + fi);
        Store(yi + q + s, ni - fr);
        Store(yr + q + 2 * s, pr - er);
        Store(yi + q + 2 * s, pi - ei);
        Store(yr + q + 3 * s, nr - fi);
        Store(yi + q + 3 * s, ni + fr);
    }
}

template <int W>
CRISP_INLINE void PairStageV(const float* __restrict xr, const float* __restrict xi,
                             float* __restrict yr, float* __restrict yi, int s) {
    using F = typename Lanes<W>::F;
    for (int q = 0; q < s; q += W) {
        const F ar = Load<F>(xr + q), ai = Load<F>(xi + q), br = Load<F>(xr + q + s),
                bi = Load<F>(xi + q + s);
        Store(yr + q, ar + br);
        Store(yi + q, ai + bi);
        Store(yr + q + s, ar - br);
        Store(yi + q + s, ai - bi);
    }
}

template <int W>
CRISP_INLINE void Radix3StageV(const float* __restrict xr, const float* __restrict xi,
                               float* __restrict yr, float* __restrict yi,
                               const float* __restrict w, int s, int m) {
    using F = typename Lanes<W>::F;
    const int l = s * m;
    const F zero = {};
    const F half = zero + 0.5f, sine = zero + float(0.86602540378443864676);
    for (int p = 0; p < m; ++p) {
        const F w1r = zero + w[p], w1i = zero + w[m + p], w2r = zero + w[2 * m + p],
                w2i = zero + w[3 * m + p];
        const int a = s * p, o = 3 * s * p;
        for (int q = 0; q < s; q += W) {
            const int i = a + q;
            const F ar = Load<F>(xr + i), ai = Load<F>(xi + i);
            const F br = Load<F>(xr + i + l), bi = Load<F>(xi + i + l);
            const F cr = Load<F>(xr + i + 2 * l), ci = Load<F>(xi + i + 2 * l);
            const F sr = br + cr, si = bi + ci, dr = br - cr, di = bi - ci;
            const F mr = ar - half * sr, mi = ai - half * si;
            const F ur = mr + sine * di, ui = mi - sine * dr;
            const F vr = mr - sine * di, vi = mi + sine * dr;
            Store(yr + o + q, ar + sr);
            Store(yi + o + q, ai + si);
            Store(yr + o + s + q, ur * w1r - ui * w1i);
            Store(yi + o + s + q, ur * w1i + ui * w1r);
            Store(yr + o + 2 * s + q, vr * w2r - vi * w2i);
            Store(yi + o + 2 * s + q, vr * w2i + vi * w2r);
        }
    }
}

// Whether ComplexV's loops take h points in whole vectors of W: each stage's runs a multiple of
// W (those of strides 1 and 4 as they are laid out there, the rest their stride).
template <int W> constexpr bool Fits(int h) {
    int s = 1, n = h;
    for (; n % 4 == 0; n /= 4, s *= 4)
        if ((s == 1 ? n / 4 : s == 4 && W > 4 ? n : s) % W != 0)
            return false;
    return n == 1 || s % W == 0;
}

// Complex at W lanes, for h that Fits; wide4: the stage of stride 4's twiddles expanded.
template <int W>
CRISP_INLINE bool ComplexV(float* xr, float* xi, float* yr, float* yi, const float* w,
                           const float* wide4, int h) {
    bool inY = false;
    int s = 1, n = h;
    for (; n % 4 == 0; n /= 4, s *= 4) {
        const int m = n / 4;
        if (s == 1)
            NarrowStageV<W, 1>(xr, xi, yr, yi, w, m);
        else if (s == 4 && W > 4)
            NarrowStageV<W, (W > 4 ? 4 : 1)>(xr, xi, yr, yi, wide4, s * m);
        else if (m == 1)
            LastStageV<W>(xr, xi, yr, yi, s);
        else
            WideStageV<W>(xr, xi, yr, yi, w, s, m);
        w += 6 * m;
        std::swap(xr, yr);
        std::swap(xi, yi);
        inY = !inY;
    }
    if (n % 3 == 0) {
        Radix3StageV<W>(xr, xi, yr, yi, w, s, n / 3);
        std::swap(xr, yr);
        std::swap(xi, yi);
        inY = !inY;
        s *= 3;
        n /= 3;
    }
    if (n == 2) {
        PairStageV<W>(xr, xi, yr, yi, s);
        inY = !inY;
    }
    return inY;
}

// Room between the work arrays, a cache line: arrays a page apart make each load wait on the
// store to the array before it (the processor matches them by their low address bits).
template <typename R> constexpr int Gap = 64 / sizeof(R);

template <typename R> struct Plan {
    int h;
    R* work;    // 4 h: xr, xi, yr, yi; then, in single precision, 2 (h + 1) for the spectrum; each
                // Gap after the one before
    const R* w; // the stages' twiddles
    const R* twr; // the real transform's
    const R* twi;
    const R* wide4; // the stage of stride 4's, expanded (see NarrowStageV)
};

// Z = FFT(x[2m] + i x[2m+1]) gives the transforms of the even and the odd samples,
// E = (Z[k] + conj Z[h-k]) / 2 and O = (Z[k] - conj Z[h-k]) / 2i, and X[k] = E + W^k O.
template <typename R, typename S>
CRISP_INLINE void Unpack(const R* __restrict zr, const R* __restrict zi, const R* __restrict twr,
                         const R* __restrict twi, int h, S* __restrict re, S* __restrict im,
                         int first = 1) {
    re[0] = S(zr[0] + zi[0]);
    im[0] = 0;
    re[h] = S(zr[0] - zi[0]);
    im[h] = 0;
    const R half = 0.5;
    for (int k = first; k < h; ++k) {
        const R ar = zr[k], ai = zi[k];
        const R br = zr[h - k], bi = -zi[h - k]; // conj Z[h-k]
        const R er = half * (ar + br), ei = half * (ai + bi);
        const R or_ = half * (ai - bi), oi = -half * (ar - br); // (a - b) / 2i
        const R wr = twr[k], wi = twi[k];
        re[k] = S(er + (wr * or_ - wi * oi));
        im[k] = S(ei + (wr * oi + wi * or_));
    }
}

// Z[k] = E + i O with O = (X[k] - conj X[h-k]) W^-k / 2, real and imaginary parts swapped
// (see InverseBody); (tr, ti): the spectrum in the working precision.
template <typename R>
CRISP_INLINE void Pack(const R* __restrict tr, const R* __restrict ti, const R* __restrict twr,
                       const R* __restrict twi, int h, R* __restrict xr, R* __restrict xi,
                       int first = 1) {
    const R half = 0.5;
    // a real signal's bins 0 and n / 2 are real: their imaginary parts are not read, or they
    // would come out as a tone at the Nyquist frequency (W^0 = 1: O = D, real)
    xi[0] = half * (tr[0] + tr[h]);
    xr[0] = half * (tr[0] - tr[h]);
    for (int k = first; k < h; ++k) {
        const R ar = tr[k], ai = ti[k];
        const R br = tr[h - k], bi = -ti[h - k]; // conj X[h-k]
        const R er = half * (ar + br), ei = half * (ai + bi);
        const R dr = half * (ar - br), di = half * (ai - bi);
        const R wr = twr[k], wi = -twi[k];
        const R or_ = dr * wr - di * wi, oi = dr * wi + di * wr;
        xi[k] = er - oi;
        xr[k] = ei + or_;
    }
}

// The spectrum in the working precision, in a run of its own: the compiler vectorises the
// conversion and Pack's reversed reads only apart.
template <typename S, typename R>
CRISP_INLINE void Narrow(const S* __restrict re, const S* __restrict im, int bins, R* __restrict tr,
                         R* __restrict ti, int first = 0) {
    for (int k = first; k < bins; ++k) {
        tr[k] = R(re[k]);
        ti[k] = R(im[k]);
    }
}

// The samples, times the window when there is one, into even and odd.
template <typename T, typename R>
CRISP_INLINE void Split(const T* __restrict x, const float* __restrict window, int h,
                        R* __restrict xr, R* __restrict xi) {
    if (window) {
        for (int i = 0; i < h; ++i) {
            xr[i] = R(x[2 * i] * window[2 * i]);
            xi[i] = R(x[2 * i + 1] * window[2 * i + 1]);
        }
    } else {
        for (int i = 0; i < h; ++i) {
            xr[i] = R(x[2 * i]);
            xi[i] = R(x[2 * i + 1]);
        }
    }
}

// W bins from k, a = Z[k..] and b = conj(Z[h-k..]) read backwards, and their half sum e.
template <int W> struct Mirrored {
    using F = typename Lanes<W>::F;
    F ar, ai, br, bi, er, ei;
    CRISP_INLINE Mirrored(const float* __restrict zr, const float* __restrict zi, int h, int k) {
        const float half = 0.5;
        ar = Load<F>(zr + k), ai = Load<F>(zi + k);
        const F rr = Load<F>(zr + h - k - W + 1), ri = Load<F>(zi + h - k - W + 1);
        br = Shuffle<W, Pattern::Reverse>(rr, rr), bi = -Shuffle<W, Pattern::Reverse>(ri, ri);
        er = half * (ar + br), ei = half * (ai + bi);
    }
};

// Unpack from bin 1 on, W bins at a time, Z[h-k] read backwards; returns the first bin left.
template <int W, typename S>
CRISP_INLINE int UnpackV(const float* __restrict zr, const float* __restrict zi,
                         const float* __restrict twr, const float* __restrict twi, int h,
                         S* __restrict re, S* __restrict im) {
    using F = typename Lanes<W>::F;
    const float half = 0.5;
    int k = 1;
    for (; k + W <= h; k += W) {
        const auto [ar, ai, br, bi, er, ei] = Mirrored<W>(zr, zi, h, k);
        const F or_ = half * (ai - bi), oi = -half * (ar - br);
        const F wr = Load<F>(twr + k), wi = Load<F>(twi + k);
        if constexpr (std::is_same_v<S, float>) {
            Store(re + k, er + (wr * or_ - wi * oi));
            Store(im + k, ei + (wr * oi + wi * or_));
        } else {
            StoreWide<W>(re + k, er + (wr * or_ - wi * oi));
            StoreWide<W>(im + k, ei + (wr * oi + wi * or_));
        }
    }
    return k;
}

template <int W>
CRISP_INLINE int PackV(const float* __restrict tr, const float* __restrict ti,
                       const float* __restrict twr, const float* __restrict twi, int h,
                       float* __restrict xr, float* __restrict xi) {
    using F = typename Lanes<W>::F;
    const float half = 0.5;
    int k = 1;
    for (; k + W <= h; k += W) {
        const auto [ar, ai, br, bi, er, ei] = Mirrored<W>(tr, ti, h, k);
        const F dr = half * (ar - br), di = half * (ai - bi);
        const F wr = Load<F>(twr + k), wi = -Load<F>(twi + k);
        const F or_ = dr * wr - di * wi, oi = dr * wi + di * wr;
        Store(xi + k, er - oi);
        Store(xr + k, ei + or_);
    }
    return k;
}

// Narrow, W bins at a time; returns the first bin left.
template <int W>
CRISP_INLINE int NarrowV(const double* __restrict re, const double* __restrict im, int bins,
                         float* __restrict tr, float* __restrict ti) {
    using D = typename Lanes<W>::D;
    int k = 0;
    for (; k + W <= bins; k += W) {
        Store(tr + k, Narrow<W>(Load<D>(re + k), Load<D>(re + k + W / 2)));
        Store(ti + k, Narrow<W>(Load<D>(im + k), Load<D>(im + k + W / 2)));
    }
    return k;
}

// Split of windowed floats, W pairs at a time (h a multiple of W).
template <int W>
CRISP_INLINE void SplitV(const float* __restrict x, const float* __restrict window, int h,
                         float* __restrict xr, float* __restrict xi) {
    using F = typename Lanes<W>::F;
    for (int i = 0; i < h; i += W) {
        const F a = Load<F>(x + 2 * i) * Load<F>(window + 2 * i);
        const F b = Load<F>(x + 2 * i + W) * Load<F>(window + 2 * i + W);
        Store(xr + i, Shuffle<W, Pattern::Even>(a, b));
        Store(xi + i, Shuffle<W, Pattern::Odd>(a, b));
    }
}

// Merge, W pairs at a time; returns the first pair left.
template <int W>
CRISP_INLINE int MergeV(const float* __restrict zr, const float* __restrict zi, float factor,
                        int from, int until, const float* __restrict w, float* __restrict to,
                        int base) {
    using F = typename Lanes<W>::F;
    int i = from;
    for (; i + W <= until; i += W) {
        const F r = Load<F>(zr + i), im = Load<F>(zi + i);
        float* a = to + 2 * i - base;
        Store(a, Load<F>(a) + Shuffle<W, Blocks<1, false>>(r, im) * Load<F>(w + 2 * i) * factor);
        Store(a + W, Load<F>(a + W) +
                         Shuffle<W, Blocks<1, true>>(r, im) * Load<F>(w + 2 * i + W) * factor);
    }
    return i;
}

// W: the lanes of the level's vectors, used in single precision from h = 4 W on.
template <int W, typename R, typename T, typename S>
CRISP_INLINE void ForwardBody(const Plan<R>& plan, const T* __restrict x,
                              const float* __restrict window, S* __restrict re, S* __restrict im) {
    const int h = plan.h;
    R *xr = plan.work, *xi = xr + h + Gap<R>, *yr = xi + h + Gap<R>, *yi = yr + h + Gap<R>;
    if constexpr (std::is_same_v<R, float>) {
        if (Fits<W>(h)) {
            if constexpr (std::is_same_v<T, float>) {
                if (window)
                    SplitV<W>(x, window, h, xr, xi);
                else
                    Split(x, window, h, xr, xi);
            } else {
                Split(x, window, h, xr, xi);
            }
            const bool inY = ComplexV<W>(xr, xi, yr, yi, plan.w, plan.wide4, h);
            const R* zr = inY ? yr : xr;
            const R* zi = inY ? yi : xi;
            const int k = UnpackV<W>(zr, zi, plan.twr, plan.twi, h, re, im);
            Unpack(zr, zi, plan.twr, plan.twi, h, re, im, k);
            return;
        }
    }
    Split(x, window, h, xr, xi);
    if (Complex(xr, xi, yr, yi, plan.w, h))
        Unpack(yr, yi, plan.twr, plan.twi, h, re, im);
    else
        Unpack(xr, xi, plan.twr, plan.twi, h, re, im);
}

// The inverse complex transform is the forward one with real and imaginary parts swapped on the
// way in and out, divided by h.
// The samples go to x, or, with a window, are added times window and gain to to (below split)
// and rest (from split on, an even count).
struct Output {
    double* x;
    const float* window;
    double gain;
    float* to;
    int split;
    float* rest;
};

// Samples 2 from to 2 until - 1, times the window and a factor, added to to[m - base].
template <typename R>
CRISP_INLINE void Merge(const R* __restrict zr, const R* __restrict zi, R factor, int from,
                        int until, const float* __restrict w, float* __restrict to, int base) {
    for (int i = from; i < until; ++i) {
        to[2 * i - base] += float(zr[i] * R(w[2 * i]) * factor);
        to[2 * i + 1 - base] += float(zi[i] * R(w[2 * i + 1]) * factor);
    }
}

// S: the spectrum's type; read as it is where it is the working precision's
template <int W, typename R, typename S>
CRISP_INLINE void InverseBody(const Plan<R>& plan, const S* __restrict re, const S* __restrict im,
                              const Output& out) {
    const int h = plan.h;
    R *xr = plan.work, *xi = xr + h + Gap<R>, *yr = xi + h + Gap<R>, *yi = yr + h + Gap<R>;
    bool inY = false;
    bool wide = false;
    if constexpr (std::is_same_v<R, double>) {
        const R *tr = nullptr, *ti = nullptr;
        if constexpr (std::is_same_v<S, double>) {
            tr = re;
            ti = im;
        } else {
            R *nr = yi + h + Gap<R>, *ni = nr + h + 1 + Gap<R>;
            Narrow(re, im, h + 1, nr, ni);
            tr = nr;
            ti = ni;
        }
        Pack(tr, ti, plan.twr, plan.twi, h, xr, xi);
        inY = Complex(xr, xi, yr, yi, plan.w, h);
    } else {
        wide = Fits<W>(h);
        const R *tr = nullptr, *ti = nullptr;
        if constexpr (std::is_same_v<S, float>) {
            tr = re;
            ti = im;
        } else {
            R *nr = yi + h + Gap<R>, *ni = nr + h + 1 + Gap<R>;
            Narrow(re, im, h + 1, nr, ni, wide ? NarrowV<W>(re, im, h + 1, nr, ni) : 0);
            tr = nr;
            ti = ni;
        }
        if (wide) {
            Pack(tr, ti, plan.twr, plan.twi, h, xr, xi,
                 PackV<W>(tr, ti, plan.twr, plan.twi, h, xr, xi));
            inY = ComplexV<W>(xr, xi, yr, yi, plan.w, plan.wide4, h);
        } else {
            Pack(tr, ti, plan.twr, plan.twi, h, xr, xi);
            inY = Complex(xr, xi, yr, yi, plan.w, h);
        }
    }
    const R* __restrict zi = inY ? yr : xr; // swapped back
    const R* __restrict zr = inY ? yi : xi;
    const double scale = 1.0 / h;
    if (out.window) {
        const int half = out.split / 2;
        const R factor = R(scale * out.gain);
        int i = 0;
        if constexpr (std::is_same_v<R, float>)
            if (wide)
                i = MergeV<W>(zr, zi, factor, 0, half, out.window, out.to, 0);
        Merge(zr, zi, factor, i, half, out.window, out.to, 0);
        i = half;
        if constexpr (std::is_same_v<R, float>)
            if (wide)
                i = MergeV<W>(zr, zi, factor, half, h, out.window, out.rest, out.split);
        Merge(zr, zi, factor, i, h, out.window, out.rest, out.split);
        return;
    }
    double* __restrict x = out.x;
    for (int i = 0; i < h; ++i) {
        x[2 * i] = double(zr[i]) * scale;
        x[2 * i + 1] = double(zi[i]) * scale;
    }
}

template <typename R, typename T, typename S>
CRISP_AVX512 void Forward512(const Plan<R>& plan, const T* x, const float* window, S* re, S* im) {
    ForwardBody<16>(plan, x, window, re, im);
}
template <typename R, typename T, typename S>
CRISP_AVX2 void Forward256(const Plan<R>& plan, const T* x, const float* window, S* re, S* im) {
    ForwardBody<8>(plan, x, window, re, im);
}
template <typename R, typename T, typename S>
void ForwardPlain(const Plan<R>& plan, const T* x, const float* window, S* re, S* im) {
    ForwardBody<4>(plan, x, window, re, im);
}
template <typename R, typename S>
CRISP_AVX512 void Inverse512(const Plan<R>& plan, const S* re, const S* im, const Output& out) {
    InverseBody<16>(plan, re, im, out);
}
template <typename R, typename S>
CRISP_AVX2 void Inverse256(const Plan<R>& plan, const S* re, const S* im, const Output& out) {
    InverseBody<8>(plan, re, im, out);
}
template <typename R, typename S>
void InversePlain(const Plan<R>& plan, const S* re, const S* im, const Output& out) {
    InverseBody<4>(plan, re, im, out);
}

template <typename R, typename T, typename S>
void ForwardAt(CMorvaneIsa::Level isa, const Plan<R>& plan, const T* x, const float* window, S* re,
               S* im) {
    if (isa == CMorvaneIsa::Avx512)
        Forward512(plan, x, window, re, im);
    else if (isa == CMorvaneIsa::Avx2)
        Forward256(plan, x, window, re, im);
    else
        ForwardPlain(plan, x, window, re, im);
}

template <typename R, typename S>
void InverseAt(CMorvaneIsa::Level isa, const Plan<R>& plan, const S* re, const S* im,
               const Output& out) {
    if (isa == CMorvaneIsa::Avx512)
        Inverse512(plan, re, im, out);
    else if (isa == CMorvaneIsa::Avx2)
        Inverse256(plan, re, im, out);
    else
        InversePlain(plan, re, im, out);
}

} // namespace

template <typename R> struct CRealFft::Twiddles {
    explicit Twiddles(int n);
    Zeroed<R> stages, twRe, twIm, wide4;
};

// The twiddles are worked out in double precision and rounded once.
template <typename R>
CRealFft::Twiddles<R>::Twiddles(int n)
    : stages(static_cast<size_t>(n)), twRe(static_cast<size_t>(n / 2)),
      twIm(static_cast<size_t>(n / 2)), wide4(static_cast<size_t>(n)) {
    const int h = n / 2;
    for (int k = 0; k < h; ++k) {
        const double a = -2.0 * std::numbers::pi * k / n;
        twRe[k] = R(std::cos(a));
        twIm[k] = R(std::sin(a));
    }
    // each stage of r m points in turn, radix 4 while they divide by 4, then one of radix 3 if
    // they divide by 3: W^p ... W^(r-1)p of r m points, p < m
    R* w = stages.get();
    const auto stage = [&](int r, int m) {
        for (int p = 0; p < m; ++p)
            for (int j = 1; j < r; ++j) {
                const double a = -2.0 * std::numbers::pi * j * p / (r * m);
                w[(2 * j - 2) * m + p] = R(std::cos(a));
                w[(2 * j - 1) * m + p] = R(std::sin(a));
            }
        w += 2 * (r - 1) * m;
    };
    int left = h;
    for (; left % 4 == 0; left /= 4)
        stage(4, left / 4);
    if (left % 3 == 0)
        stage(3, left / 3);
    // the stage of stride 4 (m = h / 16) with each twiddle repeated for the 4 elements it turns
    if (h % 16 == 0) {
        const int m = h / 16, l = 4 * m;
        const R* from = stages.get() + 6 * (h / 4);
        for (int r = 0; r < 6; ++r)
            for (int i = 0; i < l; ++i)
                wide4[r * l + i] = from[r * m + i / 4];
    }
}

template <typename R>
CRealFft::Tables<R>::Tables(bool used) : work(used ? 3 * kMaxPoints + 2 + 6 * 16 : 0) {}

template <typename R> void CRealFft::Tables<R>::Prepare(int n) {
    // one set a size for the process, never freed while a transform may read it
    static std::mutex mutex;
    static std::unique_ptr<Twiddles<R>> made[32];
    std::lock_guard lock(mutex);
    std::unique_ptr<Twiddles<R>>& t =
        made[std::countr_zero(static_cast<unsigned>(n)) + (n % 3 == 0 ? 16 : 0)];
    if (!t)
        t = std::make_unique<Twiddles<R>>(n);
    stages = t->stages.get();
    twRe = t->twRe.get();
    twIm = t->twIm.get();
    wide4 = t->wide4.get();
}

CRealFft::CRealFft(CMorvaneIsa::Level isa, Precision precision)
    : m_Isa(CMorvaneIsa::Usable(isa)), m_Precision(precision),
      m_Single(precision == Precision::Single), m_Double(precision == Precision::Double) {}

void CRealFft::ShareWork(const CRealFft& other) {
    if (other.m_Precision != m_Precision)
        return; // (its arrays are of the other precision, and empty)
    m_pSingleWork = m_Precision == Precision::Single ? other.SingleWork() : nullptr;
    m_pDoubleWork = m_Precision == Precision::Double ? other.DoubleWork() : nullptr;
}

bool CRealFft::Prepare(int n) {
    m_nPoints = 0;
    const int odd = n >> std::countr_zero(static_cast<unsigned>(std::max(n, 1)));
    if (n < 4 || n > kMaxPoints || (odd != 1 && odd != 3))
        return false;
    if (m_Precision == Precision::Single)
        m_Single.Prepare(n);
    else
        m_Double.Prepare(n);
    m_nPoints = n;
    return true;
}

template <typename T, typename S>
void CRealFft::Transform(const T* x, const float* window, S* re, S* im) {
    const int h = m_nPoints / 2;
    if (m_Precision == Precision::Single)
        ForwardAt(m_Isa,
                  Plan<float>{h, SingleWork(), m_Single.stages, m_Single.twRe, m_Single.twIm,
                              m_Single.wide4},
                  x, window, re, im);
    else
        ForwardAt(m_Isa,
                  Plan<double>{h, DoubleWork(), m_Double.stages, m_Double.twRe, m_Double.twIm,
                               m_Double.wide4},
                  x, window, re, im);
}

void CRealFft::Forward(const double* x, double* re, double* im) {
    Transform(x, nullptr, re, im);
}

void CRealFft::Forward(const float* x, const float* window, float* re, float* im) {
    Transform(x, window, re, im);
}

template <typename S> void CRealFft::Backward(const S* re, const S* im, const void* output) {
    const Output& out = *static_cast<const Output*>(output);
    const int h = m_nPoints / 2;
    if (m_Precision == Precision::Single)
        InverseAt(m_Isa,
                  Plan<float>{h, SingleWork(), m_Single.stages, m_Single.twRe, m_Single.twIm,
                              m_Single.wide4},
                  re, im, out);
    else
        InverseAt(m_Isa,
                  Plan<double>{h, DoubleWork(), m_Double.stages, m_Double.twRe, m_Double.twIm,
                               m_Double.wide4},
                  re, im, out);
}

void CRealFft::Inverse(const double* re, const double* im, double* x) {
    const Output out{x, nullptr, 0, nullptr, 0, nullptr};
    Backward(re, im, &out);
}

void CRealFft::InverseAdd(const double* re, const double* im, const float* window, double gain,
                          float* to, int split, float* rest) {
    const Output out{nullptr, window, gain, to, split, rest};
    Backward(re, im, &out);
}

void CRealFft::InverseAdd(const float* re, const float* im, const float* window, double gain,
                          float* to, int split, float* rest) {
    const Output out{nullptr, window, gain, to, split, rest};
    Backward(re, im, &out);
}
