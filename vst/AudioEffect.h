#pragma once

#include "AEffEditor.h"
#include "AEffect.h"

// Copies at most room - 1 characters and always terminates.
void vst_strncpy(char* dst, const char* src, VstInt32 room);

// The plug-in side of the VST 2.0 interface: fills the record, maps the dispatcher's opcodes
// to virtual operations with the framework's defaults, and wraps the host requests.
class AudioEffect {
public:
    AudioEffect(audioMasterCallback audioMaster, VstInt32 numPrograms, VstInt32 numParams);
    virtual ~AudioEffect(); // deletes the editor
    AudioEffect(const AudioEffect&) = delete;
    AudioEffect& operator=(const AudioEffect&) = delete;

    AEffect* getAeffect() { return &cEffect; }

    virtual VstIntPtr dispatcher(VstInt32 opcode, VstInt32 index, VstIntPtr value, void* ptr,
                                 float opt);

    virtual void open() {}
    virtual void close() {}
    virtual void suspend() {}
    virtual void resume() {}
    virtual void setSampleRate(float rate) { sampleRate = rate; }
    virtual void setBlockSize(VstInt32 frames) { blockSize = frames; }

    virtual void process(float**, float**, VstInt32) {}
    virtual void processReplacing(float**, float**, VstInt32) {}
    virtual void processDoubleReplacing(double**, double**, VstInt32) {}

    virtual void setParameter(VstInt32, float) {}
    virtual float getParameter(VstInt32) { return 0; }
    virtual void setProgram(VstInt32 program) { curProgram = program; }
    virtual VstInt32 getProgram() { return curProgram; }
    virtual void setProgramName(char*) {}
    virtual void getProgramName(char* name) { *name = 0; }
    virtual void getParameterLabel(VstInt32, char*) {}
    virtual void getParameterDisplay(VstInt32, char*) {}
    virtual void getParameterName(VstInt32, char*) {}
    virtual VstInt32 getChunk(void**, bool) { return 0; }
    virtual VstInt32 setChunk(void*, VstInt32, bool) { return 0; }

    virtual void setUniqueID(VstInt32 id) { cEffect.uniqueID = id; }
    virtual void setNumInputs(VstInt32 inputs) { cEffect.numInputs = inputs; }
    virtual void setNumOutputs(VstInt32 outputs) { cEffect.numOutputs = outputs; }
    virtual void setInitialDelay(VstInt32 delay) { cEffect.initialDelay = delay; }
    virtual void canProcessReplacing(bool state = true) { SetFlag(effFlagsCanReplacing, state); }
    virtual void canDoubleReplacing(bool state = true) {
        SetFlag(effFlagsCanDoubleReplacing, state);
    }
    virtual void programsAreChunks(bool state = true) { SetFlag(effFlagsProgramChunks, state); }
    virtual void isSynth(bool state = true) { SetFlag(effFlagsIsSynth, state); }
    virtual void noTail(bool state = true) { SetFlag(effFlagsNoSoundInStop, state); }
    virtual void setEditor(AEffEditor* newEditor) {
        editor = newEditor;
        SetFlag(effFlagsHasEditor, newEditor != nullptr);
    }
    virtual AEffEditor* getEditor() { return editor; }

    // Host requests; each answers 0 when there is no host callback.
    virtual VstInt32 getMasterVersion();
    virtual void* getDirectory();
    virtual void beginEdit(VstInt32 index);
    virtual void endEdit(VstInt32 index);
    virtual void setParameterAutomated(VstInt32 index, float value);

protected:
    void SetFlag(VstInt32 flag, bool state) {
        cEffect.flags = state ? (cEffect.flags | flag) : (cEffect.flags & ~flag);
    }
    VstIntPtr CallHost(VstInt32 opcode, VstInt32 index = 0, VstIntPtr value = 0,
                       void* ptr = nullptr, float opt = 0);

    audioMasterCallback audioMaster;
    AEffEditor* editor = nullptr;
    float sampleRate = 44100.0f;
    VstInt32 blockSize = 1024;
    VstInt32 numPrograms;
    VstInt32 numParams;
    VstInt32 curProgram = 0;
    AEffect cEffect;
};
