#include "CRemez.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "Zeroed.h"

CRemez::CRemez()
    : m_pX(Zeroed<double>(kCapacity)), m_pXw(Zeroed<double>(kCapacity)),
      m_pWeight(Zeroed<double>(kCapacity)), m_pY(Zeroed<double>(kCapacity)),
      m_pA(Zeroed<double>(kCapacity)) {}

CRemez::~CRemez() = default;

void CRemez::InitialPoints(int n, double fp, double fs) {
    double* X = m_pX;
    const int r = n + 1;
    m_nPoints = r;
    int p = static_cast<int>((((fp - (1 - fs)) * -2.25) + (n + 2) * fp) / ((1 - fs) + fp));
    if (p < 2)
        p = 2;
    else if (p > n)
        p = n;
    m_nPass = p;
    const int m = n + 2 - p;
    m_nStop = m;
    m_nInterleave = static_cast<int>(std::sqrt(n + 1));

    X[p] = -2 * std::cos(M_PI * fp);
    X[p + 1] = -2 * std::cos(M_PI * fs);

    // The passband starts at 0 Hz; its last inner point stands a quarter spacing from the edge.
    if (p < 4) {
        for (int j = 1; j <= p - 1; ++j)
            X[j] = -2 * std::cos(M_PI * fp * (j - 1) / (p - 1));
    } else {
        for (int j = 1; j <= p - 2; ++j)
            X[j] = -2 * std::cos(M_PI * fp * (j - 1) / (p - 2.25));
        X[p - 1] = -2 * std::cos(M_PI * fp * (1 - 0.25 / (p - 2.25)));
    }

    // The stopband's last point stands one spacing below Nyquist.
    if (m < 4) {
        if (m == 3)
            X[p + 2] = -2 * std::cos(M_PI * (fs + (1 - fs) / 2));
    } else {
        const double s = (1 - fs) / (m - 2.25);
        for (int i = 1; i <= m - 3; ++i)
            X[r - i + 1] = -2 * std::cos(M_PI * (1 - i * s));
        X[p + 2] = -2 * std::cos(M_PI * (fs + 0.25 * s));
    }

    X[0] = m_pXw[0] = -2;
    X[n + 2] = m_pXw[n + 2] = 2;
    // The first pass takes its step from the working copy: start it from the initial points.
    std::copy(X + 1, X + r + 1, m_pXw + 1);
    m_dDelta = 0;
    m_dPrevDelta = 0;
}

void CRemez::prp(double k) {
    const int r = m_nPoints;
    const int I = m_nInterleave;
    const double* X = m_pX;
    for (int i = 1; i <= r; ++i) {
        // Interleaved order keeps the running quotient moderate for large r.
        double w = 1.0;
        for (int t = 1; t <= I; ++t)
            for (int j = t; j <= r; j += I)
                if (j != i)
                    w /= X[i] - X[j];
        m_pWeight[i] = w;
    }

    const int p = m_nPass;
    double num = 0.0, den = 0.0, s = -1.0;
    for (int i = 1; i <= r; ++i, s = -s) {
        if (i <= p) {
            num += m_pWeight[i];
            den += s * k * m_pWeight[i];
        } else {
            den += s * m_pWeight[i];
        }
    }
    const double delta = -num / den;
    m_dDelta = delta;

    // The errors alternate across both bands; the passband's are k times the stopband's.
    s = -1.0;
    for (int i = 1; i <= r; ++i, s = -s)
        m_pY[i] = i <= p ? 1 + s * delta * k : s * delta;
    for (int i = 1; i <= r; ++i)
        m_pWeight[i] *= m_pY[i];
    m_dSign = delta < 0 ? -1.0 : 1.0;
}

double CRemez::lag(double x) {
    const int r = m_nPoints;
    const double* X = m_pX;
    int lo = 1, hi = r;
    do {
        const int mid = (lo + hi) / 2;
        if (x - X[mid] > 0)
            lo = mid;
        else
            hi = mid;
    } while (lo + 1 < hi);
    if (std::fabs(x - X[lo]) < 1e-20)
        return m_pY[lo];
    if (std::fabs(X[hi] - x) < 1e-20)
        return m_pY[hi];

    const int I = m_nInterleave;
    if (I < 1)
        return 0.0;
    double S = 0.0, Q = 1.0;
    for (int t = 1; t <= I; ++t) {
        for (int j = t; j <= r; j += I) {
            const double d = x - X[j];
            S += m_pWeight[j] / d;
            Q *= d;
        }
    }
    return S * Q;
}

void CRemez::mov() {
    const double h = m_dStep;
    double x = m_dPoint;
    // Each step halves the interval, so a search that can end has ended long before this
    // bound. It stops one whose step collapsed to zero when two points met: the interval then
    // shrinks to one ulp and never below 2h.
    int halvings = 0;
    do {
        const double d = (lag(x + h) - lag(x - h)) * m_dSign;
        if (d < 0)
            m_dHigh = x;
        else
            m_dLow = x;
        x = (m_dLow + m_dHigh) * 0.5;
    } while (m_dHigh - m_dLow > 2 * h && ++halvings < kMaxHalvings);
    m_dPoint = x;
}

void CRemez::ShiftPoints(int direction) {
    const int r = m_nPoints;
    if (direction > 0) {
        for (int j = r; j >= 1; --j)
            m_pX[j] = m_pX[j - 1]; // X[1] becomes -2, the old X[r] is dropped
    } else {
        for (int j = 1; j <= r; ++j)
            m_pX[j] = m_pX[j + 1]; // X[r] becomes +2
    }
    m_nPass += direction;
}

