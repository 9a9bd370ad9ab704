#include "SettingText.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "RenderJob.h"

namespace {

// The number that text starts with and the unit after it (spaces dropped, lower case).
bool Split(const std::string& text, double* value, std::string* unit) {
    const char* begin = text.c_str();
    char* end = nullptr;
    *value = std::strtod(begin, &end);
    if (end == begin || !std::isfinite(*value))
        return false;
    unit->clear();
    for (const char* p = end; *p; ++p)
        if (!std::isspace(static_cast<unsigned char>(*p)))
            *unit += static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
    return true;
}

bool OneOf(const std::string& unit, std::initializer_list<const char*> names) {
    for (const char* n : names)
        if (unit == n)
            return true;
    return false;
}

} // namespace

std::string SettingText::Number(double v, bool sign) {
    char buf[64];
    int n = std::snprintf(buf, sizeof(buf), sign ? "%+.2f" : "%.2f", v);
    while (n > 0 && buf[n - 1] == '0') // "498.00" is "498", "4.50" is "4.5"
        buf[--n] = 0;
    if (n > 0 && buf[n - 1] == '.')
        buf[--n] = 0;
    if (std::strcmp(buf, "-0") == 0 || std::strcmp(buf, "+0") == 0)
        return "0";
    return buf;
}

double SettingText::TimePercent(const std::string& text) {
    double v;
    std::string unit;
    std::string t = text;
    bool ratio = false;
    if (!t.empty() && (t[0] == 'x' || t[0] == 'X')) {
        t.erase(0, 1);
        ratio = true;
    }
    const std::string forms = "give a ratio (0.5 to 2, as 1.5 or 1.5x) or a percentage (50 to "
                              "200, as 150 or 150%)";
    if (!Split(t, &v, &unit))
        throw UsageError("time \"" + text + "\" is not a number: " + forms);
    if (unit == "%")
        return v;
    if (OneOf(unit, {"x"}) || ratio) {
        if (!unit.empty() && unit != "x")
            throw UsageError("time \"" + text + "\": " + forms);
        return v * 100;
    }
    if (!unit.empty())
        throw UsageError("time \"" + text + "\" has an unknown unit: " + forms);
    if (v >= 0.5 && v <= 2.0)
        return v * 100;
    if (v >= 50 && v <= 200)
        return v;
    throw UsageError("time " + text +
                     " is neither a ratio of 0.5 to 2 nor a percentage of 50 "
                     "to 200");
}

double SettingText::PitchCents(const std::string& text) {
    double v;
    std::string unit;
    if (!Split(text, &v, &unit))
        throw UsageError("pitch \"" + text + "\" is not a number of cents (as -300 or +700c)");
    if (unit.empty() || OneOf(unit, {"c", "ct", "cent", "cents"}))
        return v;
    if (OneOf(unit, {"st", "semi", "semitone", "semitones"}))
        return v * 100;
    throw UsageError("pitch \"" + text +
                     "\" has an unknown unit: give cents (700 or 700c) or "
                     "semitones (7st)");
}

double SettingText::Semitones(const std::string& text) {
    double v;
    std::string unit;
    if (!Split(text, &v, &unit) || !(unit.empty() || OneOf(unit, {"st", "semitone", "semitones"})))
        throw UsageError("semitones \"" + text + "\" is not a number of semitones (as -3 or 7)");
    return v;
}

double SettingText::RatioCents(const std::string& text) {
    double v;
    std::string unit;
    if (!Split(text, &v, &unit))
        throw UsageError("ratio \"" + text + "\" is not a number (as 1.5, 3/2 or 3:2)");
    if (!unit.empty() && (unit[0] == '/' || unit[0] == ':')) {
        char* end = nullptr;
        const double d = std::strtod(unit.c_str() + 1, &end);
        if (*end || !(d > 0))
            throw UsageError("ratio \"" + text + "\" is not a fraction (as 3/2 or 3:2)");
        v /= d;
    } else if (!unit.empty() && unit != "x") {
        throw UsageError("ratio \"" + text + "\" has an unknown unit (give 1.5, 3/2 or 3:2)");
    }
    if (!(v >= 0.5 && v <= 2.0))
        throw UsageError("ratio " + text + " is outside 0.5 to 2 (an octave down to one up)");
    return 1200 * std::log2(v);
}

double SettingText::LevelDb(const std::string& text) {
    double v;
    std::string unit;
    if (!Split(text, &v, &unit) || !(unit.empty() || unit == "db"))
        throw UsageError("level \"" + text + "\" is not a number of dB (as -3 or -3dB)");
    return v;
}
