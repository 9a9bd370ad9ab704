#include "CRealFft.h"

#include <cmath>
#include <memory>
#include <numbers>

CRealFft::CRealFft()
    : m_pWork(kMaxPoints), m_pTwRe(kMaxPoints / 2 + 1), m_pTwIm(kMaxPoints / 2 + 1) {}

bool CRealFft::Prepare(int n) {
    m_nPoints = 0;
    if (n < 4 || n > kMaxPoints || (n & (n - 1)) != 0 || !m_Fft.Prepare(n / 2))
        return false;
    for (int k = 0; k <= n / 2; ++k) {
        const double a = -2.0 * std::numbers::pi * k / n;
        m_pTwRe[k] = std::cos(a);
        m_pTwIm[k] = std::sin(a);
    }
    m_nPoints = n;
    return true;
}

// Z = FFT(x[2m] + i x[2m+1]) gives the transforms of the even and the odd samples,
// E = (Z[k] + conj Z[h-k]) / 2 and O = (Z[k] - conj Z[h-k]) / 2i, and X[k] = E + W^k O. The
// samples go straight to their bit-reversed places and nothing is scaled on the way: the plain
// DFT, whose inverse divides by h once at the end.
void CRealFft::Forward(const double* x, double* re, double* im) {
    const int h = m_nPoints / 2;
    const int* rev = m_Fft.Reversal();
    for (int i = 0; i < h; ++i) {
        m_pWork[2 * i] = x[2 * rev[i]];
        m_pWork[2 * i + 1] = x[2 * rev[i] + 1];
    }
    m_Fft.Butterflies(m_pWork.get(), true);
    const double* z = m_pWork.get();
    for (int k = 0; k <= h / 2; ++k) {
        const int j = (h - k) & (h - 1);
        const double ar = z[2 * k], ai = z[2 * k + 1];
        const double br = z[2 * j], bi = -z[2 * j + 1]; // conj Z[h-k]
        const double er = 0.5 * (ar + br), ei = 0.5 * (ai + bi);
        const double or_ = 0.5 * (ai - bi), oi = -0.5 * (ar - br); // (a - b) / 2i
        const double wr = m_pTwRe[k], wi = m_pTwIm[k];
        const double tr = wr * or_ - wi * oi, ti = wr * oi + wi * or_;
        re[k] = er + tr;
        im[k] = ei + ti;
        // bin h - k from the same pair: E and O swap to their conjugates, W^(h-k) = -conj W^k
        re[h - k] = er - tr;
        im[h - k] = -(ei - ti);
    }
    re[h] = z[0] - z[1];
    im[h] = 0.0;
    re[0] = z[0] + z[1];
    im[0] = 0.0;
}

void CRealFft::Inverse(const double* re, const double* im, double* x) {
    const int h = m_nPoints / 2;
    const int* rev = m_Fft.Reversal(); // an involution: natural index k goes to rev[k]
    double* z = m_pWork.get();
    for (int k = 0; k <= h / 2; ++k) {
        const int j = h - k;
        // a real signal's bins 0 and n / 2 are real: their imaginary parts are not read, or
        // they would come out as a tone at the Nyquist frequency
        const double ar = re[k], ai = k == 0 ? 0.0 : im[k];
        const double br = re[j], bi = j == h ? 0.0 : -im[j]; // conj X[h-k]
        const double er = 0.5 * (ar + br), ei = 0.5 * (ai + bi);
        const double dr = 0.5 * (ar - br), di = 0.5 * (ai - bi);
        // O = (X[k] - conj X[h-k]) W^-k / 2
        const double wr = m_pTwRe[k], wi = -m_pTwIm[k];
        const double or_ = dr * wr - di * wi, oi = dr * wi + di * wr;
        // Z[k] = E + i O; Z[h-k] = conj(E) + i conj(O) with O's sign from W^-(h-k) = -conj W^-k
        z[2 * rev[k]] = er - oi;
        z[2 * rev[k] + 1] = ei + or_;
        if (k != 0 && j != k) {
            z[2 * rev[j]] = er + oi;
            z[2 * rev[j] + 1] = -ei + or_;
        }
    }
    m_Fft.Butterflies(z, false);
    const double scale = 1.0 / h;
    for (int m = 0; m < 2 * h; ++m)
        x[m] = z[m] * scale;
}
