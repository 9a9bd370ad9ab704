// The crisp engine's parts, each through its own operations: the transform, the onset finder,
// the time map, the vocoder and the guard on its output.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <vector>

#include "CCrispKernels.h"
#include "CCrispOnsets.h"
#include "CCrispPeakGuard.h"
#include "CCrispPolyphase.h"
#include "CCrispTimeMap.h"
#include "CCrispVocoder.h"
#include "CMorvaneIsa.h"
#include "CRealFft.h"
#include "support/Signals.h"

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// The low band's filters give their sums, in single precision, for each channel asked for (and
// leave the other alone) whatever the count and the phase of the first output (runs that end
// within a vector, a single output, every phase), and leave out only taps that are zero.
TEST(CrispKernels, QuarterRateFiltersGiveTheirSums) {
    const std::vector<float> x[2] = {Signals::Noise(1000, 1, 0.5, 7),
                                     Signals::Noise(1000, 1, 0.5, 8)};
    const float* in[2] = {x[0].data(), x[1].data()};
    float taps[13] = {};
    for (int i = 0; i <= 12; ++i)
        taps[i] = i % 4 == 0 && i > 0 ? 0.0f : 0.3f / (1 + i);
    for (int count : {1, 5, 33, 64, 97, 200}) {
        std::vector<float> out[2] = {std::vector<float>(count + 1, -1.0f),
                                     std::vector<float>(count + 1, -1.0f)};
        float* to[2] = {out[0].data(), out[1].data()};
        const int channels = count == 5 ? 1 : 2;
        CCrispKernels::Decimate(taps, 12, in, count, to, channels);
        EXPECT_EQ(out[1][0] == -1.0f, channels == 1) << count;
        for (int ch = 0; ch < channels; ++ch) {
            for (int o = 0; o < count; ++o) {
                const int c = 4 * o + 12;
                double sum = taps[0] * double(x[ch][c]);
                for (int i = 1; i <= 12; ++i)
                    sum += taps[i] * (double(x[ch][c - i]) + x[ch][c + i]);
                EXPECT_NEAR(out[ch][o], sum, 1e-6) << count << " " << o;
            }
            EXPECT_EQ(out[ch][count], -1.0f) << count;
        }
    }
    float phase[4][7] = {};
    for (int j = 0; j < 4; ++j)
        for (int k = 0; k < 7; ++k)
            phase[j][k] = j == 0 && k != 3 ? 0.0f : 0.2f * (j + 1) / (k + 2);
    const float* from[2] = {in[0] + 6, in[1] + 6};
    for (int j0 = 0; j0 < 4; ++j0)
        for (int n : {1, 3, 130, 701}) {
            std::vector<float> out[2] = {std::vector<float>(n + 1, 0.25f),
                                         std::vector<float>(n + 1, 0.25f)};
            float* to[2] = {out[0].data(), out[1].data()};
            const int channels = n == 3 ? 1 : 2;
            CCrispKernels::Upsample(&phase[0][0], 7, from, j0, n, to, channels);
            EXPECT_EQ(out[1][0] == 0.25f, channels == 1) << j0 << " " << n;
            for (int ch = 0; ch < channels; ++ch) {
                for (int i = 0; i < n; ++i) {
                    const int m = (j0 + i) / 4, j = (j0 + i) % 4;
                    double sum = 0.25;
                    for (int k = 0; k < 7; ++k)
                        sum += phase[j][k] * double(from[ch][m - k]);
                    EXPECT_NEAR(out[ch][i], sum, 1e-6) << j0 << " " << n << " " << i;
                }
                EXPECT_EQ(out[ch][n], 0.25f) << j0 << " " << n;
            }
        }
}

