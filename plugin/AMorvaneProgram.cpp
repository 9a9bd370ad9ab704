#include "AMorvaneProgram.h"

#include "MorvaneParameters.h"
#include "ParamRange.h"

// A program nobody has stored: on, 0 dB, unit rates, LowSound on.
AMorvaneProgram::AMorvaneProgram()
    : fValue{1.0f, ValToNormalizeValue(MorvaneParameters::kOutput, 1.0f), 1.0f, 1.0f,
             MorvaneParameters::kLowSoundOn},
      szName("Empty"), nCurrent(0) {}
