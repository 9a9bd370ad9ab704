#pragma once

#include <vector>

// Twelve seconds of stereo music made from nothing but arithmetic, the same to the bit on every
// machine: a drum kit (kick, snare, hi-hat), sustained chords, a bass line and a melody, at
// 100 beats per minute. Interleaved float frames at the given rate.
class DemoSong {
public:
    static constexpr double kSeconds = 12.0;
    static std::vector<float> Render(int sampleRate);
};
