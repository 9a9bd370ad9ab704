// The five parameters: what the host, a typed value and a panel control each change.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <strings.h>

#include "AMorvane.h"
#include "CStringResource.h"
#include "ParamRange.h"

namespace {

constexpr double kCentsPerLn = 1731.2340490667561; // 1200 / ln 2
constexpr double kCentStep = 1.0005778074264526;   // 2^(1/1200) at float precision
constexpr int kStrPitchTimeBound = 20200;

double ClampRate(double v) {
    return std::clamp(v, 0.5, 2.0);
}

// pitch rate x time rate <= 2, judged on the two rates as they are stored (floats) and multiplied
// in float. In double, a pair stored at the bound (2 / 1.5 = 1.3333334f with 1.5) comes to
// 2.00000006 and would be refused when it comes back from a program or a chunk, leaving the host
// showing one rate while the engine runs another.
bool WithinBound(float a, float b) {
    return a * b <= 2.0f; // false for NaN too
}

void Write(char* text, const char* value) {
    vst_strncpy(text, value, kVstMaxParamStrLen);
}

} // namespace

// ON/OFF, Output and LowSound change alike from the host and from the panel: the host value,
// the program record and what the engine or the output stage does with it.
void AMorvane::SetSwitchOrOutput(int index, float v) {
    m_fHost[index] = v;
    m_Programs[curProgram].fValue[index] = v;
    if (index == 0) {
        // active when the value truncated to an integer is not 0 (0.99 is off)
        Engines([&](auto& e) {
            e.SetActive(static_cast<int>(v == v ? std::clamp(v, -2.0f, 2.0f) : 0.0f) != 0);
        });
    } else if (index == 1) {
        m_fLevel = NormalizeValToInternalVal(1, v);
        SetOutputGain(static_cast<float>(std::pow(2.0, m_fLevel / 6.0)));
    } else {
        Engines([&](auto& e) { e.SetLowSound(v); });
    }
}

void AMorvane::SetOutputGain(float gain) {
    std::lock_guard lock(m_cs);
    m_fGain = gain;
}

float AMorvane::getParameter(VstInt32 index) {
    return index >= 0 && index < kNumParams ? m_fHost[index] : 0.0f;
}

// Pitch (2) or Time (3) from the host: clamped to 0.5 .. 2.0, and lowered silently when the
// product with the other rate would pass 2.0, in which case the engine is not told. The program
// record is not written: rates reach it only through the panel and program changes.
void AMorvane::SetRateFromHost(int index, float v) {
    const int other = index == 2 ? 3 : 2;
    const double rate = ClampRate(v);
    m_fHost[index] = static_cast<float>(rate);
    if (!WithinBound(m_fHost[index], m_fHost[other]))
        m_fHost[index] = static_cast<float>(2.0 / m_fHost[other]);
    else if (index == 2)
        Engines([&](auto& e) { e.SetPitchRate(rate, Running()); });
    else
        Engines([&](auto& e) { e.SetTimeRate(rate, Running()); });
}

void AMorvane::setParameter(VstInt32 index, float v) {
    switch (index) {
    case 0:
    case 1:
    case 4:
        SetSwitchOrOutput(index, v);
        EditorUpdate(index, v);
        break;
    case 2:
        SetRateFromHost(2, v);
        m_fCents = static_cast<float>(std::log(m_fHost[2]) * kCentsPerLn);
        EditorUpdate(2, m_fCents);
        break;
    case 3:
        SetRateFromHost(3, v);
        m_fPercent = m_fHost[3] * 100.0f;
        EditorUpdate(3, m_fPercent);
        break;
    default:
        break;
    }
}