// Every instruction set's path gives the same bits, in either precision; single precision is
// within its rounding of the plain DFT.
TEST(CrispFft, ForwardIsThePlainDftAndInverseUndoesIt) {
    using P = CRealFft::Precision;
    EXPECT_FALSE(CRealFft().Prepare(80));
    EXPECT_FALSE(CRealFft().Prepare(9 * 64));
    EXPECT_FALSE(CRealFft().Prepare(2 * CRealFft::kMaxPoints));
    for (P precision : {P::Double, P::Single}) {
        const bool single = precision == P::Single;
        const double spectrumError = single ? 2e-6 : 1e-10, sampleError = single ? 2e-6 : 1e-12;
        CRealFft fft(CMorvaneIsa::Detected(), precision);
        CRealFft baseline(CMorvaneIsa::Baseline, precision), avx2(CMorvaneIsa::Avx2, precision);
        // transforms run one after another may share work arrays; one of the other precision
        // cannot lend its own
        baseline.ShareWork(fft);
        const CRealFft otherKind(CMorvaneIsa::Detected(), single ? P::Double : P::Single);
        avx2.ShareWork(otherKind);
        for (int n : {4, 6, 24, 64, 96, 256, 1536, 2048, 3072}) {
            ASSERT_TRUE(fft.Prepare(n));
            const auto noise = Signals::Noise(n, 1, 1.0, n);
            const std::vector<double> x(noise.begin(), noise.end());
            std::vector<double> re(n / 2 + 1), im(n / 2 + 1), back(n);
            fft.Forward(x.data(), re.data(), im.data());
            for (int k = 0; k <= n / 2; ++k) {
                std::complex<double> sum = 0;
                for (int j = 0; j < n; ++j)
                    sum += x[j] * std::polar(1.0, -2 * M_PI * double(j) * k / n);
                EXPECT_NEAR(sum.real(), re[k], spectrumError * n) << single << " " << n << " " << k;
                EXPECT_NEAR(sum.imag(), im[k], spectrumError * n) << single << " " << n << " " << k;
            }
            const auto spectrum = re;
            fft.Inverse(re.data(), im.data(), back.data());
            EXPECT_EQ(spectrum, re); // the spectrum is kept
            for (int j = 0; j < n; ++j)
                ASSERT_NEAR(x[j], back[j], sampleError) << single << " " << n << " " << j;
            // the same samples windowed and added into the two runs of a ring
            const int split = 2 * (n / 4 + n / 8); // (even)
            const std::vector<float> window(noise.begin(), noise.end());
            std::vector<float> ring(n, 1.0f);
            fft.InverseAdd(re.data(), im.data(), window.data(), 0.5, ring.data() + (n - split),
                           split, ring.data());
            for (int j = 0; j < n; ++j)
                ASSERT_NEAR(1.0 + back[j] * x[j] * 0.5, ring[(j + n - split) % n], 2e-6)
                    << n << " " << j;
            if (single) {
                // the engine's path, float samples under a window into a float spectrum and
                // back: the same values
                const std::vector<float> flat(n, 1.0f);
                std::vector<float> fre(n / 2 + 1), fim(n / 2 + 1);
                fft.Forward(noise.data(), flat.data(), fre.data(), fim.data());
                EXPECT_EQ(std::vector<float>(re.begin(), re.end()), fre) << n;
                EXPECT_EQ(std::vector<float>(im.begin(), im.end()), fim) << n;
                std::vector<float> ring2(n, 1.0f);
                fft.InverseAdd(fre.data(), fim.data(), window.data(), 0.5,
                               ring2.data() + (n - split), split, ring2.data());
                EXPECT_EQ(ring, ring2) << n;
            }
            for (CRealFft* other : {&baseline, &avx2}) {
                ASSERT_TRUE(other->Prepare(n));
                std::vector<double> re2(n / 2 + 1), im2(n / 2 + 1), back2(n);
                other->Forward(x.data(), re2.data(), im2.data());
                other->Inverse(re.data(), im.data(), back2.data());
                EXPECT_EQ(re, re2) << single << " " << n;
                EXPECT_EQ(im, im2) << single << " " << n;
                EXPECT_EQ(back, back2) << single << " " << n;
            }
        }
    }
}

