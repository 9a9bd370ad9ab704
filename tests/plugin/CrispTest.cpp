// The crisp engine through the host interface: how a host chooses it, and what it must keep that
// the splice engine does not (each attack once), with pitch, length and stereo as exact.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <functional>
#include <tuple>
#include <vector>

#include "MorvaneEngine.h"
#include "MorvaneParameters.h"
#include "fft.h"
#include "support/HostJob.h"
#include "support/Signals.h"

using namespace MorvaneParameters;

namespace {

// +700 cents: where a job reads its input at the pitch rate first
const float kFifthUp = static_cast<float>(std::pow(2.0, 700.0 / 1200));

using HostJob::Fixed;
using Signals::Planar;

VstIntPtr Choose(PluginHost& host, int value, VstInt32 tag = MorvaneEngine::kTag) {
    return host.Dispatch(effVendorSpecific, tag, value);
}

Planar Render(PluginHost& host, const Planar& in, float time, float pitch = 1.0f,
              int rate = 44100) {
    host.Dispatch(effMainsChanged, 0, 0); // suspended between jobs, as hosts do
    host.Set(kTime, time);
    host.Set(kPitch, pitch);
    Planar out = HostJob::Run(host, in, static_cast<float>(rate), Fixed(4096, 8192)).out;
    out.left.erase(out.left.begin(), out.left.begin() + 44100); // the announced delay
    out.right.erase(out.right.begin(), out.right.begin() + 44100);
    return out;
}

// Decaying noise hits every 400 ms over a steady harmonic tone.
Planar HitsOverATone(int frames, std::vector<double>* hits) {
    Planar p;
    uint32_t seed = 3;
    for (int i = 0; i < frames; ++i) {
        double x = 0;
        for (int h = 1; h <= 5; ++h)
            x += 0.05 / h * std::sin(2 * M_PI * 220.0 * h * i / 44100);
        const int since = (i - 22050) % 17640; // from 0.5 s on
        if (i >= 22050) {
            seed = seed * 1664525u + 1013904223u;
            x += 0.5 * std::exp(-since / 1764.0) * ((seed >> 8) / 8388608.0 - 1.0);
            if (since == 0)
                hits->push_back(i);
        }
        p.left.push_back(static_cast<float>(x));
    }
    p.right = p.left;
    return p;
}

// tone(i) under decaying noise hits of level, span samples long and dying away over decay, one
// every `every` samples from 0.5 s on: 6 s, both channels alike.
Planar UnderHits(const std::function<double(int)>& tone, int every, int span, double decay,
                 double level, uint32_t seed) {
    Planar p;
    for (int i = 0; i < 44100 * 6; ++i) {
        double x = tone(i);
        const int since = (i - 22050) % every;
        seed = seed * 1664525u + 1013904223u;
        if (i >= 22050 && since < span)
            x += level * std::exp(-since / decay) * ((seed >> 8) / 8388608.0 - 1.0);
        p.left.push_back(static_cast<float>(x));
    }
    p.right = p.left;
    return p;
}

// Attacks: blocks (5 ms; longer than a period for low sounds) whose energy is 6 dB above the
// quietest of the six before, and within 30 dB of the loudest; the tone's own start is not one.
std::vector<double> Attacks(const std::vector<float>& x, int block = 220) {
    std::vector<double> e;
    for (size_t b = 0; (b + 1) * block <= x.size(); ++b) {
        double s = 0;
        for (int i = 0; i < block; ++i)
            s += double(x[b * block + i]) * x[b * block + i];
        e.push_back(s + 1e-12);
    }
    std::vector<double> at;
    const double loudest = *std::max_element(e.begin(), e.end());
    for (size_t b = 8800 / block; b < e.size(); ++b) {
        const double floor = *std::min_element(e.begin() + b - 6, e.begin() + b);
        if (e[b] > 4 * floor && e[b] > 1e-3 * loudest &&
            (at.empty() || b * block - at.back() > 6.0 * block))
            at.push_back(double(b * block));
    }
    return at;
}

// A sine kick: f falls from `from` to `to` Hz over 0.3 s (an 808) or stays, dying away over
// 0.2 s; one every 1.2 s from 0.5 s on.
Planar Kicks(int frames, double from, double to, std::vector<double>* hits) {
    Planar p;
    p.left.assign(frames, 0.0f);
    for (int at = 22050; at + 44100 < frames; at += 52920) {
        hits->push_back(at);
        double phase = 0;
        for (int i = 0; i < 44100; ++i) {
            const double t = double(i) / 44100;
            phase += 2 * M_PI * from * std::pow(to / from, std::min(t, 0.3) / 0.3) / 44100;
            p.left[at + i] += static_cast<float>(0.8 * std::sin(phase) * std::exp(-t / 0.2));
        }
    }
    p.right = p.left;
    return p;
}

// x's spectrum at f Hz from a Hann window of n samples from from.
std::complex<double> At(const std::vector<float>& x, double f, size_t from, size_t n,
                        int rate = 44100) {
    std::complex<double> sum = 0, turn = std::polar(1.0, -2 * M_PI * f / rate), z = 1;
    for (size_t i = 0; i < n; ++i, z *= turn)
        sum += double(x[from + i]) * (0.5 - 0.5 * std::cos(2 * M_PI * i / n)) * z;
    return sum;
}

// The same at f Hz, from a 2 s window on its middle (dB).
double Level(const std::vector<float>& x, double f, int rate = 44100) {
    const size_t n = 88200;
    return 20 * std::log10(std::abs(At(x, f, x.size() / 2 - n / 2, n, rate)) + 1e-30);
}

// The same window's spectrum in dB (its own scale), in 2^16 steps up to half the rate.
std::vector<double> Spectrum(const std::vector<float>& x) {
    constexpr int kPoints = 1 << 17;
    const size_t n = 88200, from = x.size() / 2 - n / 2;
    std::vector<double> d(2 * kPoints, 0.0);
    for (size_t i = 0; i < n; ++i)
        d[2 * i] = double(x[from + i]) * (0.5 - 0.5 * std::cos(2 * M_PI * i / n));
    fft(d.data(), kPoints, true);
    std::vector<double> db(kPoints / 2);
    for (int b = 0; b < kPoints / 2; ++b)
        db[b] = 20 * std::log10(std::hypot(d[2 * b], d[2 * b + 1]) + 1e-30);
    return db;
}

TEST(CrispEngine, ChosenByTheHostAndTakenAtTheNextJob) {
    PluginHost host(MORVANE_PLUGIN);
    char can[] = "morvaneEngine";
    EXPECT_EQ(1, host.Dispatch(effCanDo, 0, 0, can));
    EXPECT_EQ(MorvaneEngine::kSplice, Choose(host, MorvaneEngine::kAsk));
    EXPECT_EQ(0, Choose(host, 7));
    EXPECT_EQ(0, Choose(host, MorvaneEngine::kCrisp, 1234));
    EXPECT_EQ(MorvaneEngine::kSplice, Choose(host, MorvaneEngine::kAsk));

    const Planar in = Signals::Split(Signals::Music(44100 * 3, 44100));
    const Planar untouched = Render(host, in, 1.5f);
    ASSERT_EQ(MorvaneEngine::kCrisp, Choose(host, MorvaneEngine::kCrisp));
    const Planar crisp = Render(host, in, 1.5f);
    EXPECT_NE(untouched.left, crisp.left);
    EXPECT_EQ(std::llround(in.size() * 1.5), static_cast<long long>(crisp.size()));

    // a choice made during a job waits for the next one
    ASSERT_EQ(MorvaneEngine::kSplice, Choose(host, MorvaneEngine::kSplice));
    host.Set(kTime, 1.5f);
    const auto during = HostJob::Run(host, in, 44100, Fixed(4096, 8192), {.before = [&](int pos) {
                                         if (pos > 44100)
                                             Choose(host, MorvaneEngine::kCrisp);
                                     }});
    EXPECT_EQ(untouched.left,
              std::vector<float>(during.out.left.begin() + 44100, during.out.left.end()));
    EXPECT_EQ(crisp.left, Render(host, in, 1.5f).left);

    // LowSound switched during a crisp job waits for the next: this one comes out whole
    const auto switched =
        HostJob::Run(host, in, 44100, Fixed(4096, 8192),
                     {.before = [&](int pos) { host.Set(kLowSound, pos > 44100 ? -1.0f : 1.0f); }});
    EXPECT_EQ(crisp.left,
              std::vector<float>(switched.out.left.begin() + 44100, switched.out.left.end()));
}

// Each hit comes out once, where the time rate puts it, and as loud as it went in: a vocoder that
// smears attacks over its window (as this one does with LowSound off) loses 2 to 4 dB there.
TEST(CrispEngine, EachAttackOnceAndInItsPlace) {
    std::vector<double> hits;
    const Planar in = HitsOverATone(44100 * 5, &hits);
    // the largest energy of eight 2.5 ms blocks from 5 ms before at
    const auto peak = [](const std::vector<float>& x, double at) {
        double most = 0;
        for (size_t b = 0; b < 8; ++b) {
            double s = 0;
            for (size_t i = 0; i < 110; ++i) {
                const size_t k = static_cast<size_t>(at) - 220 + b * 110 + i;
                s += k < x.size() ? double(x[k]) * x[k] : 0.0;
            }
            most = std::max(most, s);
        }
        return most;
    };
    PluginHost host(MORVANE_PLUGIN);
    Choose(host, MorvaneEngine::kCrisp);
    // the largest magnitude in [from, to)
    const auto top = [](const std::vector<float>& x, double from, double to) {
        float most = 0;
        for (auto i = static_cast<size_t>(from); i < static_cast<size_t>(to); ++i)
            most = std::max(most, std::fabs(x[i]));
        return most;
    };
    // long low kicks, plain and 808, sound once each: their decays keep their shape, and nothing
    // of them comes early (a pre-echo within 30 dB of the hit, from a millisecond before it)
    for (double to : {50.0, 45.0}) {
        std::vector<double> kicks;
        const Planar kick = Kicks(44100 * 6, to == 50 ? 50 : 150, to, &kicks);
        // (time 1: a fifth down)
        for (float time : {1.5f, 2.0f, 1.0f}) {
            ASSERT_EQ(kicks.size(), Attacks(kick.left, 882).size());
            const Planar out =
                Render(host, kick, time, time == 1.0f ? std::pow(2.0f, -700 / 1200.0f) : 1.0f);
            const std::vector<double> found = Attacks(out.left, 882);
            ASSERT_EQ(kicks.size(), found.size()) << to << " Hz kicks, time " << time;
            for (size_t k = 0; k < kicks.size(); ++k) {
                const double at = kicks[k] * time;
                // (20 ms blocks: the block before the hit may hold its first samples)
                EXPECT_NEAR(at - 441, found[k], 0.035 * 44100) << to << " Hz, time " << time;
                EXPECT_LT(top(out.left, at - 0.03 * 44100, at - 44),
                          0.0316f * top(out.left, at, at + 0.08 * 44100))
                    << to << " Hz, time " << time << ", hit " << k;
            }
        }
    }
    for (float time : {2.0f, 0.5f}) {
        const Planar out = Render(host, in, time);
        const std::vector<double> found = Attacks(out.left);
        EXPECT_EQ(hits.size(), found.size()) << "time " << time;
        for (double h : hits) {
            EXPECT_EQ(
                1, std::count_if(found.begin(), found.end(),
                                 [&](double f) { return std::fabs(f - h * time) < 0.01 * 44100; }))
                << "hit at " << h / 44100 << " s, time " << time;
            EXPECT_NEAR(0.0, 10 * std::log10(peak(out.left, h * time) / peak(in.left, h)), 1.25)
                << "hit at " << h / 44100 << " s, time " << time;
        }
    }
}

TEST(CrispEngine, PitchLengthAndStereoExact) {
    PluginHost host(MORVANE_PLUGIN);
    Choose(host, MorvaneEngine::kCrisp);
    const int N = 44100 * 4;
    Planar tone;
    for (int i = 0; i < N; ++i) {
        const double w = 2 * M_PI * 196.0 * i / 44100;
        tone.left.push_back(static_cast<float>(0.5 * std::sin(w) + 0.12 * std::sin(2 * w) +
                                               0.06 * std::sin(3 * w)));
    }
    tone.right = tone.left;
    for (auto [time, cents] : {std::pair{1.25, 700.0}, {0.75, -500.0}, {2.0, 0.0}, {1.0, 1200.0}}) {
        const float pitch = static_cast<float>(std::pow(2.0, cents / 1200));
        const Planar out = Render(host, tone, static_cast<float>(time), pitch);
        ASSERT_EQ(std::llround(N * double(float(time))), static_cast<long long>(out.size()));
        const int n = static_cast<int>(out.size());
        const double f = Signals::ZeroCrossingFrequency(out.left.data(), 1, n / 8, n - n / 8);
        EXPECT_NEAR(cents, 1200 * std::log2(f * 44100 / 196.0), 0.1) << time;
        EXPECT_EQ(out.left, out.right) << "identical channels stay identical";
    }
    // the pitch moved halfway through a job, up from down and down from up: each half at its own
    for (auto [from, to] : {std::pair{700.0, -500.0},
                            {-500.0, 700.0},
                            {300.0, 1200.0},
                            {1200.0, -1200.0},
                            {800.0, -1200.0}}) {
        host.Dispatch(effMainsChanged, 0, 0);
        host.Set(kTime, 1.0f);
        host.Set(kPitch, static_cast<float>(std::pow(2.0, from / 1200)));
        const auto job =
            HostJob::Run(host, tone, 44100, Fixed(4096, 8192), {.before = [&](int pos) {
                             if (pos >= N / 2)
                                 host.Set(kPitch, static_cast<float>(std::pow(2.0, to / 1200)));
                         }});
        const std::vector<float>& y = job.out.left;
        ASSERT_EQ(N + 44100, static_cast<long long>(y.size())) << from << " to " << to;
        // (the engine stands a while behind the input; the second half reaches the end)
        const int n = N / 16;
        for (auto [cents, at, until] : {std::tuple{from, 1, 5}, {to, 10, 15}}) {
            const double f =
                Signals::ZeroCrossingFrequency(y.data(), 1, 44100 + at * n, 44100 + until * n);
            EXPECT_NEAR(cents, 1200 * std::log2(f * 44100 / 196.0), 0.1) << from << " to " << to;
        }
        EXPECT_EQ(job.out.left, job.out.right);
    }
    // Low notes stretched (or a fifth up) keep their partials where they were (or a fifth up), and
    // nothing between them: sawtooth E1 and A1 up to 3.3 kHz, where a short window's bins no longer
    // tell their partials apart, two tones a fifth apart (55 and 82.5 Hz, beating every 36 ms), and
    // A1 at a lower rate.
    struct Note {
        double f0;
        int first, last; // harmonics of f0 present
        double floor;    // most between them, dB under the strongest
        int rate = 44100;
    };
    for (const Note& note : {Note{41.2, 1, 80, -30}, Note{55, 1, 60, -40}, Note{27.5, 2, 3, -40},
                             Note{55, 1, 60, -30, 22050}}) {
        Planar in;
        const int n = 4 * note.rate;
        for (int i = 0; i < n; ++i) {
            double x = 0;
            for (int h = note.first; h <= note.last; ++h)
                x += (note.first == 1 ? 0.3 / h : 0.25) *
                     std::sin(2 * M_PI * h * note.f0 * i / note.rate);
            in.left.push_back(
                static_cast<float>(x * std::min(1.0, std::min(i, n - i) * 50.0 / note.rate)));
        }
        in.right = in.left;
        for (auto [time, pitch] : {std::pair{1.5f, 1.0f}, {2.0f, 1.0f}, {1.0f, kFifthUp}}) {
            const std::vector<float> y = Render(host, in, time, pitch, note.rate).left;
            const double f0 = note.f0 * pitch;
            const double top = Level(y, f0 * note.first, note.rate);
            for (int h = note.first; h <= std::min(note.last, 7); ++h) {
                // the peak from the levels a quarter hertz either side
                const double f = h * f0, a = Level(y, f - 0.25, note.rate),
                             b = Level(y, f, note.rate), c = Level(y, f + 0.25, note.rate);
                EXPECT_GT(b, top - 20) << note.f0 << " Hz x " << h << ", time " << time
                                       << ", pitch " << pitch << " at " << note.rate;
                EXPECT_LT(std::fabs(0.125 * (a - c) / (a - 2 * b + c)), 0.5)
                    << note.f0 << " Hz x " << h << ", time " << time << ", pitch " << pitch
                    << " at " << note.rate;
            }
            const std::vector<double> db = Spectrum(y);
            const double hz = note.rate / (2.0 * db.size());
            double peak = -1e9, most = -1e9, where = 0;
            for (size_t b = 0; b < db.size(); ++b) {
                const double f = b * hz, k = std::round(f / f0);
                if (std::fabs(f - f0 * note.first) < 1)
                    peak = std::max(peak, db[b]);
                if (f > 20 && f < 4000 &&
                    (k < note.first || k > note.last || std::fabs(f - k * f0) > 3) && db[b] > most)
                    most = db[b], where = f;
            }
            EXPECT_LT(most - peak, note.floor) << note.f0 << " Hz at " << where << ", time " << time
                                               << ", pitch " << pitch << " at " << note.rate;
        }
    }
    // music told to be a mono job: the engine reads no right input, and gives the same to the
    // bit as for its channels alike; the job after that is stereo again
    Planar music = Signals::Split(Signals::Music(44100 * 3, 44100));
    music.right = Signals::Noise(static_cast<int>(music.left.size()), 1, 0.5);
    const Planar stereo = Render(host, music, 1.3f, 0.8f);
    EXPECT_EQ(1, Choose(host, 1, MorvaneEngine::kMonoTag));
    const Planar mono = Render(host, music, 1.3f, 0.8f);
    EXPECT_NE(stereo.left, mono.left);
    EXPECT_EQ(stereo.left, Render(host, music, 1.3f, 0.8f).left);
    music.right = music.left;
    const Planar out = Render(host, music, 1.3f, 0.8f);
    EXPECT_EQ(out.left, out.right);
    EXPECT_EQ(out.left, mono.left);
    EXPECT_EQ(out.left, mono.right);
}

// After an attack the short frames take up the low band's phases again; partials around the
// split, heard in both bands, must come back in phase there or they cancel. Noise hits every
// 400 ms over equal partials from 400 Hz to 2.3 kHz: each partial keeps the level of the others.
TEST(CrispEngine, PartialsAcrossTheSplitKeepTheirLevelThroughAttacks) {
    PluginHost host(MORVANE_PLUGIN);
    Choose(host, MorvaneEngine::kCrisp);
    const double partials[] = {400, 800, 1700, 1850, 2000, 2150, 2300};
    const Planar in = UnderHits(
        [&](int i) {
            double x = 0;
            for (double f : partials)
                x += 0.03 * std::sin(2 * M_PI * f * i / 44100);
            return x;
        },
        17640, 4410, 441, 0.5, 5);
    for (float time : {1.5f, 2.0f}) {
        const Planar out = Render(host, in, time);
        std::vector<double> db;
        for (double f : partials)
            db.push_back(Level(out.left, f));
        const auto [low, high] = std::minmax_element(db.begin(), db.end());
        EXPECT_LT(*high - *low, 1.0) << time;
    }
}

// A low note's partials lie closer together than the short window tells apart, and come out of
// it blended; when the low band takes them back after an attack they must keep their phases to
// one another, or the note's waveform changes at every hit. A 55 Hz sawtooth with noise hits
// every 600 ms: between hits, its harmonics' phases against the fundamental's stay the input's.
TEST(CrispEngine, ALowNoteKeepsItsWaveformThroughAttacks) {
    PluginHost host(MORVANE_PLUGIN);
    Choose(host, MorvaneEngine::kCrisp);
    constexpr double kF0 = 55;
    constexpr int kHarmonics = 20, kSpan = 8820; // (200 ms)
    const Planar in = UnderHits(
        [&](int i) {
            double x = 0;
            for (int h = 1; h * kF0 < 3000; ++h)
                x += 0.15 * std::sin(2 * M_PI * h * kF0 * i / 44100) / std::pow(h, 1.6);
            return x;
        },
        26460, 1323, 220, 0.4, 9);
    // each harmonic's phase less h times the fundamental's: the waveform's shape, wherever it is
    const auto shape = [&](const std::vector<float>& x, size_t from) {
        std::vector<double> d;
        const double first = std::arg(At(x, kF0, from, kSpan));
        for (int h = 2; h <= kHarmonics; ++h)
            d.push_back(std::arg(At(x, h * kF0, from, kSpan)) - h * first);
        return d;
    };
    const std::vector<double> was = shape(in.left, 4410);
    for (float time : {1.5f, 2.0f}) {
        const Planar out = Render(host, in, time);
        for (int k = 0; k < 8; ++k) { // halfway between hits k and k + 1
            const auto now =
                shape(out.left, static_cast<size_t>((0.8 + 0.6 * k) * time * 44100) - kSpan / 2);
            double off = 0;
            for (int h = 0; h < kHarmonics - 1; ++h)
                off += std::abs(std::arg(std::polar(1.0, now[h] - was[h])));
            EXPECT_LT(off / (kHarmonics - 1), 10 * M_PI / 180) << time << ", after hit " << k;
        }
    }
}

// A rebuilt attack can come out a hair above its input, and a vocoder's turned phases can raise a
// waveform's peaks: peaks up to a dB over the input's are trimmed to it (kicks, rebuilt 1:1),
// while material whose whole waveform rose more (a bright bass line, after each change of note)
// loses no more than that dB of level.
TEST(CrispEngine, PeaksTrimmedToTheInputsAndLevelKept) {
    PluginHost host(MORVANE_PLUGIN);
    Choose(host, MorvaneEngine::kCrisp);
    const auto peak = [](const Planar& p) {
        float most = 0;
        for (const auto* x : {&p.left, &p.right})
            for (float v : *x)
                most = std::max(most, std::fabs(v));
        return most;
    };
    const auto energy = [](const Planar& p) {
        double sum = 0;
        for (const auto* x : {&p.left, &p.right})
            for (float v : *x)
                sum += double(v) * v;
        return sum / p.left.size();
    };
    const std::pair<float, float> settings[] = {{1.5f, 1.0f}, {2.0f, 1.0f}, {1.0f, kFifthUp}};
    std::vector<double> hits;
    for (const Planar& kicks : {Kicks(44100 * 4, 50, 50, &hits), Kicks(44100 * 4, 150, 45, &hits)})
        for (auto [time, pitch] : settings)
            EXPECT_LE(peak(Render(host, kicks, time, pitch)), peak(kicks)) << time << ", " << pitch;
    Planar saw;
    for (int i = 0; i < 44100 * 3; ++i) {
        const double f = (i / 11025) % 2 ? 82.4 : 110.0;
        double x = 0;
        for (int h = 1; h <= 40; ++h)
            x += 0.25 / h * std::sin(2 * M_PI * h * f * i / 44100);
        saw.left.push_back(static_cast<float>(x));
    }
    saw.right = saw.left;
    Planar music = Signals::Split(Signals::Music(44100 * 3, 44100));
    for (auto [in, lost] : {std::pair{&saw, 1.2}, {&music, 0.35}})
        for (auto [time, pitch] : settings)
            EXPECT_NEAR(0, 10 * std::log10(energy(Render(host, *in, time, pitch)) / energy(*in)),
                        lost)
                << time << ", " << pitch;
}

} // namespace