void AMorvane::setParameterFromDiaplay(int index, float d) {
    AMorvaneProgram& program = m_Programs[curProgram];
    switch (index) {
    case 3: {
        m_fPercent = d;
        const double t = ClampRate(d / 100.0);
        m_fHost[3] = static_cast<float>(t);
        if (!WithinBound(m_fHost[2], m_fHost[3])) {
            std::puts("error1");
            Tell(LoadStringResource(kStrPitchTimeBound));
            m_fHost[3] = static_cast<float>(2.0 / m_fHost[2]);
            setParameter(3, static_cast<float>(2.0 / m_fHost[2]));
            return;
        }
        Engines([&](auto& e) { e.SetTimeRate(t, Running()); });
        program.fValue[3] = static_cast<float>(t);
        break;
    }
    case 2: {
        m_fCents = d;
        const double p = ClampRate(std::pow(kCentStep, static_cast<double>(d)));
        m_fHost[2] = static_cast<float>(p);
        if (!WithinBound(m_fHost[2], m_fHost[3])) {
            std::puts("error0");
            Tell(LoadStringResource(kStrPitchTimeBound));
            m_fHost[2] = static_cast<float>(2.0 / m_fHost[3]);
            setParameter(2, 2.0f); // the bound itself, which the host path lowers again
            return;
        }
        Engines([&](auto& e) { e.SetPitchRate(p, Running()); });
        program.fValue[2] = static_cast<float>(p);
        break;
    }
    case 1: {
        m_fLevel = d; // kept as typed
        const float g = std::clamp(static_cast<float>(std::pow(2.0, d / 6.0)), 0.001f, 2.0f);
        const float n = ValToNormalizeValue(1, g);
        m_fHost[1] = n;
        program.fValue[1] = n;
        SetOutputGain(g);
        break;
    }
    default:
        break; // no change, but the panel and the host still hear of the edit
    }
    EditorUpdate(index, index == 1 ? m_fHost[1] : d);
    if (audioMaster)
        endEdit(index);
}

void AMorvane::setParameterFormUI(int index, float v, int noCheck) {
    AMorvaneProgram& program = m_Programs[curProgram];
    switch (index) {
    case 0:
    case 1:
    case 4:
        SetSwitchOrOutput(index, v);
        break;
    case 2: {
        m_fCents = v;
        const double p = ClampRate(std::pow(kCentStep, static_cast<double>(v)));
        m_fHost[2] = static_cast<float>(p);
        if (!noCheck) {
            if (!WithinBound(m_fHost[2], m_fHost[3])) {
                Tell(LoadStringResource(kStrPitchTimeBound));
                m_fHost[2] = static_cast<float>(2.0 / m_fHost[3]);
                setParameter(2, 2.0f);
                return;
            }
            Engines([&](auto& e) { e.SetPitchRate(p, Running()); });
        }
        program.fValue[2] = m_fHost[2];
        break;
    }
    case 3: {
        m_fPercent = v; // kept unclamped
        m_fHost[3] = static_cast<float>(ClampRate(v / 100.0));
        if (!noCheck) {
            if (!WithinBound(m_fHost[2], m_fHost[3])) {
                Tell(LoadStringResource(kStrPitchTimeBound));
                m_fHost[3] = static_cast<float>(2.0 / m_fHost[2]);
                setParameter(3, static_cast<float>(2.0 / m_fHost[2]));
                return;
            }
            Engines([&](auto& e) { e.SetTimeRate(m_fHost[3], Running()); });
        }
        program.fValue[3] = m_fHost[3];
        break;
    }
    default:
        break;
    }
}

float AMorvane::getParameterDisplayVal(int index) {
    // The offsets make a later truncation to one or two decimals round half away from zero.
    switch (index) {
    case 0:
    case 4:
        return m_fHost[index];
    case 1:
        return m_fLevel + (m_fLevel < 0 ? -0.05f : 0.05f);
    case 2:
        return m_fCents + (m_fCents < 0 ? -0.05f : 0.05f);
    case 3:
        return m_fPercent + (m_fPercent < 0 ? -0.005f : 0.005f);
    default:
        return 0;
    }
}

void AMorvane::getParameterName(VstInt32 index, char* text) {
    static const char* const kNames[kNumParams] = {"ON/OFF", "Output", "Pitch", "Time", "LowSound"};
    // Hosts give names more room than labels; "LowSound" needs nine bytes.
    if (index >= 0 && index < kNumParams)
        vst_strncpy(text, kNames[index], kVstMaxNameLen);
}

void AMorvane::getParameterLabel(VstInt32 index, char* text) {
    static const char* const kLabels[kNumParams] = {"", "dB", "cent", "%", ""};
    if (index >= 0 && index < kNumParams)
        Write(text, kLabels[index]);
}

void AMorvane::getParameterDisplay(VstInt32 index, char* text) {
    char buf[64];
    switch (index) {
    case 0:
    case 4:
        Write(text, m_fHost[index] == 1.0f ? "ON" : "OFF");
        return;
    case 1:
        std::snprintf(buf, sizeof(buf), "%.1f", m_fLevel);
        Write(text, strcasecmp(buf, "-0.0") == 0 ? "0.0" : buf);
        return;
    case 2:
        std::snprintf(buf, sizeof(buf), "%.1f", m_fCents);
        Write(text, buf);
        return;
    case 3:
        std::snprintf(buf, sizeof(buf), "%.2f", m_fPercent);
        Write(text, buf);
        return;
    default:
        return;
    }
}