// Every onset the finder reports, confirmed and refined, for a mono signal fed as the engine
// feeds it: frames centred on NextCentre(), zeros outside the signal, until the decisions pass
// its end.
std::vector<double> FindOnsets(const std::vector<float>& x, int rate = 44100) {
    CCrispOnsets onsets;
    onsets.Configure(1024, rate);
    const int frame = onsets.FrameLength(), half = frame / 2, pad = 4 * frame;
    const int64_t n = static_cast<int64_t>(x.size());
    // the last frames read, and the long ones around an onset, reach past either end
    std::vector<float> padded(x.size() + 2 * pad, 0.0f);
    std::copy(x.begin(), x.end(), padded.begin() + pad);
    auto at = [&](int64_t t) { return padded.data() + pad + t; };
    std::vector<double> found;
    while (onsets.NextCentre() - half <= n + CCrispOnsets::kLead * onsets.Hop()) {
        const int64_t onset = onsets.Analyse(at(onsets.NextCentre() - half));
        if (onset >= 0 &&
            onsets.Holds(at(onset + onsets.LongBefore()), at(onset + onsets.LongAfter())))
            found.push_back(double(onset - half) +
                            CCrispOnsets::Refine(at(onset - half), frame, frame / 16));
    }
    return found;
}

// 3 ms of decaying noise from each place.
void AddClicks(std::vector<float>& x, const std::vector<int>& at) {
    const auto noise = Signals::Noise(132, 1, 0.5, 9);
    for (int t : at)
        for (int i = 0; i < 132; ++i)
            x[t + i] += noise[i] * static_cast<float>(std::exp(-i / 40.0));
}

// Eight harmonics of 220 Hz, faded in and out over `fade` frames.
// A sawtooth's first partials (to below half the rate).
std::vector<float> Tone(int frames, double amp, int fade, double f0 = 220, int partials = 8,
                        int rate = 44100) {
    std::vector<float> x(frames);
    for (int i = 0; i < frames; ++i) {
        const double phase = 2 * M_PI * f0 * i / rate;
        const double gain = amp * std::min({1.0, double(i) / fade, double(frames - i) / fade});
        for (int h = 1; h <= partials && h * f0 < rate / 2; ++h)
            x[i] += static_cast<float>(gain / h * std::sin(h * phase));
    }
    return x;
}

TEST(CrispOnsets, ClicksAreFoundWithinAMillisecondAndAHalf) {
    const std::vector<int> clicks = {5000, 20011, 31337, 52950, 70000};
    std::vector<float> silence(88200, 0.0f);
    std::vector<float> quiet = Tone(88200, 0.03, 2205);
    for (auto* x : {&silence, &quiet}) {
        AddClicks(*x, clicks);
        const auto found = FindOnsets(*x);
        ASSERT_EQ(clicks.size(), found.size());
        for (size_t i = 0; i < clicks.size(); ++i)
            EXPECT_NEAR(clicks[i], found[i], 0.0015 * 44100) << i;
    }
}

// A low kick's slope swells with its period: its onset is still its first sample, not a period on.
// Where a sound is cut off short, it stops; where it fades, it does not.
TEST(CrispOnsets, LowKicksFromTheirFirstSampleAndCutsAsStops) {
    const std::vector<int> kicks = {5000, 50011, 95000};
    std::vector<float> x(140000, 0.0f);
    for (int at : kicks) {
        double phase = 0;
        for (int i = 0; i < 44100; ++i) {
            phase += 2 * M_PI * 150 * std::pow(0.3, std::min(i / 13230.0, 1.0)) / 44100;
            x[at + i] = static_cast<float>(0.8 * std::sin(phase) * std::exp(-i / 8820.0));
        }
    }
    const auto found = FindOnsets(x);
    ASSERT_EQ(kicks.size(), found.size());
    for (size_t i = 0; i < kicks.size(); ++i)
        EXPECT_NEAR(kicks[i], found[i], 0.0005 * 44100) << i;

    const std::vector<float> tone = Tone(4410, 0.5, 4410 / 2); // faded in and out over 50 ms
    std::vector<float> cut = Tone(4410, 0.5, 441);
    std::fill(cut.begin() + 2500, cut.end(), 0.0f);
    int stops = 0;
    for (int at = 0; at + 1024 <= 4410; at += 256) {
        EXPECT_FALSE(CCrispOnsets::Stops(tone.data() + at, 1024)) << at;
        stops += CCrispOnsets::Stops(cut.data() + at, 1024);
    }
    EXPECT_GT(stops, 0);
}

