#include "ParamRange.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "MorvaneParameters.h"

using namespace MorvaneParameters;

// The Pitch row's range is in cents and the Time row's a rate, as the table has always held
// them; only the Output row is used for a conversion.
const ParamMinMax AutomateParamMinMax_Tbl[6] = {
    {0.0, 1.0, 1.0, 1},             // ON/OFF
    {kGainMin, kGainMax, 1.0, 0},   // Output, linear gain
    {kCentsMin, kCentsMax, 0.0, 0}, // Pitch, cents
    {kRateMin, kRateMax, 1.0, 0},   // Time, rate
    {0.0, 1.0, 1.0, 0},             // LowSound
    {0.0, 0.0, 0.0, 0},             // a sixth row no parameter uses, kept with the table
};

namespace {

bool InTable(int index) {
    return index >= 0 && index < static_cast<int>(std::size(AutomateParamMinMax_Tbl));
}

float Level(double gain) {
    return static_cast<float>(std::clamp(GainToDb(gain), kLevelMinDb, kLevelMaxDb));
}

} // namespace

float ValToNormalizeValue(int index, float value) {
    if (!InTable(index))
        return 0;
    const ParamMinMax& row = AutomateParamMinMax_Tbl[index];
    const float range = static_cast<float>(row.dMax - row.dMin);
    if (row.bStepped)
        return value * (1.0f / range);
    const double n = (value - row.dMin) / range;
    return static_cast<float>(n < 0 ? 0 : n > 1 ? 1 : n);
}

float NormalizeValToInternalVal(int index, float normalised) {
    if (!InTable(index))
        return 0;
    const ParamMinMax& row = AutomateParamMinMax_Tbl[index];
    const float range = static_cast<float>(row.dMax - row.dMin);
    if (row.bStepped) {
        const double steps = std::floor(normalised / (1.0f / range) + 0.5);
        const double clamped = std::clamp(steps, 0.0, row.dMax); // also keeps NaN out of the cast
        return static_cast<float>(static_cast<uint32_t>(clamped == clamped ? clamped : 0.0));
    }
    double v = range * static_cast<double>(normalised) + row.dMin;
    if (v != v)
        v = row.dMin; // a NaN from a host reads as the bottom of the range
    v = v < row.dMin ? row.dMin : v > row.dMax ? row.dMax : v;
    if (index == kOutput)
        return Level(v);
    return static_cast<float>(v);
}

void GetParamMinMax(int index, float* min, float* max) {
    if (!InTable(index))
        return;
    const ParamMinMax& row = AutomateParamMinMax_Tbl[index];
    if (index == kOutput) {
        *min = Level(row.dMin);
        *max = Level(row.dMax);
    } else {
        *min = static_cast<float>(row.dMin);
        *max = static_cast<float>(row.dMax);
    }
}
