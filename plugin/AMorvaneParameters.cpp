// The five parameters: what the host, a typed value and a panel control each change.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <strings.h>

#include "AMorvane.h"
#include "CStringResource.h"
#include "MorvaneParameters.h"
#include "ParamRange.h"

using namespace MorvaneParameters;

namespace {

constexpr double kCentsPerLn = 1731.2340490667561; // 1200 / ln 2
constexpr double kCentStep = 1.0005778074264526;   // 2^(1/1200) at float precision
constexpr int kStrPitchTimeBound = 20200;

double ClampRate(double v) {
    return std::clamp(v, kRateMin, kRateMax);
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
    if (index == kOnOff) {
        // active when the value truncated to an integer is not 0 (0.99 is off)
        const bool on = static_cast<int>(v == v ? std::clamp(v, -2.0f, 2.0f) : 0.0f) != 0;
        for (auto& e : m_Engines)
            e->SetActive(on);
    } else if (index == kOutput) {
        m_fLevel = NormalizeValToInternalVal(kOutput, v);
        SetOutputGain(static_cast<float>(std::pow(2.0, m_fLevel / 6.0)));
    } else {
        for (auto& e : m_Engines)
            e->SetLowSound(v);
    }
}

void AMorvane::SetOutputGain(float gain) {
    std::lock_guard lock(m_cs);
    m_fGain = gain;
}

float AMorvane::getParameter(VstInt32 index) {
    return index >= 0 && index < kCount ? m_fHost[index] : 0.0f;
}

// Pitch (2) or Time (3) from the host: clamped to 0.5 .. 2.0, and lowered silently when the
// product with the other rate would pass 2.0, in which case the engine is not told. The program
// record is not written: rates reach it only through the panel and program changes.
void AMorvane::SetRateFromHost(int index, float v) {
    const int other = index == kPitch ? kTime : kPitch;
    const double rate = ClampRate(v);
    m_fHost[index] = static_cast<float>(rate);
    if (!WithinBound(m_fHost[index], m_fHost[other]))
        m_fHost[index] = static_cast<float>(2.0 / m_fHost[other]);
    else if (index == kPitch)
        SetPitchRates(rate);
    else
        SetTimeRates(rate);
}

void AMorvane::SetTimeRates(double rate) {
    for (auto& e : m_Engines)
        e->SetTimeRate(rate, Running());
}

void AMorvane::SetPitchRates(double rate) {
    for (auto& e : m_Engines)
        e->SetPitchRate(rate, Running());
}

void AMorvane::setParameter(VstInt32 index, float v) {
    switch (index) {
    case kOnOff:
    case kOutput:
    case kLowSound:
        SetSwitchOrOutput(index, v);
        EditorUpdate(index, v);
        break;
    case kPitch:
        SetRateFromHost(kPitch, v);
        m_fCents = static_cast<float>(std::log(m_fHost[kPitch]) * kCentsPerLn);
        EditorUpdate(kPitch, m_fCents);
        break;
    case kTime:
        SetRateFromHost(kTime, v);
        m_fPercent = m_fHost[kTime] * 100.0f;
        EditorUpdate(kTime, m_fPercent);
        break;
    default:
        break;
    }
}

void AMorvane::setParameterFromDiaplay(int index, float d) {
    AMorvaneProgram& program = m_Programs[curProgram];
    switch (index) {
    case kTime: {
        m_fPercent = d;
        const double t = ClampRate(d / 100.0);
        m_fHost[kTime] = static_cast<float>(t);
        if (!WithinBound(m_fHost[kPitch], m_fHost[kTime])) {
            std::puts("error1"); // deliberate: this line on standard output, as always
            Tell(LoadStringResource(kStrPitchTimeBound));
            m_fHost[kTime] = static_cast<float>(2.0 / m_fHost[kPitch]);
            setParameter(kTime, static_cast<float>(2.0 / m_fHost[kPitch]));
            return;
        }
        SetTimeRates(t);
        program.fValue[kTime] = static_cast<float>(t);
        break;
    }
    case kPitch: {
        m_fCents = d;
        const double p = ClampRate(std::pow(kCentStep, static_cast<double>(d)));
        m_fHost[kPitch] = static_cast<float>(p);
        if (!WithinBound(m_fHost[kPitch], m_fHost[kTime])) {
            std::puts("error0"); // deliberate, as "error1" above
            Tell(LoadStringResource(kStrPitchTimeBound));
            m_fHost[kPitch] = static_cast<float>(2.0 / m_fHost[kTime]);
            setParameter(kPitch, 2.0f); // the bound itself, which the host path lowers again
            return;
        }
        SetPitchRates(p);
        program.fValue[kPitch] = static_cast<float>(p);
        break;
    }
    case kOutput: {
        m_fLevel = d; // kept as typed
        const float g = std::clamp(static_cast<float>(std::pow(2.0, d / 6.0)),
                                   static_cast<float>(kGainMin), static_cast<float>(kGainMax));
        const float n = ValToNormalizeValue(kOutput, g);
        m_fHost[kOutput] = n;
        program.fValue[kOutput] = n;
        SetOutputGain(g);
        break;
    }
    default:
        break; // no change, but the panel and the host still hear of the edit
    }
    EditorUpdate(index, index == kOutput ? m_fHost[kOutput] : d);
    if (audioMaster)
        endEdit(index);
}

void AMorvane::setParameterFormUI(int index, float v, int noCheck) {
    AMorvaneProgram& program = m_Programs[curProgram];
    switch (index) {
    case kOnOff:
    case kOutput:
    case kLowSound:
        SetSwitchOrOutput(index, v);
        break;
    case kPitch: {
        m_fCents = v;
        const double p = ClampRate(std::pow(kCentStep, static_cast<double>(v)));
        m_fHost[kPitch] = static_cast<float>(p);
        if (!noCheck) {
            if (!WithinBound(m_fHost[kPitch], m_fHost[kTime])) {
                Tell(LoadStringResource(kStrPitchTimeBound));
                m_fHost[kPitch] = static_cast<float>(2.0 / m_fHost[kTime]);
                setParameter(kPitch, 2.0f);
                return;
            }
            SetPitchRates(p);
        }
        program.fValue[kPitch] = m_fHost[kPitch];
        break;
    }
    case kTime: {
        m_fPercent = v; // kept unclamped
        m_fHost[kTime] = static_cast<float>(ClampRate(v / 100.0));
        if (!noCheck) {
            if (!WithinBound(m_fHost[kPitch], m_fHost[kTime])) {
                Tell(LoadStringResource(kStrPitchTimeBound));
                m_fHost[kTime] = static_cast<float>(2.0 / m_fHost[kPitch]);
                setParameter(kTime, static_cast<float>(2.0 / m_fHost[kPitch]));
                return;
            }
            SetTimeRates(m_fHost[kTime]);
        }
        program.fValue[kTime] = m_fHost[kTime];
        break;
    }
    default:
        break;
    }
}

float AMorvane::getParameterDisplayVal(int index) {
    // The offsets make a later truncation to one or two decimals round half away from zero.
    switch (index) {
    case kOnOff:
    case kLowSound:
        return m_fHost[index];
    case kOutput:
        return m_fLevel + (m_fLevel < 0 ? -0.05f : 0.05f);
    case kPitch:
        return m_fCents + (m_fCents < 0 ? -0.05f : 0.05f);
    case kTime:
        return m_fPercent + (m_fPercent < 0 ? -0.005f : 0.005f);
    default:
        return 0;
    }
}

void AMorvane::getParameterName(VstInt32 index, char* text) {
    // Hosts give names more room than labels; "LowSound" needs nine bytes.
    if (index >= 0 && index < kCount)
        vst_strncpy(text, kNames[index], kVstMaxNameLen);
}

void AMorvane::getParameterLabel(VstInt32 index, char* text) {
    if (index >= 0 && index < kCount)
        Write(text, kLabels[index]);
}

void AMorvane::getParameterDisplay(VstInt32 index, char* text) {
    char buf[64];
    switch (index) {
    case kOnOff:
    case kLowSound:
        Write(text, m_fHost[index] == 1.0f ? "ON" : "OFF");
        return;
    case kOutput:
        std::snprintf(buf, sizeof(buf), "%.1f", m_fLevel);
        Write(text, strcasecmp(buf, "-0.0") == 0 ? "0.0" : buf);
        return;
    case kPitch:
        std::snprintf(buf, sizeof(buf), "%.1f", m_fCents);
        Write(text, buf);
        return;
    case kTime:
        std::snprintf(buf, sizeof(buf), "%.2f", m_fPercent);
        Write(text, buf);
        return;
    default:
        return;
    }
}
