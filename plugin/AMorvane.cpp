#include "AMorvane.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "CString.h"
#include "MorvaneParameters.h"
#include "ParamRange.h"
#include "PreferencesFolder.h"

AMorvane::AMorvane(audioMasterCallback audioMaster)
    : AudioEffectX(audioMaster, kNumPrograms, kNumParams) {
    using namespace MorvaneParameters;
    m_fHost[kOnOff] = 1.0f;
    m_fHost[kOutput] = ValToNormalizeValue(kOutput, 1.0f);
    m_fHost[kPitch] = m_fHost[kTime] = m_fHost[kLowSound] = 1.0f;
    m_fPercent = 1.0f;
    setSampleRate(44100);
    setNumInputs(2);
    setNumOutputs(2);
    setInitialDelay(kInitialDelay);
    setUniqueID(FourCC("Qzvh"));
    GetMy_SHFOLDER_PathName(); // once for the whole process
    programsAreChunks(true);
    canMono(false);
    // The panel itself is loaded when a host first asks for it.
    SetFlag(effFlagsHasEditor, !PanelPath().empty());
    resume();
}

AMorvane::~AMorvane() {
    // The editor's code is the panel library's: it goes while that is certainly loaded.
    delete editor;
    editor = nullptr;
    m_pView = nullptr;
    if (m_pPanelLibrary)
        dlclose(m_pPanelLibrary); // loaded with RTLD_NODELETE: only the count drops
    FreeBuffers();
}

namespace {

const int kAnchor = 0; // any address inside this module

// This module's file as the loader mapped it; null when the loader cannot say.
const char* ModuleFile() {
    Dl_info info{};
    return dladdr(&kAnchor, &info) ? info.dli_fname : nullptr;
}

} // namespace

const std::string& AMorvane::PanelPath() {
    static const std::string path = [] {
        const char* module = ModuleFile();
        if (!module)
            return std::string();
        std::string file = module;
        file.erase(file.rfind('/') + 1); // npos + 1: no folder at all
        file += "Morvane.panel";
        return access(file.c_str(), R_OK) == 0 ? file : std::string();
    }();
    return path;
}

VstIntPtr AMorvane::dispatcher(VstInt32 opcode, VstInt32 index, VstIntPtr value, void* ptr,
                               float opt) {
    if (!editor && (opcode == effEditGetRect || opcode == effEditOpen))
        LoadPanel();
    return AudioEffectX::dispatcher(opcode, index, value, ptr, opt);
}

void AMorvane::LoadPanel() {
    if (m_bPanelTried || PanelPath().empty())
        return;
    m_bPanelTried = true;
    // Never unloaded: the window layer keeps its display connection and fonts for the process.
    void* library = dlopen(PanelPath().c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    const char* why = library ? nullptr : dlerror();
    // The panel takes only an effect of the same build, known by its size.
    using Create = AEffEditor* (*)(AMorvane*, size_t);
    const auto create =
        library ? reinterpret_cast<Create>(dlsym(library, "MorvanePanelCreate")) : nullptr;
    if (!create || !create(this, sizeof(AMorvane))) {
        std::fprintf(stderr, "Morvane: no panel: %s\n",
                     why ? why : "Morvane.panel belongs to another version of the plug-in");
        if (library)
            dlclose(library);
        SetFlag(effFlagsHasEditor, false);
        return;
    }
    m_pPanelLibrary = library; // the editor attached itself
}

void AMorvane::open() {
    // Hosts on Linux rarely answer the directory request; the loaded object knows its place.
    const char* dir = static_cast<const char*>(getDirectory());
    if (!dir)
        dir = ModuleFile();
    if (dir) {
        // A path that names the plug-in file becomes its folder, slash kept.
        CString path(dir, static_cast<int>(strnlen(dir, sizeof(m_szPluginDir) - 1)));
        const int n = path.GetLength();
        if (n > 1 && path.GetAt(n - 1) != '/' && path.ReverseFind('/') >= 0)
            path = path.Left(path.ReverseFind('/') + 1);
        vst_strncpy(m_szPluginDir, path, sizeof(m_szPluginDir));
    }
    setProgram(0);
    std::memcpy(m_Initial, m_Programs, sizeof(m_Programs));
    LoadBanks();
}

void AMorvane::suspend() {
    for (auto& e : m_Engines)
        e->SetActive(false);
    m_fHost[MorvaneParameters::kOnOff] = 0.0f;
    EditorUpdate(MorvaneParameters::kOnOff, 0.0f);
    m_nConsumed = 0;
}

void AMorvane::resume() {
    for (auto& e : m_Engines)
        e->SetActive(true);
    m_fHost[MorvaneParameters::kOnOff] = 1.0f;
    EditorUpdate(MorvaneParameters::kOnOff, 1.0f);
    AudioEffectX::resume();
}

bool AMorvane::getEffectName(char* name) {
    vst_strncpy(name, "Morvane", kVstMaxEffectNameLen);
    return true;
}

bool AMorvane::getVendorString(char* text) {
    vst_strncpy(text, "KORVELLE Co.,Ltd.", kVstMaxVendorStrLen);
    return true;
}

bool AMorvane::getProductString(char* text) {
    vst_strncpy(text, "Morvane", kVstMaxProductStrLen);
    return true;
}

VstInt32 AMorvane::canDo(char* text) {
    static const struct {
        const char* text;
        VstInt32 answer;
    } kAnswers[] = {
        {"sendVstEvents", -1},      {"sendVstMidiEvent", -1},
        {"receiveVstEvents", -1},   {"receiveVstMidiEvent", -1},
        {"receiveVstTimeInfo", -1}, {"offline", 1},
        {"midiProgramNames", -1},   {"bypass", 1}, // answered yes; setBypass stays the default
        {MorvaneEngine::kCanDo, 1},
    };
    for (const auto& a : kAnswers)
        if (std::strcmp(text, a.text) == 0)
            return a.answer;
    return 0;
}

VstIntPtr AMorvane::vendorSpecific(VstInt32 index, VstIntPtr value, void*, float) {
    if (index == MorvaneEngine::kSilencedTag)
        return m_pJob.load()->SilencedFrames();
    if (index == MorvaneEngine::kLeadInTag) {
        m_bLeadIn = value != 0;
        return 1;
    }
    if (index == MorvaneEngine::kStepTag) {
        m_nStepWanted = static_cast<int>(std::clamp<VstIntPtr>(value, 0, 1 << 24));
        return 1;
    }
    if (index == MorvaneEngine::kMonoTag) {
        m_bMono = value != 0;
        return 1;
    }
    if (index != MorvaneEngine::kTag)
        return 0;
    if (value == MorvaneEngine::kSplice || value == MorvaneEngine::kCrisp)
        m_nEngineWanted = static_cast<int>(value);
    else if (value != MorvaneEngine::kAsk)
        return 0;
    return m_nEngineWanted;
}

void AMorvane::EditorUpdate(int index, float value) {
    if (m_pView)
        m_pView->ShowParameter(index, value);
}

void AMorvane::EditorModify() {
    if (m_pView)
        m_pView->ShowProgramState();
}

void AMorvane::Tell(const char* text) {
    if (m_pView)
        m_pView->ShowMessage(text);
    else
        std::fprintf(stderr, "Morvane: %s\n", text);
}