TEST(CrispOnsets, ASteadyToneHasNone) {
    // (faded over 100 ms: a swell is no attack, and a cut would be one)
    EXPECT_TRUE(FindOnsets(Tone(88200, 0.5, 4410)).empty());
    // A low note's partials, closer than the frame tells apart, beat in every bin as the hop
    // slides along the period: at 32 kHz A1's swell and ebb five times a second, at 44.1 kHz B1's
    // every three hops. (A bright one's fade-in may count as its start.)
    for (auto [f0, rate] : {std::pair{55.0, 32000}, {61.7, 44100}}) {
        const auto found = FindOnsets(Tone(2 * rate, 0.5, rate / 10, f0, 300, rate), rate);
        EXPECT_EQ(
            0, std::count_if(found.begin(), found.end(), [&](double t) { return t > rate / 10; }))
            << f0 << " Hz at " << rate;
    }
}

constexpr int kWindow = 2048;
// Far apart, and two pairs close enough that their ramps overlap; the first pair's stretches are
// narrowed at every ratio, the second's at the strongest compression only.
const std::vector<double> kOnsets = {20000, 60000, 62000, 90000, 93900, 130000};
constexpr double kEnd = 150000; // input centres walked

CCrispTimeMap Map(double ratio) {
    CCrispTimeMap map;
    map.Configure(kWindow);
    map.Restart(ratio);
    return map;
}

struct Step {
    double o, c;
};

// Output centres every `step` from 0 through the input's end, each with the centre it reads;
// onsets become known only as the horizon passes them, when `incremental`.
std::vector<Step> Walk(double ratio, double step, bool incremental = false) {
    CCrispTimeMap map = Map(ratio);
    size_t added = 0;
    double horizon = 0;
    auto reveal = [&](double h) {
        for (; added < kOnsets.size() && kOnsets[added] < h; ++added)
            map.AddOnset(kOnsets[added]);
        map.SetHorizon(horizon = h);
    };
    if (!incremental)
        reveal(kInf);
    std::vector<Step> walk;
    for (double o = 0; o <= kEnd * ratio; o += step) {
        double c = 0;
        while (!map.Centre(o, &c)) {
            if (!incremental || horizon > 2 * kEnd)
                return walk;
            reveal(horizon + 256);
        }
        EXPECT_TRUE(!incremental || c + map.Lookahead() <= horizon) << o;
        walk.push_back({o, c});
    }
    return walk;
}

// dc / do between neighbouring steps whose input centres lie within (from, to).
std::vector<double> Paces(const std::vector<Step>& walk, double from = -kInf, double to = kInf) {
    std::vector<double> paces;
    for (size_t i = 1; i < walk.size(); ++i)
        if (walk[i - 1].c > from && walk[i].c < to)
            paces.push_back((walk[i].c - walk[i - 1].c) / (walk[i].o - walk[i - 1].o));
    return paces;
}

TEST(CrispTimeMap, PaceStaysWithinAFactorOfTwoOfTheRatio) {
    for (double r : {0.5, 1.5, 2.0}) {
        const auto walk = Walk(r, 8);
        ASSERT_GT(walk.back().c, kEnd - 10) << r;
        const auto paces = Paces(walk);
        const auto [slowest, fastest] = std::minmax_element(paces.begin(), paces.end());
        // dc / do: output pace r / 2 .. 2 r reads input at 1 / (2 r) .. 2 / r
        EXPECT_GE(*slowest, 1 / (2 * r) - 1e-9) << r;
        EXPECT_LE(*fastest, 2 / r + 1e-9) << r;
    }
}

