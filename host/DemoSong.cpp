#include "DemoSong.h"

#include <cmath>
#include <cstdint>

namespace {

constexpr double kBeat = 0.6; // seconds: 100 beats per minute

double Midi(int note) {
    return 440.0 * std::pow(2.0, (note - 69) / 12.0);
}

// A fixed noise sequence: the same numbers everywhere.
struct Noise {
    uint32_t state = 0x2545F491u;
    double Next() {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state / 2147483648.0 - 1.0;
    }
};

} // namespace

std::vector<float> DemoSong::Render(int sampleRate) {
    const int frames = static_cast<int>(kSeconds * sampleRate);
    std::vector<float> out(static_cast<size_t>(frames) * 2, 0.0f);
    const double sr = sampleRate;

    // chords, one per bar of four beats: C, A minor, F, G
    const int chords[4][3] = {{60, 64, 67}, {57, 60, 64}, {53, 57, 60}, {55, 59, 62}};
    const int bass[4] = {36, 33, 29, 31};
    // melody, one note per beat (0 = rest)
    const int melody[20] = {72, 74, 76, 79, 76, 74, 72, 0,  69, 72,
                            74, 76, 77, 76, 74, 72, 71, 72, 74, 0};

    Noise noise;
    double lowpass = 0.0, highpassPrev = 0.0, highpass = 0.0;
    for (int i = 0; i < frames; ++i) {
        const double t = i / sr;
        const int beat = static_cast<int>(t / kBeat);
        const double inBeat = t - beat * kBeat;
        const int bar = (beat / 4) % 4;

        // kick on beats 1 and 3, snare on 2 and 4, hi-hat on every half beat
        double drums = 0.0;
        if (beat % 2 == 0) {
            const double f = 50.0 + 90.0 * std::exp(-inBeat * 30.0);
            drums += 0.9 * std::exp(-inBeat * 9.0) * std::sin(2 * M_PI * f * inBeat);
        }
        const double n = noise.Next();
        lowpass += 0.3 * (n - lowpass);
        if (beat % 2 == 1)
            drums += 0.5 * std::exp(-inBeat * 18.0) *
                     (0.6 * lowpass + 0.4 * std::sin(2 * M_PI * 190 * inBeat));
        const double half = std::fmod(t, kBeat / 2);
        highpass = 0.6 * (highpass + n - highpassPrev);
        highpassPrev = n;
        drums += 0.18 * std::exp(-half * 60.0) * highpass;

        // sustained chord: soft saw-like tones with a slow swell
        double pad = 0.0;
        const double barTime = t - (beat / 4) * 4 * kBeat;
        const double swell = std::min(1.0, barTime / 0.4) * (0.7 + 0.3 * std::cos(barTime));
        for (int k = 0; k < 3; ++k) {
            const double f = Midi(chords[bar][k]);
            for (int h = 1; h <= 4; ++h)
                pad += std::sin(2 * M_PI * f * h * t + k) / (h * 1.5);
        }
        pad *= 0.06 * swell;

        const double bassTone = 0.28 * std::exp(-inBeat * 2.5) *
                                std::sin(2 * M_PI * Midi(bass[bar]) * t) *
                                (1.0 + 0.3 * std::sin(2 * M_PI * Midi(bass[bar]) * 2 * t));

        // melody: a plucked tone with vibrato after the attack
        double lead = 0.0;
        const int note = melody[beat % 20];
        if (note) {
            const double f = Midi(note) * (1.0 + 0.004 * std::sin(2 * M_PI * 5.5 * t) *
                                                     std::min(1.0, inBeat * 4));
            const double env = std::min(1.0, inBeat * 200) * std::exp(-inBeat * 3.0);
            lead = 0.22 * env * (std::sin(2 * M_PI * f * t) + 0.35 * std::sin(4 * M_PI * f * t));
        }

        // a little stereo: hi-hat and lead to the right, pad to the left
        const double left = 0.8 * drums + 1.1 * pad + bassTone + 0.8 * lead;
        const double right = 0.8 * drums + 0.9 * pad + bassTone + 1.2 * lead;
        out[2 * i] = static_cast<float>(0.7 * left);
        out[2 * i + 1] = static_cast<float>(0.7 * right);
    }
    return out;
}
