#include "AudioEffect.h"

#include <cstring>

namespace {

AudioEffect* Self(AEffect* e) {
    return static_cast<AudioEffect*>(e->object);
}

VstIntPtr DispatchEffect(AEffect* e, VstInt32 opcode, VstInt32 index, VstIntPtr value, void* ptr,
                         float opt) {
    AudioEffect* self = Self(e);
    if (opcode == effClose) {
        self->dispatcher(opcode, index, value, ptr, opt);
        delete self;
        return 1;
    }
    return self->dispatcher(opcode, index, value, ptr, opt);
}

// Kept distinct from ProcessReplacingEffect: some hosts ignore a processReplacing that is the
// same function as process.
void ProcessEffect(AEffect* e, float** in, float** out, VstInt32 frames) {
    Self(e)->process(in, out, frames);
}

void ProcessReplacingEffect(AEffect* e, float** in, float** out, VstInt32 frames) {
    Self(e)->processReplacing(in, out, frames);
}

void ProcessDoubleReplacingEffect(AEffect* e, double** in, double** out, VstInt32 frames) {
    Self(e)->processDoubleReplacing(in, out, frames);
}

void SetParameterEffect(AEffect* e, VstInt32 index, float value) {
    Self(e)->setParameter(index, value);
}

float GetParameterEffect(AEffect* e, VstInt32 index) {
    return Self(e)->getParameter(index);
}

} // namespace

void vst_strncpy(char* dst, const char* src, VstInt32 room) {
    if (!dst || room <= 0)
        return;
    const size_t n = src ? strnlen(src, static_cast<size_t>(room - 1)) : 0;
    if (n)
        std::memcpy(dst, src, n);
    dst[n] = 0;
}

AudioEffect::AudioEffect(audioMasterCallback audioMaster, VstInt32 numPrograms, VstInt32 numParams)
    : audioMaster(audioMaster), numPrograms(numPrograms), numParams(numParams) {
    std::memset(&cEffect, 0, sizeof(cEffect));
    cEffect.magic = kEffectMagic;
    cEffect.dispatcher = DispatchEffect;
    cEffect.process = ProcessEffect;
    cEffect.setParameter = SetParameterEffect;
    cEffect.getParameter = GetParameterEffect;
    cEffect.numPrograms = numPrograms;
    cEffect.numParams = numParams;
    cEffect.numInputs = 1;
    cEffect.numOutputs = 2;
    cEffect.flags = effFlagsCanReplacing;
    cEffect.ioRatio = 1.0f;
    cEffect.object = this;
    cEffect.uniqueID = FourCC("NoEf");
    cEffect.version = 1;
    cEffect.processReplacing = ProcessReplacingEffect;
    cEffect.processDoubleReplacing = ProcessDoubleReplacingEffect;
}

AudioEffect::~AudioEffect() {
    delete editor;
}

VstIntPtr AudioEffect::CallHost(VstInt32 opcode, VstInt32 index, VstIntPtr value, void* ptr,
                                float opt) {
    return audioMaster ? audioMaster(&cEffect, opcode, index, value, ptr, opt) : 0;
}

VstInt32 AudioEffect::getMasterVersion() {
    const VstIntPtr version = CallHost(audioMasterVersion);
    return version ? static_cast<VstInt32>(version) : 1;
}

void* AudioEffect::getDirectory() {
    return reinterpret_cast<void*>(CallHost(audioMasterGetDirectory));
}

void AudioEffect::beginEdit(VstInt32 index) {
    CallHost(audioMasterBeginEdit, index);
}

void AudioEffect::endEdit(VstInt32 index) {
    CallHost(audioMasterEndEdit, index);
}

void AudioEffect::setParameterAutomated(VstInt32 index, float value) {
    setParameter(index, value);
    CallHost(audioMasterAutomate, index, 0, nullptr, value);
}

VstIntPtr AudioEffect::dispatcher(VstInt32 opcode, VstInt32 index, VstIntPtr value, void* ptr,
                                  float opt) {
    char* text = static_cast<char*>(ptr);
    switch (opcode) {
    case effOpen:
        open();
        return 0;
    case effClose:
        close();
        return 0;
    case effSetProgram:
        if (value >= 0 && value < numPrograms)
            setProgram(static_cast<VstInt32>(value));
        return 0;
    case effGetProgram:
        return getProgram();
    case effSetProgramName:
        if (text)
            setProgramName(text);
        return 0;
    case effGetProgramName:
        if (text)
            getProgramName(text);
        return 0;
    case effGetParamLabel:
        if (text)
            getParameterLabel(index, text);
        return 0;
    case effGetParamDisplay:
        if (text)
            getParameterDisplay(index, text);
        return 0;
    case effGetParamName:
        if (text)
            getParameterName(index, text);
        return 0;
    case effSetSampleRate:
        setSampleRate(opt);
        return 0;
    case effSetBlockSize:
        setBlockSize(static_cast<VstInt32>(value));
        return 0;
    case effMainsChanged:
        if (value)
            resume();
        else
            suspend();
        return 0;
    case effEditGetRect:
        if (editor && ptr)
            return editor->getRect(static_cast<ERect**>(ptr)) ? 1 : 0;
        return 0;
    case effEditOpen:
        return editor ? (editor->open(ptr) ? 1 : 0) : 0;
    case effEditClose:
        if (editor)
            editor->close();
        return 0;
    case effEditIdle:
        if (editor)
            editor->idle();
        return 0;
    case effEditDraw:
        if (editor)
            editor->draw(static_cast<ERect*>(ptr));
        return 0;
    case effIdentify:
        return FourCC("NvEf");
    case effGetChunk:
        return ptr ? getChunk(static_cast<void**>(ptr), index != 0) : 0;
    case effSetChunk:
        return ptr && value > 0 ? setChunk(ptr, static_cast<VstInt32>(value), index != 0) : 0;
    default:
        return 0;
    }
}