// Far from onsets the input is read at 1 / ratio; between two close onsets one steady pace
// joins their 1:1 stretches, with no plain stretch or change of pace in between.
TEST(CrispTimeMap, CloseOnsetsShareTheirRamps) {
    for (double r : {0.5, 1.5, 2.0}) {
        const auto walk = Walk(r, 2);
        const auto far = Paces(walk, 38000, 42000);
        ASSERT_GT(far.size(), 100u);
        for (double p : far)
            ASSERT_NEAR(1 / r, p, 1e-9) << r;
        for (int i : {1, 3}) {
            const double edge = 0.36 * kWindow; // past the widest 1:1 stretch
            const auto between = Paces(walk, kOnsets[i] + edge, kOnsets[i + 1] - edge);
            ASSERT_GT(between.size(), 10u) << r << " " << i;
            EXPECT_GT(std::fabs(between[0] - 1 / r), 0.1) << r << " " << i;
            for (double p : between)
                ASSERT_NEAR(between[0], p, 1e-9) << r << " " << i;
        }
    }
}

// The onset goes out at its own time x ratio, and the frames around it are read 1:1.
TEST(CrispTimeMap, EachOnsetGoesOutAtItsTimeTimesTheRatio) {
    const double span = kWindow / 8.0;
    for (double r : {0.5, 1.5, 2.0}) {
        CCrispTimeMap map = Map(r);
        for (double t : kOnsets)
            map.AddOnset(t);
        map.SetHorizon(kInf);
        for (double t : kOnsets) {
            for (double d : {-span, 0.0, span}) {
                double c = 0;
                ASSERT_TRUE(map.Centre(t * r + d, &c));
                EXPECT_NEAR(t + d, c, 1e-6) << r << " " << t << " " << d;
                EXPECT_EQ(t, map.OnsetAt(c));
            }
        }
        EXPECT_LT(map.OnsetAt(40000), 0);
    }
}

// A centre waits for the onsets within Lookahead() past it, and then reads as if every onset
// had been known from the start.
TEST(CrispTimeMap, CentresWaitForTheOnsetsTheyDependOn) {
    double c = 0;
    EXPECT_FALSE(Map(2.0).Centre(0, &c));
    for (double r : {0.5, 1.5, 2.0}) {
        const auto known = Walk(r, 64), revealed = Walk(r, 64, true);
        ASSERT_EQ(known.size(), revealed.size()) << r;
        for (size_t i = 0; i < known.size(); ++i)
            ASSERT_NEAR(known[i].c, revealed[i].c, 1e-9) << r << " " << known[i].o;
    }
}

// The vocoder driven as the engine drives it, without attacks: each frame read `analysis`
// samples after the last, zeros outside the input. The first frame starts one synthesis hop into
// its window, so the output from its start counts that lead and is dropped.
Signals::Planar Vocode(Signals::Planar in, int window, int analysis) {
    CCrispVocoder vocoder;
    vocoder.Configure(window);
    const int hop = vocoder.Hop(), n = static_cast<int>(in.size()), lead = window - hop;
    for (auto* x : {&in.left, &in.right}) {
        x->insert(x->begin(), lead, 0.0f);
        x->resize(n + lead + window + analysis, 0.0f);
    }
    Signals::Planar out;
    std::vector<float> left(hop), right(hop);
    for (int at = 0; at < n + lead; at += analysis) {
        vocoder.Frame(&in.left[at], &in.right[at], analysis, false);
        vocoder.Take(left.data(), right.data());
        out.left.insert(out.left.end(), left.begin(), left.end());
        out.right.insert(out.right.end(), right.begin(), right.end());
    }
    out.left.erase(out.left.begin(), out.left.begin() + lead);
    out.right.erase(out.right.begin(), out.right.begin() + lead);
    return out;
}

