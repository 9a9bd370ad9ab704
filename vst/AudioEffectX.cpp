#include "AudioEffectX.h"

VstIntPtr AudioEffectX::dispatcher(VstInt32 opcode, VstInt32 index, VstIntPtr value, void* ptr,
                                   float opt) {
    char* text = static_cast<char*>(ptr);
    switch (opcode) {
    case effProcessEvents:
        return processEvents(ptr);
    case effCanBeAutomated:
        return canParameterBeAutomated(index) ? 1 : 0;
    case effString2Parameter:
        return text && string2parameter(index, text) ? 1 : 0;
    case effGetProgramNameIndexed:
        return text && getProgramNameIndexed(static_cast<VstInt32>(value), index, text) ? 1 : 0;
    case effGetPlugCategory:
        return getPlugCategory();
    case effProcessVarIo:
        return processVariableIo(static_cast<VstVariableIo*>(ptr)) ? 1 : 0;
    case effSetBypass:
        return setBypass(value != 0) ? 1 : 0;
    case effGetEffectName:
        return text && getEffectName(text) ? 1 : 0;
    case effGetVendorString:
        return text && getVendorString(text) ? 1 : 0;
    case effGetProductString:
        return text && getProductString(text) ? 1 : 0;
    case effGetVendorVersion:
        return getVendorVersion();
    case effCanDo:
        return text ? canDo(text) : 0;
    case effVendorSpecific:
        return vendorSpecific(index, value, ptr, opt);
    case effGetTailSize:
        return getTailSize();
    case effGetVstVersion:
        return getVstVersion();
    case effStartProcess:
        return startProcess();
    case effStopProcess:
        return stopProcess();
    case effSetTotalSampleToProcess:
        return setTotalSampleToProcess(static_cast<VstInt32>(value));
    default:
        return AudioEffect::dispatcher(opcode, index, value, ptr, opt);
    }
}

bool AudioEffectX::updateDisplay() {
    return CallHost(audioMasterUpdateDisplay) != 0;
}

bool AudioEffectX::ioChanged() {
    return CallHost(audioMasterIOChanged) != 0;
}
