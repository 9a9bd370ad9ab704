#pragma once

#include <cstdint>

// Ranges of the five parameters (and an unused sixth row) and the conversions between host
// values, normalised values and display units. Output is 6 dB per doubling of gain, exactly.
struct ParamMinMax {
    double dMin;
    double dMax;
    double dThird;
    uint32_t bStepped;
};
extern const ParamMinMax AutomateParamMinMax_Tbl[6];

float ValToNormalizeValue(int index, float value);
float NormalizeValToInternalVal(int index, float normalised);
void GetParamMinMax(int index, float* min, float* max);