Signals::Planar MultiTone(int frames) {
    Signals::Planar p;
    const auto a = Signals::Sine(frames, 1, 220.0 / 44100, 0.3);
    const auto b = Signals::Sine(frames, 1, 1234.5 / 44100, 0.2, 1.0);
    const auto c = Signals::Sine(frames, 1, 3520.0 / 44100, 0.1, 2.0);
    for (int i = 0; i < frames; ++i) {
        p.left.push_back(a[i] + b[i]);
        p.right.push_back(a[i] + c[i] - 0.5f * b[i]);
    }
    return p;
}

TEST(CrispVocoder, AtRateOneTheInputComesBack) {
    const auto in = MultiTone(44100);
    const auto out = Vocode(in, 2048, 512);
    ASSERT_GE(out.size(), in.size());
    double worst = 0;
    for (size_t i = 0; i < in.size(); ++i)
        worst = std::max({worst, std::fabs(double(out.left[i]) - in.left[i]),
                          std::fabs(double(out.right[i]) - in.right[i])});
    EXPECT_LT(worst, 1e-5); // float rounding, the turns' own included (-100 dB)
}

// Split at a crossover between a vocoder and one four times as long, both at rate one: the two
// outputs, laid on one timeline, add up to the input (steady tones, one in the fade and one just
// past it, away from the input's abrupt ends).
TEST(CrispVocoder, TheTwoSidesOfASplitAddUpToTheWhole) {
    Signals::Planar in = MultiTone(44100);
    const auto past = Signals::Sine(44100, 1, 1520.0 / 44100, 0.2);
    for (int i = 0; i < 44100; ++i)
        in.left[i] += past[i];
    std::vector<double> sum[2] = {std::vector<double>(44100), std::vector<double>(44100)};
    for (int window : {2048, 8192}) {
        CCrispVocoder vocoder;
        vocoder.Configure(window);
        vocoder.Split(1000.0 / 44100, 1500.0 / 44100, window == 8192);
        const int hop = vocoder.Hop(), lead = window - hop;
        Signals::Planar x = in;
        for (auto* ch : {&x.left, &x.right}) {
            ch->insert(ch->begin(), lead, 0.0f);
            ch->resize(44100 + lead + 2 * window, 0.0f);
        }
        std::vector<float> left(hop), right(hop);
        for (int at = 0; at < 44100 + lead; at += hop) {
            vocoder.Frame(&x.left[at], &x.right[at], hop, false);
            vocoder.Take(left.data(), right.data());
            for (int i = 0; i < hop; ++i)
                if (at + i >= lead && at + i - lead < 44100) {
                    sum[0][at + i - lead] += left[i];
                    sum[1][at + i - lead] += right[i];
                }
        }
    }
    double worst = 0;
    for (int i = 8192; i < 44100 - 8192; ++i)
        worst = std::max(
            {worst, std::fabs(sum[0][i] - in.left[i]), std::fabs(sum[1][i] - in.right[i])});
    EXPECT_LT(worst, 3e-4); // -70 dB
}

TEST(CrispVocoder, IdenticalChannelsStayIdentical) {
    auto in = MultiTone(44100);
    in.right = in.left;
    for (int analysis : {512, 300, 900}) {
        const auto out = Vocode(in, 2048, analysis);
        EXPECT_GT(*std::max_element(out.left.begin(), out.left.end()), 0.3f) << analysis;
        EXPECT_EQ(out.left, out.right) << analysis;
    }
}

