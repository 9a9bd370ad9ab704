#pragma once

#include <string>

// The command line's values with their units, each read in the one way its text allows:
// "-t 150", "-t 150%" and "-t 1.5" are the same time; "-l -3dB" is "-l -3". Throws UsageError
// with a sentence that shows the accepted forms.
class SettingText {
public:
    static double TimePercent(const std::string& text);
    static double PitchCents(const std::string& text); // cents, or semitones with "st"
    static double Semitones(const std::string& text);
    static double RatioCents(const std::string& text); // a frequency ratio: 1.5, 3/2 or 3:2
    static double LevelDb(const std::string& text);

    // A number as people write it back: "498.04", "150", "+4.98" with sign.
    static std::string Number(double value, bool sign = false);
};
