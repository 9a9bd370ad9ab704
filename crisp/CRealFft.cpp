#include "CRealFft.h"

#include <cmath>
#include <memory>
#include <numbers>
#include <utility>

// Each body is inlined into one function per instruction set, where the compiler vectorises it.
#define CRISP_INLINE __attribute__((always_inline)) inline
// (only what CMorvaneIsa::Supported checks for the level: F and BW; GCC would keep to 256 bits)
#if defined(__clang__)
#define CRISP_AVX512 __attribute__((target("avx2,avx512f,avx512bw")))
#else
#define CRISP_AVX512 __attribute__((target("avx2,avx512f,avx512bw,prefer-vector-width=512")))
#endif
#define CRISP_AVX2 __attribute__((target("avx2")))
// A loop whose streams never overlap, though they are views of one array (for GCC, which would
// not vectorise it otherwise; Clang's pragma for it is an error wherever it cannot, as under
// sanitizers).
#if defined(__clang__)
#define CRISP_NO_OVERLAP
#else
#define CRISP_NO_OVERLAP _Pragma("GCC ivdep")
#endif

namespace {

// One radix-4 stage, decimation in frequency, natural order in and out: m groups p of `stride`
// elements q, each four (p, p + m, p + 2m, p + 3m) going to 4p ... 4p + 3 through a 4-point
// transform, output j turned by W^(jp) (w: W^p, W^2p, W^3p, each its real parts then imaginary).
// The inputs come as four streams a..d and the outputs go to four, each at its own pointer; the
// loops around it say (CRISP_NO_OVERLAP) that no stream overlaps another.

CRISP_INLINE void Radix4(const double* __restrict ar, const double* __restrict ai,
                         const double* __restrict br, const double* __restrict bi,
                         const double* __restrict cr, const double* __restrict ci,
                         const double* __restrict dr, const double* __restrict di, int i,
                         double* __restrict y0r, double* __restrict y0i, double* __restrict y1r,
                         double* __restrict y1i, double* __restrict y2r, double* __restrict y2i,
                         double* __restrict y3r, double* __restrict y3i, int o, double w1r,
                         double w1i, double w2r, double w2i, double w3r, double w3i) {
    const double pr = ar[i] + cr[i], pi = ai[i] + ci[i]; // a + c
    const double nr = ar[i] - cr[i], ni = ai[i] - ci[i]; // a - c
    const double er = br[i] + dr[i], ei = bi[i] + di[i]; // b + d
    const double fr = br[i] - dr[i], fi = bi[i] - di[i]; // b - d, turned by -i below
    y0r[o] = pr + er;
    y0i[o] = pi + ei;
    const double ur = nr + fi, ui = ni - fr; // (a - c) - i (b - d)
    const double vr = pr - er, vi = pi - ei; // (a + c) - (b + d)
    const double tr = nr - fi, ti = ni + fr; // (a - c) + i (b - d)
    y1r[o] = ur * w1r - ui * w1i;
    y1i[o] = ur * w1i + ui * w1r;
    y2r[o] = vr * w2r - vi * w2i;
    y2i[o] = vr * w2i + vi * w2r;
    y3r[o] = tr * w3r - ti * w3i;
    y3i[o] = tr * w3i + ti * w3r;
}

// The first stage, of stride 1: the groups are the long run, each one's outputs side by side.
CRISP_INLINE void FirstStage(const double* __restrict xr, const double* __restrict xi,
                             double* __restrict yr, double* __restrict yi,
                             const double* __restrict w, int m) {
    const double *ar = xr, *ai = xi, *br = xr + m, *bi = xi + m, *cr = xr + 2 * m, *ci = xi + 2 * m,
                 *dr = xr + 3 * m, *di = xi + 3 * m;
    CRISP_NO_OVERLAP
    for (int p = 0; p < m; ++p) {
        const double pr = ar[p] + cr[p], pi = ai[p] + ci[p];
        const double nr = ar[p] - cr[p], ni = ai[p] - ci[p];
        const double er = br[p] + dr[p], ei = bi[p] + di[p];
        const double fr = br[p] - dr[p], fi = bi[p] - di[p];
        const double ur = nr + fi, ui = ni - fr;
        const double vr = pr - er, vi = pi - ei;
        const double tr = nr - fi, ti = ni + fr;
        const double w1r = w[p], w1i = w[m + p], w2r = w[2 * m + p], w2i = w[3 * m + p],
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
CRISP_INLINE void WideStage(const double* __restrict xr, const double* __restrict xi,
                            double* __restrict yr, double* __restrict yi,
                            const double* __restrict w, int s, int m) {
    const int l = s * m;
    for (int p = 0; p < m; ++p) {
        const double w1r = w[p], w1i = w[m + p], w2r = w[2 * m + p], w2i = w[3 * m + p],
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

// The last stage when the points are an odd power of two: pairs without twiddles.
CRISP_INLINE void PairStage(const double* __restrict xr, const double* __restrict xi,
                            double* __restrict yr, double* __restrict yi, int s) {
    for (int q = 0; q < s; ++q) {
        const double ar = xr[q], ai = xi[q], br = xr[q + s], bi = xi[q + s];
        yr[q] = ar + br;
        yi[q] = ai + bi;
        yr[q + s] = ar - br;
        yi[q + s] = ai - bi;
    }
}

// The forward complex transform of h points in (xr, xi), using (yr, yi) as room; returns which
// of the two holds the result (true: y). w: each radix-4 stage's twiddles in turn.
CRISP_INLINE bool Complex(double* xr, double* xi, double* yr, double* yi, const double* w, int h) {
    bool inY = false;
    int s = 1, n = h;
    for (; n >= 4; n /= 4, s *= 4) {
        const int m = n / 4;
        if (s == 1)
            FirstStage(xr, xi, yr, yi, w, m);
        else
            WideStage(xr, xi, yr, yi, w, s, m);
        w += 6 * m;
        std::swap(xr, yr);
        std::swap(xi, yi);
        inY = !inY;
    }
    if (n == 2) {
        PairStage(xr, xi, yr, yi, s);
        inY = !inY;
    }
    return inY;
}

struct Plan {
    int h;
    double* work;      // 4 h: xr, xi, yr, yi
    const double* w;   // the stages' twiddles
    const double* twr; // the real transform's
    const double* twi;
};

// Z = FFT(x[2m] + i x[2m+1]) gives the transforms of the even and the odd samples,
// E = (Z[k] + conj Z[h-k]) / 2 and O = (Z[k] - conj Z[h-k]) / 2i, and X[k] = E + W^k O.
CRISP_INLINE void Unpack(const double* __restrict zr, const double* __restrict zi,
                         const double* __restrict twr, const double* __restrict twi, int h,
                         double* __restrict re, double* __restrict im) {
    re[0] = zr[0] + zi[0];
    im[0] = 0.0;
    re[h] = zr[0] - zi[0];
    im[h] = 0.0;
    for (int k = 1; k < h; ++k) {
        const double ar = zr[k], ai = zi[k];
        const double br = zr[h - k], bi = -zi[h - k]; // conj Z[h-k]
        const double er = 0.5 * (ar + br), ei = 0.5 * (ai + bi);
        const double or_ = 0.5 * (ai - bi), oi = -0.5 * (ar - br); // (a - b) / 2i
        const double wr = twr[k], wi = twi[k];
        re[k] = er + (wr * or_ - wi * oi);
        im[k] = ei + (wr * oi + wi * or_);
    }
}

// Z[k] = E + i O with O = (X[k] - conj X[h-k]) W^-k / 2, real and imaginary parts swapped
// (see InverseBody).
CRISP_INLINE void Pack(const double* __restrict tr, const double* __restrict ti,
                       const double* __restrict twr, const double* __restrict twi, int h,
                       double* __restrict xr, double* __restrict xi) {
    // a real signal's bins 0 and n / 2 are real: their imaginary parts are not read, or they
    // would come out as a tone at the Nyquist frequency (W^0 = 1: O = D, real)
    xi[0] = 0.5 * (tr[0] + tr[h]);
    xr[0] = 0.5 * (tr[0] - tr[h]);
    for (int k = 1; k < h; ++k) {
        const double ar = tr[k], ai = ti[k];
        const double br = tr[h - k], bi = -ti[h - k]; // conj X[h-k]
        const double er = 0.5 * (ar + br), ei = 0.5 * (ai + bi);
        const double dr = 0.5 * (ar - br), di = 0.5 * (ai - bi);
        const double wr = twr[k], wi = -twi[k];
        const double or_ = dr * wr - di * wi, oi = dr * wi + di * wr;
        xi[k] = er - oi;
        xr[k] = ei + or_;
    }
}

// The samples, times the window when there is one, into even and odd.
template <typename T>
CRISP_INLINE void Split(const T* __restrict x, const double* __restrict window, int h,
                        double* __restrict xr, double* __restrict xi) {
    if (window) {
        for (int i = 0; i < h; ++i) {
            xr[i] = x[2 * i] * window[2 * i];
            xi[i] = x[2 * i + 1] * window[2 * i + 1];
        }
    } else {
        for (int i = 0; i < h; ++i) {
            xr[i] = x[2 * i];
            xi[i] = x[2 * i + 1];
        }
    }
}

template <typename T>
CRISP_INLINE void ForwardBody(const Plan& plan, const T* __restrict x,
                              const double* __restrict window, double* __restrict re,
                              double* __restrict im) {
    const int h = plan.h;
    double *xr = plan.work, *xi = xr + h, *yr = xi + h, *yi = yr + h;
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
    const double* window;
    double gain;
    double* to;
    int split;
    double* rest;
};

// Samples 2 from to 2 until - 1, added to to[m - base].
CRISP_INLINE void Merge(const double* __restrict zr, const double* __restrict zi, double scale,
                        int from, int until, const double* __restrict w, double gain,
                        double* __restrict to, int base) {
    for (int i = from; i < until; ++i) {
        to[2 * i - base] += zr[i] * scale * w[2 * i] * gain;
        to[2 * i + 1 - base] += zi[i] * scale * w[2 * i + 1] * gain;
    }
}

CRISP_INLINE void InverseBody(const Plan& plan, const double* __restrict re,
                              const double* __restrict im, const Output& out) {
    const int h = plan.h;
    double *xr = plan.work, *xi = xr + h, *yr = xi + h, *yi = yr + h;
    Pack(re, im, plan.twr, plan.twi, h, xr, xi);
    const bool inY = Complex(xr, xi, yr, yi, plan.w, h);
    const double* __restrict zi = inY ? yr : xr; // swapped back
    const double* __restrict zr = inY ? yi : xi;
    const double scale = 1.0 / h;
    if (out.window) {
        const int half = out.split / 2;
        Merge(zr, zi, scale, 0, half, out.window, out.gain, out.to, 0);
        Merge(zr, zi, scale, half, h, out.window, out.gain, out.rest, out.split);
        return;
    }
    double* __restrict x = out.x;
    for (int i = 0; i < h; ++i) {
        x[2 * i] = zr[i] * scale;
        x[2 * i + 1] = zi[i] * scale;
    }
}

template <typename T>
CRISP_AVX512 void Forward512(const Plan& plan, const T* x, const double* window, double* re,
                             double* im) {
    ForwardBody(plan, x, window, re, im);
}
template <typename T>
CRISP_AVX2 void Forward256(const Plan& plan, const T* x, const double* window, double* re,
                           double* im) {
    ForwardBody(plan, x, window, re, im);
}
template <typename T>
void ForwardPlain(const Plan& plan, const T* x, const double* window, double* re, double* im) {
    ForwardBody(plan, x, window, re, im);
}
CRISP_AVX512 void Inverse512(const Plan& plan, const double* re, const double* im,
                             const Output& out) {
    InverseBody(plan, re, im, out);
}
CRISP_AVX2 void Inverse256(const Plan& plan, const double* re, const double* im,
                           const Output& out) {
    InverseBody(plan, re, im, out);
}
void InversePlain(const Plan& plan, const double* re, const double* im, const Output& out) {
    InverseBody(plan, re, im, out);
}

void InverseAt(CMorvaneIsa::Level isa, const Plan& plan, const double* re, const double* im,
               const Output& out) {
    if (isa == CMorvaneIsa::Avx512)
        Inverse512(plan, re, im, out);
    else if (isa == CMorvaneIsa::Avx2)
        Inverse256(plan, re, im, out);
    else
        InversePlain(plan, re, im, out);
}

} // namespace

CRealFft::CRealFft(CMorvaneIsa::Level isa)
    : m_Isa(CMorvaneIsa::Usable(isa)), m_pWork(2 * kMaxPoints), m_pStages(kMaxPoints),
      m_pTwRe(kMaxPoints / 2), m_pTwIm(kMaxPoints / 2) {}

bool CRealFft::Prepare(int n) {
    m_nPoints = 0;
    if (n < 4 || n > kMaxPoints || (n & (n - 1)) != 0)
        return false;
    const int h = n / 2;
    for (int k = 0; k < h; ++k) {
        const double a = -2.0 * std::numbers::pi * k / n;
        m_pTwRe[k] = std::cos(a);
        m_pTwIm[k] = std::sin(a);
    }
    // each radix-4 stage of 4m points in turn: W^p, W^2p, W^3p of 4m points, p < m
    double* w = m_pStages.get();
    for (int m = h / 4; m >= 1; m /= 4) {
        for (int p = 0; p < m; ++p)
            for (int j = 1; j <= 3; ++j) {
                const double a = -2.0 * std::numbers::pi * j * p / (4 * m);
                w[(2 * j - 2) * m + p] = std::cos(a);
                w[(2 * j - 1) * m + p] = std::sin(a);
            }
        w += 6 * m;
    }
    m_nPoints = n;
    return true;
}

template <typename T>
void CRealFft::Transform(const T* x, const double* window, double* re, double* im) {
    const int h = m_nPoints / 2;
    const Plan plan{h, m_pWork.get(), m_pStages.get(), m_pTwRe.get(), m_pTwIm.get()};
    if (m_Isa == CMorvaneIsa::Avx512)
        Forward512(plan, x, window, re, im);
    else if (m_Isa == CMorvaneIsa::Avx2)
        Forward256(plan, x, window, re, im);
    else
        ForwardPlain(plan, x, window, re, im);
}

void CRealFft::Forward(const double* x, double* re, double* im) {
    Transform(x, nullptr, re, im);
}

void CRealFft::Forward(const float* x, const double* window, double* re, double* im) {
    Transform(x, window, re, im);
}

void CRealFft::Inverse(const double* re, const double* im, double* x) {
    const Plan plan{m_nPoints / 2, m_pWork.get(), m_pStages.get(), m_pTwRe.get(), m_pTwIm.get()};
    InverseAt(m_Isa, plan, re, im, Output{x, nullptr, 0, nullptr, 0, nullptr});
}

void CRealFft::InverseAdd(const double* re, const double* im, const double* window, double gain,
                          double* to, int split, double* rest) {
    const Plan plan{m_nPoints / 2, m_pWork.get(), m_pStages.get(), m_pTwRe.get(), m_pTwIm.get()};
    InverseAt(m_Isa, plan, re, im, Output{nullptr, window, gain, to, split, rest});
}