// The resampler fed as the engine feeds it, in blocks of uneven sizes after its history, then
// the silence that brings out what it holds back.
Signals::Planar Resample(double rate, const Signals::Planar& in) {
    CCrispPolyphase resampler;
    resampler.Design(rate);
    constexpr int kHistory = CCrispPolyphase::kMaxHistory;
    const int n = static_cast<int>(in.size()), tail = resampler.Delay();
    std::vector<float> l(kHistory + 600), r(kHistory + 600), out[2] = {{}, {}};
    std::vector<float> got[2] = {std::vector<float>(2000), std::vector<float>(2000)};
    float* dest[2] = {got[0].data(), got[1].data()};
    float loudest = 0;
    for (int at = 0, block = 0; at < n + tail; at += block) {
        block = std::min(at % 3 ? 600 : 257, n + tail - at);
        for (int i = 0; i < block; ++i) {
            l[kHistory + i] = at + i < n ? in.left[at + i] : 0.0f;
            r[kHistory + i] = at + i < n ? in.right[at + i] : 0.0f;
        }
        const int k = resampler.Read(dest, &l[kHistory], &r[kHistory], block, &loudest);
        for (int c = 0; c < 2; ++c) {
            out[c].insert(out[c].end(), got[c].begin(), got[c].begin() + k);
            auto& x = c ? r : l;
            std::copy(x.begin() + block, x.begin() + block + kHistory, x.begin());
        }
    }
    float most = 0; // (the largest magnitude it said it wrote)
    for (const auto& x : out)
        for (float v : x)
            most = std::max(most, std::fabs(v));
    EXPECT_EQ(most, loudest);
    return {out[0], out[1]};
}

// A sine's level and phase fitted at the frequency it should have after reading at `rate`, and
// what is left over (images, aliases, the table's error), relative to its level.
struct Fit {
    double level, residual;
};

Fit FitSine(const std::vector<float>& y, double cycles, int from, int to) {
    double ss = 0, sc = 0, cc = 0, ys = 0, yc = 0;
    for (int k = from; k < to; ++k) {
        const double s = std::sin(2 * M_PI * cycles * k), c = std::cos(2 * M_PI * cycles * k);
        ss += s * s, sc += s * c, cc += c * c, ys += y[k] * s, yc += y[k] * c;
    }
    const double det = ss * cc - sc * sc, a = (ys * cc - yc * sc) / det,
                 b = (yc * ss - ys * sc) / det;
    double rest = 0;
    for (int k = from; k < to; ++k) {
        const double e =
            y[k] - a * std::sin(2 * M_PI * cycles * k) - b * std::cos(2 * M_PI * cycles * k);
        rest += e * e;
    }
    const double level = std::hypot(a, b);
    return {level, std::sqrt(2 * rest / (to - from)) / level};
}

// Sines up to 0.45 of the lower rate keep their level within 0.1 dB, with everything else 80 dB
// under them; from 0.55 on they are gone by as much. The output is as long as the rate says and
// identical channels stay identical.
TEST(CrispPolyphase, PassbandFlatAndImagesAndAliases80dBDown) {
    const int n = 30000;
    for (double cents : {700.0, -500.0, 1200.0, -1200.0, 3.0}) {
        const double rate = std::pow(2.0, cents / 1200), low = std::min(1.0, 1 / rate);
        for (double share : {0.02, 0.3, 0.45, 0.6}) {
            const double cycles = share * low; // per input frame
            if (cycles >= 0.5)
                continue; // (above the input's band)
            const auto sine = Signals::Sine(n, 1, cycles, 0.5);
            const auto out = Resample(rate, {sine, sine});
            EXPECT_GE(out.left.size(), n / rate) << cents;
            EXPECT_LE(out.left.size(), n / rate + 4) << cents;
            EXPECT_EQ(out.left, out.right) << cents;
            const int from = 200, to = static_cast<int>(n / rate) - 200;
            if (share < 0.5) {
                const Fit fit = FitSine(out.left, cycles * rate, from, to);
                EXPECT_NEAR(20 * std::log10(fit.level / 0.5), 0, 0.1) << cents << " " << share;
                EXPECT_LT(fit.residual, 1e-4) << cents << " " << share;
            } else {
                double power = 0;
                for (int k = from; k < to; ++k)
                    power += double(out.left[k]) * out.left[k];
                EXPECT_LT(std::sqrt(2 * power / (to - from)) / 0.5, 1e-4) << cents;
            }
        }
    }
}