CRemez::End CRemez::Exchange(double k) {
    const int r = m_nPoints;
    double* X = m_pX;
    double* Xw = m_pXw;

    prp(k);
    double h = std::min(1e-6, (Xw[2] - Xw[1]) / 10000);
    m_dStep = h;

    // An extremum may have to move across a band end (0 Hz or Nyquist): shift the set by one.
    m_dLeftSlope = (m_pY[1] - 1) * (lag(h - 2) - lag(-2));
    m_dRightSlope = (lag(2) - lag(2 - h)) * m_pY[r];
    m_dDcErr = std::fabs(lag(-2) - 1) / k;
    m_dNyqErr = std::fabs(lag(2));
    const double absDelta = std::fabs(m_dDelta);
    if (m_dLeftSlope > 0 && X[r] > 2 - 100 * h && X[1] >= 100 * h - 2 && m_dRightSlope > 0 &&
        m_dDcErr > absDelta && m_dDcErr > m_dNyqErr) {
        ShiftPoints(+1);
        prp(k);
    } else if (m_dLeftSlope < 0 && X[r] <= 2 - 100 * h && X[1] < 100 * h - 2 && m_dRightSlope < 0 &&
               absDelta < m_dNyqErr && m_dDcErr < m_dNyqErr) {
        ShiftPoints(-1);
        prp(k);
    }

    std::copy(X + 1, X + r + 1, Xw + 1);
    const int p = m_nPass;
    int near = 0, far = 0;
    for (int j = 1; j <= r; ++j) {
        if (j == p || j == p + 1)
            continue; // the band edges stay where they are
        m_dSign = -m_dSign;
        const double spacing = j < p ? Xw[j + 1] - Xw[j] : Xw[j] - Xw[j - 1];
        h = std::min(1e-6, spacing / 10000);
        m_dStep = h;

        m_dLow = Xw[j] - 100 * h;
        m_dHigh = Xw[j] + 100 * h;
        const double E1 = m_pY[j] - lag(m_dLow);
        const double E2 = lag(m_dHigh) - m_pY[j];
        if (E1 * E2 <= 0) {
            // The extremum lies within +-100h: refine it unless it is already at the point.
            if ((m_pY[j] - lag(Xw[j] - h)) * (lag(Xw[j] + h) - m_pY[j]) > 0) {
                ++near;
                m_dPoint = Xw[j];
                mov();
                Xw[j] = m_dPoint;
            }
            if (j == 1 && Xw[1] < -2)
                Xw[1] = -2;
            if (j == r && Xw[r] > 2)
                Xw[r] = 2;
        } else {
            ++far;
            if (j == 1 && Xw[1] < h - 2 && E1 * m_dSign < 0) {
                Xw[1] = -2;
            } else if (j == r && Xw[r] > 2 - h && E2 * m_dSign > 0) {
                Xw[r] = 2;
            } else {
                m_dLow = Xw[j - 1];
                m_dHigh = Xw[j + 1];
                m_dPoint = Xw[j];
                mov();
                Xw[j] = m_dPoint;
            }
        }
    }
    std::copy(Xw + 1, Xw + r + 1, X + 1);

    const double change = std::fabs((m_dPrevDelta - m_dDelta) / m_dDelta);
    m_dPrevDelta = m_dDelta;
    if (near + far < 3)
        return End::FewMoves;
    return change <= 1e-9 ? End::DeltaSteady : End::NotRun;
}

void CRemez::Remez(int16_t* out, int n, double fp, double fs, double k) {
    m_eEnd = End::NotRun;
    m_nPasses = 0;
    if (n < 3 || n > kMaxHalf || !(fp > 0 && fp < fs && fs < 1) || !(k > 0))
        return;
    m_nHalf = n;
    InitialPoints(n, fp, fs);

    while (m_eEnd == End::NotRun) {
        if (m_nPasses == m_nMaxPasses) {
            m_eEnd = End::PassLimit;
            break;
        }
        ++m_nPasses;
        m_eEnd = Exchange(k);
    }

    // Sample the response and transform it back; the gain of 8 makes each of the 8 phases of an
    // interpolation table sum to unity.
    prp(k);
    const int L = 2 * n - 1;
    for (int i = 0; i < n; ++i)
        m_pA[i] = lag(-2 * std::cos(2 * M_PI * i / L));
    ResponseToTaps(m_pA, n, out);
}

void CRemez::ResponseToTaps(const double* A, int n, int16_t* out) {
    // The inverse transform of the symmetric response; the gain of 8 makes each of the 8 phases
    // of an interpolation table sum to unity.
    const int L = 2 * n - 1;
    for (int i = 0; i < n; ++i) {
        double v = A[0];
        for (int j = 1; j < n; ++j)
            v += 2 * A[j] * std::cos(j * 2 * M_PI * i / L);
        // Half added, then truncated toward zero (negative taps round unevenly, as designed),
        // then the low 16 bits.
        const double scaled = std::clamp(v * (8.0 / L) * 32768 + 0.5, -2147483648.0, 2147483647.0);
        const int16_t c = static_cast<int16_t>(static_cast<int32_t>(scaled));
        out[n - 1 + i] = c;
        out[n - 1 - i] = c;
    }
}

double CRemez::Tap(int i) const {
    const int n = m_nHalf;
    const int L = 2 * n - 1;
    const int d = std::abs(i - (n - 1));
    double v = m_pA[0];
    for (int j = 1; j < n; ++j)
        v += 2 * m_pA[j] * std::cos(j * 2 * M_PI * d / L);
    return v / L;
}
