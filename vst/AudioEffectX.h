#pragma once

#include "AudioEffect.h"

// The VST 2.x extensions: names, capabilities, categories and the offline variable-I/O job.
class AudioEffectX : public AudioEffect {
public:
    using AudioEffect::AudioEffect;

    VstIntPtr dispatcher(VstInt32 opcode, VstInt32 index, VstIntPtr value, void* ptr,
                         float opt) override;

    virtual VstInt32 processEvents(void*) { return 0; }
    virtual bool canParameterBeAutomated(VstInt32) { return true; }
    virtual bool string2parameter(VstInt32, char*) { return false; }
    virtual bool getProgramNameIndexed(VstInt32, VstInt32, char*) { return false; }
    virtual VstInt32 getPlugCategory() { return kPlugCategUnknown; }
    virtual bool processVariableIo(VstVariableIo*) { return false; }
    virtual bool setBypass(bool) { return false; }
    virtual bool getEffectName(char*) { return false; }
    virtual bool getVendorString(char*) { return false; }
    virtual bool getProductString(char*) { return false; }
    virtual VstInt32 getVendorVersion() { return 0; }
    virtual VstInt32 canDo(char*) { return 0; }
    // effVendorSpecific: a call of the plug-in's own, which hosts that know it make.
    virtual VstIntPtr vendorSpecific(VstInt32, VstIntPtr, void*, float) { return 0; }
    virtual VstInt32 getTailSize() { return 0; }
    virtual VstInt32 getVstVersion() { return 2300; }
    virtual VstInt32 startProcess() { return 0; }
    virtual VstInt32 stopProcess() { return 0; }
    virtual VstInt32 setTotalSampleToProcess(VstInt32 value) { return value; }

    // The old mono capability flag.
    virtual void canMono(bool state = true) { SetFlag(effFlagsCanMono, state); }
    virtual bool updateDisplay();
    virtual bool ioChanged();
};
