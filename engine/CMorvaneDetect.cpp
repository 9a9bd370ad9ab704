#include "CMorvaneDetect.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "Scale16.h"

CMorvaneDetect::CMorvaneDetect()
    : m_pFluxPos(new double[kCurveLen]()), m_pFluxAbs(new double[kCurveLen]()),
      m_pSpec(new double[2 * kMaxFrame]()), m_pMag1(new double[kMaxFrame]()),
      m_pMag2(new double[kMaxFrame]()) {}

CMorvaneDetect::~CMorvaneDetect() {
    delete[] m_pFluxPos;
    delete[] m_pFluxAbs;
    delete[] m_pSpec;
    delete[] m_pMag1;
    delete[] m_pMag2;
}

int CMorvaneDetect::IniDetect(int F) {
    if (F > kMaxFrame)
        F = kMaxFrame;
    // Hann window of period F on a 0..32767 scale. Pi is deliberately 3.14159: the window's
    // peak is 32766, not 32767.
    for (int i = 0; i < F; ++i)
        m_Window[i] = static_cast<int32_t>((1.0 - std::cos(2 * i * 3.14159 / F)) * 0.5 * 32767);
    m_nFFT = 1;
    while (m_nFFT < F)
        m_nFFT *= 2;
    m_Fft.Prepare(m_nFFT);
    return m_nFFT;
}

int CMorvaneDetect::Detect(float* in, int count, mvArg* arg) {
    const int F = arg->nFrameLen;
    const int H = F / 2;
    const int ch = arg->nChannels;
    const int N = m_nFFT;

    // Without a usable frame (low-sound option off, or a frame the window was not prepared
    // for) the hop would not advance; take the no-onset answer.
    const bool canSearch =
        H >= 1 && F <= N && N <= kMaxFrame && m_Fft.Points() == N && (ch == 1 || ch == 2);
    if (canSearch) {
        std::memset(m_pMag1, 0, sizeof(double) * N);
        std::memset(m_pMag2, 0, sizeof(double) * N);
    }
    m_pFluxPos[0] = 0.0;
    m_pFluxAbs[0] = 0.0;

    if (canSearch && H < count - H) {
        const int offset = (N - F) / 2; // the frame sits in the middle of the padded buffer
        // N / 2 is a power of two, so multiplying by its reciprocal is exactly the division.
        const double perNorm = 1.0 / (N / 2);
        for (int t = 1; t < kCurveLen; ++t) {
            const int s = (t - 1) * H;
            const int pos = t * H; // centre of frame t
            if (!(pos < count - H))
                break;

            // Zero padding around the frame and zero imaginary parts, written once.
            std::fill(m_pSpec, m_pSpec + 2 * offset, 0.0);
            std::fill(m_pSpec + 2 * (offset + F), m_pSpec + 2 * N, 0.0);
            const float* frame = in + static_cast<long>(s) * ch;
            for (int j = 0; j < F; ++j) {
                int64_t v;
                if (ch == 2)
                    v = ((int64_t{Scale16::Round(frame[2 * j])} +
                          Scale16::Round(frame[2 * j + 1])) *
                         m_Window[j]) >>
                        16;
                else
                    v = (int64_t{Scale16::Round(frame[j])} * m_Window[j]) >> 15;
                m_pSpec[2 * (j + offset)] = static_cast<double>(v);
                m_pSpec[2 * (j + offset) + 1] = 0.0;
            }

            m_Fft.Transform(m_pSpec, true);

            double P = 0.0;
            double Q = 0.0;
            for (int b = 0; b <= N / 2; ++b) {
                const double re = m_pSpec[2 * b];
                const double im = m_pSpec[2 * b + 1];
                const double a = std::sqrt(re * re + im * im) * perNorm;
                const double d = a - m_pMag2[b];
                m_pMag2[b] = m_pMag1[b];
                m_pMag1[b] = a;
                P += d;
                Q += std::fabs(d);
            }
            m_pFluxPos[t] = P > 0.0 ? P : 0.0;
            m_pFluxAbs[t] = Q;

            if (t >= 3) {
                int r = checkPoint(m_pFluxPos, t, pos, F, arg->dOnsetLevel1, arg->dOnsetRatio1);
                if (r != 0)
                    return r + 1;
                r = checkPoint(m_pFluxAbs, t, pos, F, arg->dOnsetLevel2, arg->dOnsetRatio2);
                if (r != 0)
                    return r + 1;
            }
        }
    }

    if (arg->bFinal)
        return count;
    return static_cast<int>(count * 0.9) + 1;
}

int CMorvaneDetect::checkPoint(double* c, int t, int pos, int F, double level, double ratio) {
    const double p = c[t - 1];
    const double q = c[t];
    if (!(p > level))
        return 0;
    if (c[t - 2] == 0.0 && q == 0.0)
        return 0;
    if (!(p > c[t - 3] * ratio && p > c[t - 2] * ratio))
        return 0;
    const double h = F / 2;
    // The boundary lies between the centres of the frames around the rise, nearer the one
    // with the larger change.
    if (p > q)
        return pos - F / 2 - static_cast<int>(h * c[t - 2] / (p + c[t - 2]));
    if (!(ratio * p >= q))
        return 0; // still rising steeply: test again one frame later
    return pos - static_cast<int>(h * p / (q + p));
}
