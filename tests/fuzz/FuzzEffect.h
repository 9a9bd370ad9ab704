#pragma once

#include "AMorvane.h"

// One opened effect for a whole fuzzing run, created as a host creates it.
inline AMorvane& FuzzEffect() {
    static AMorvane* effect = [] {
        auto* e = new AMorvane([](AEffect*, VstInt32 opcode, VstInt32, VstIntPtr, void*, float) {
            return VstIntPtr{opcode == audioMasterVersion ? 2400 : 0};
        });
        e->open();
        return e;
    }();
    return *effect;
}
