#include "CMorvaneDetect.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "Scale16Avx2.h"
#include "Zeroed.h"

namespace {

// The windowed value of frame j, in integers as defined: the 16-bit-scale samples (both channels
// summed) times the window, shifted down by 16 (stereo) or 15 (mono).
void WindowPlain(const float* frame, const int32_t* window, int ch, int from, int F, double* out) {
    for (int j = from; j < F; ++j) {
        int64_t v;
        if (ch == 2)
            v = ((int64_t{Scale16::Round(frame[2 * j])} + Scale16::Round(frame[2 * j + 1])) *
                 window[j]) >>
                16;
        else
            v = (int64_t{Scale16::Round(frame[j])} * window[j]) >> 15;
        out[j] = static_cast<double>(v);
    }
}

// Scale16::Round of four samples, as doubles.
__attribute__((target("avx2"), always_inline)) inline __m256d Round4(__m128 x) {
    return _mm256_round_pd(Scale16::Halfway4(x), _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
}

// Four frames at a time in doubles, where every step is exact: the sums are below 2^26, the
// products below 2^41, and the shift is a multiplication by a power of two and a floor.
__attribute__((target("avx2"))) void WindowAvx2(const float* frame, const int32_t* window, int ch,
                                                int F, double* out) {
    const __m256d down = _mm256_set1_pd(ch == 2 ? 0x1p-16 : 0x1p-15);
    int j = 0;
    for (; j + 4 <= F; j += 4) {
        __m256d v;
        if (ch == 2) {
            const __m256d a = Round4(_mm_loadu_ps(frame + 2 * j));     // L0 R0 L1 R1
            const __m256d b = Round4(_mm_loadu_ps(frame + 2 * j + 4)); // L2 R2 L3 R3
            v = _mm256_permute4x64_pd(_mm256_hadd_pd(a, b), 0xD8);
        } else {
            v = Round4(_mm_loadu_ps(frame + j));
        }
        const __m256d w =
            _mm256_cvtepi32_pd(_mm_loadu_si128(reinterpret_cast<const __m128i*>(window + j)));
        v = _mm256_floor_pd(_mm256_mul_pd(_mm256_mul_pd(v, w), down));
        _mm256_storeu_pd(out + j, v);
    }
    WindowPlain(frame, window, ch, j, F, out);
}

// Four bins at a time: each value divided by the transform's scale (a true division, as the
// transform does), then sqrt(re * re + im * im) * norm, unfused.
__attribute__((target("avx2"))) int MagnitudesAvx2(const double* spectrum, int bins, double scale,
                                                   double norm, double* mag1, double* mag2,
                                                   double* diff) {
    const __m256d s = _mm256_set1_pd(scale);
    const __m256d k = _mm256_set1_pd(norm);
    int b = 0;
    for (; b + 4 <= bins; b += 4) {
        const __m256d x = _mm256_div_pd(_mm256_loadu_pd(spectrum + 2 * b), s);
        const __m256d y = _mm256_div_pd(_mm256_loadu_pd(spectrum + 2 * b + 4), s);
        const __m256d power =
            _mm256_permute4x64_pd(_mm256_hadd_pd(_mm256_mul_pd(x, x), _mm256_mul_pd(y, y)), 0xD8);
        const __m256d a = _mm256_mul_pd(_mm256_sqrt_pd(power), k);
        _mm256_storeu_pd(diff + b, _mm256_sub_pd(a, _mm256_loadu_pd(mag2 + b)));
        _mm256_storeu_pd(mag2 + b, _mm256_loadu_pd(mag1 + b));
        _mm256_storeu_pd(mag1 + b, a);
    }
    return b;
}

// The frame placed in bit-reversed order and taken through the transform's first two stages in
// one pass. Positions i..i+3 (i a multiple of 4) hold natural indices r, r + N/2, r + N/4 and
// r + 3N/4. The input is real and the twiddles of both stages' first butterflies are exactly
// (1, 0), so every value these stages make is the one the complex butterflies make, or a zero
// whose sign may differ; such a sign never reaches a magnitude (the squares are +0).
void FirstTwoStages(const double* f, const int* rev, int N, const double* w, double* spectrum) {
    const double wr = w[0];
    const double wi = w[1];
    for (int i = 0; i < N; i += 4) {
        const int r = rev[i];
        const double x0 = f[r];
        const double x1 = f[r + N / 2];
        const double x2 = f[r + N / 4];
        const double x3 = f[r + 3 * N / 4];
        const double s0 = x0 + x1;
        const double d0 = x0 - x1;
        const double s1 = x2 + x3;
        const double d1 = x2 - x3;
        const double tr = wr * d1;
        const double ti = wi * d1;
        double* o = spectrum + 2 * i;
        o[0] = s0 + s1;
        o[1] = 0.0;
        o[2] = d0 + tr;
        o[3] = ti;
        o[4] = s0 - s1;
        o[5] = 0.0;
        o[6] = d0 - tr;
        o[7] = -ti;
    }
}

} // namespace

CMorvaneDetect::CMorvaneDetect(CMorvaneIsa::Level isa)
    : m_Isa(CMorvaneIsa::Usable(isa)), m_Fft(isa), m_pFluxPos(Zeroed<double>(kCurveLen)),
      m_pFluxAbs(Zeroed<double>(kCurveLen)), m_pFrame(Zeroed<double>(kMaxFrame)),
      m_pSpectrum(Zeroed<double>(2 * kMaxFrame)), m_pDiff(Zeroed<double>(kMaxFrame / 2 + 1)),
      m_pMag1(Zeroed<double>(kMaxFrame)), m_pMag2(Zeroed<double>(kMaxFrame)) {}

CMorvaneDetect::~CMorvaneDetect() = default;

void CMorvaneDetect::WindowFrame(const float* frame, int ch, int F, double* out) const {
    if (m_Isa != CMorvaneIsa::Baseline)
        WindowAvx2(frame, m_Window, ch, F, out);
    else
        WindowPlain(frame, m_Window, ch, 0, F, out);
}

void CMorvaneDetect::Magnitudes(int bins, double scale, double norm) {
    int b = 0;
    if (m_Isa != CMorvaneIsa::Baseline)
        b = MagnitudesAvx2(m_pSpectrum, bins, scale, norm, m_pMag1, m_pMag2, m_pDiff);
    for (; b < bins; ++b) {
        const double re = m_pSpectrum[2 * b] / scale;
        const double im = m_pSpectrum[2 * b + 1] / scale;
        const double a = std::sqrt(re * re + im * im) * norm;
        m_pDiff[b] = a - m_pMag2[b];
        m_pMag2[b] = m_pMag1[b];
        m_pMag1[b] = a;
    }
}

int CMorvaneDetect::IniDetect(int F) {
    if (F > kMaxFrame)
        F = kMaxFrame;
    // The rate and LowSound each prepare the frame again; the same frame keeps its tables.
    if (F == m_nWindowLen && m_Fft.Points() == m_nFFT)
        return m_nFFT;
    // Hann window of period F on a 0..32767 scale. Pi is deliberately 3.14159: the window's
    // peak is 32766, not 32767.
    for (int i = 0; i < F; ++i)
        m_Window[i] = static_cast<int32_t>((1.0 - std::cos(2 * i * 3.14159 / F)) * 0.5 * 32767);
    m_nFFT = 1;
    while (m_nFFT < F)
        m_nFFT *= 2;
    m_Fft.Prepare(m_nFFT);
    m_nWindowLen = F;
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
        std::fill(m_pFrame.get(), m_pFrame + N, 0.0);
        const int* rev = m_Fft.Reversal();
        // stage 2's second twiddle; the first of stages 1 and 2 must be exactly (1, 0)
        const double* tw = m_Fft.Twiddles(true);
        const bool fused = N >= 4 && tw[0] == 1.0 && tw[1] == 0.0 && tw[2] == 1.0 && tw[3] == 0.0;
        // N / 2 is a power of two, so multiplying by its reciprocal is exactly the division.
        const double perNorm = 1.0 / (N / 2);
        for (int t = 1; t < kCurveLen; ++t) {
            const int s = (t - 1) * H;
            const int pos = t * H; // centre of frame t
            if (!(pos < count - H))
                break;

            // The windowed frame goes into the transform's bit-reversed order directly, with
            // zero imaginary parts; only the bins up to N / 2 are used, so only they are scaled.
            WindowFrame(in + static_cast<long>(s) * ch, ch, F, m_pFrame + offset);
            if (fused) {
                FirstTwoStages(m_pFrame, rev, N, tw + 4, m_pSpectrum);
                m_Fft.Butterflies(m_pSpectrum, true, 4);
            } else {
                for (int i = 0; i < N; ++i) {
                    m_pSpectrum[2 * i] = m_pFrame[rev[i]];
                    m_pSpectrum[2 * i + 1] = 0.0;
                }
                m_Fft.Butterflies(m_pSpectrum, true);
            }
            Magnitudes(N / 2 + 1, m_Fft.Scale(), perNorm);

            double P = 0.0;
            double Q = 0.0;
            for (int b = 0; b <= N / 2; ++b) {
                const double d = m_pDiff[b];
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