// The output guard: a frame up to a dB above the input's peak comes out at it, the gain reaching
// it as a ramp over the look-ahead, held half a second and then recovering; one further above is
// lowered by that dB only. Elsewhere the frames come out as they went in, a look-ahead later,
// whatever the blocks they come in, as they do for a tone over the peak all through, its
// swells asking for deeper cuts and shallower ones in turn; identical channels stay identical.
TEST(CrispPeakGuard, TrimsPeaksToTheInputsAndElseDelaysOnly) {
    constexpr int kRate = 44100, kFrames = 4 * kRate;
    const std::vector<float> in = Signals::Sine(kFrames, 1, 0.01, 0.5); // the input's peak: 0.5
    std::vector<float> x = Signals::Sine(kFrames, 1, 0.003, 0.4);
    const int spike = kRate / 2, next = 3 * kRate;
    x[spike] = -0.55f; // 0.8 dB over
    x[next] = 0.8f;    // 4 dB over
    // each block as the engine gives it, a call with buffers of its own: the pending frames put
    // back in front, the new ones after them, the rest kept for the next
    const auto run = [&](const std::vector<float>& x, int block) {
        CCrispPeakGuard guard;
        guard.Configure(kRate);
        guard.Watch(in.data(), in.data(), kFrames);
        std::vector<float> x2 = x, y2;
        x2.resize(kFrames + guard.Delay(), 0.0f);
        bool over = false;
        for (int at = 0; at < static_cast<int>(x2.size()); at += block) {
            const int n = std::min<int>(block, static_cast<int>(x2.size()) - at);
            std::vector<float> l(guard.Delay() + n, -7.0f), r = l;
            guard.Resume(l.data(), r.data());
            const int pending = guard.Pending();
            float loudest = 0;
            for (int i = 0; i < n; ++i) {
                l[pending + i] = r[pending + i] = x2[at + i];
                loudest = std::max(loudest, std::fabs(x2[at + i]));
            }
            const int k = guard.Run(l.data(), r.data(), n, loudest, &over);
            EXPECT_TRUE(std::equal(l.begin(), l.begin() + k, r.begin())) << block;
            y2.insert(y2.end(), l.begin(), l.begin() + k);
            guard.Stash(l.data() + k, r.data() + k);
        }
        EXPECT_EQ(kFrames, static_cast<int>(y2.size())) << block;
        EXPECT_FALSE(over);
        y2.resize(kFrames);
        return std::pair{y2, guard.Delay()};
    };
    const auto [y, delay] = run(x, kFrames + 500);
    std::vector<float> swells = Signals::Sine(kFrames, 1, 0.002, 0.56);
    for (int i = 0; i < kFrames; ++i)
        swells[i] *= static_cast<float>(1 + 0.05 * std::sin(i * 2e-5));
    const auto whole = run(swells, kFrames + 500).first;
    for (int block : {1, 37, 256, 4096}) {
        EXPECT_EQ(y, run(x, block).first) << block;
        EXPECT_EQ(whole, run(swells, block).first) << block;
    }
    const auto gain = [&](int i) { return y[i] / x[i]; };
    const float cut = 1 - 0.5f / 0.55f;
    float steepest = 0;
    for (int i = 0; i < next - delay; ++i) {
        if (i < spike - delay || i > 2 * kRate + kRate / 2)
            ASSERT_EQ(x[i], y[i]) << i; // untouched, and in its place
        else if (x[i - 1] != 0 && x[i] != 0)
            steepest = std::max(steepest, std::fabs(gain(i) - gain(i - 1)));
    }
    EXPECT_NEAR(-0.5f, y[spike], 1e-6f); // met exactly
    EXPECT_GT(delay, 40);
    EXPECT_LT(steepest, 1.25f * cut / delay);                 // a ramp, not a step
    EXPECT_NEAR(1 - cut, gain(spike + kRate * 2 / 5), 1e-6f); // held ...
    const float later = gain(spike + kRate * 6 / 10);
    EXPECT_GT(later, 1 - 0.5f * cut); // ... then recovering, neither at once nor never
    EXPECT_LT(later, 1 - 0.25f * cut);
    EXPECT_NEAR(0.8f * std::pow(10.0f, -1 / 20.0f), y[next], 1e-6f); // a dB and no more
}

} // namespace
