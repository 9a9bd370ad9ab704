#pragma once

#include <dlfcn.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "AEffect.h"

// A minimal VST 2.4 host for tests: loads a plug-in file, creates one effect through its
// exported entry point and talks to it only through the record and the dispatcher.
class PluginHost {
public:
    static inline VstIntPtr hostVersion = 2400;

    explicit PluginHost(const std::string& path, const char* entry = "VSTPluginMain") {
        m_lib = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!m_lib)
            throw std::runtime_error(dlerror());
        m_entry = reinterpret_cast<Entry>(dlsym(m_lib, entry));
        if (!m_entry)
            throw std::runtime_error("no entry point");
        effect = m_entry(&Callback);
    }
    ~PluginHost() {
        if (effect)
            Dispatch(effClose);
        dlclose(m_lib);
    }
    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

    using Entry = AEffect* (*)(audioMasterCallback);
    Entry EntryPoint() const { return m_entry; }

    VstIntPtr Dispatch(VstInt32 opcode, VstInt32 index = 0, VstIntPtr value = 0,
                       void* ptr = nullptr, float opt = 0) {
        return effect->dispatcher(effect, opcode, index, value, ptr, opt);
    }
    std::string Text(VstInt32 opcode, VstInt32 index = 0) {
        char buf[256];
        std::memset(buf, 0, sizeof(buf));
        Dispatch(opcode, index, 0, buf);
        return buf;
    }
    void Set(int index, float v) { effect->setParameter(effect, index, v); }
    float Get(int index) { return effect->getParameter(effect, index); }

    struct Io {
        VstInt32 taken = 0, written = 0;
    };
    // One variable-I/O call; output arrays must hold want frames.
    Io Process(float* left, float* right, int offered, float* outLeft, float* outRight, int want) {
        float* in[2] = {left, right};
        float* out[2] = {outLeft, outRight};
        Io r;
        VstVariableIo io{in, out, offered, want, &r.taken, &r.written};
        Dispatch(effProcessVarIo, 0, 0, &io);
        return r;
    }

    static inline int endEdits = 0;
    static VstIntPtr Callback(AEffect*, VstInt32 opcode, VstInt32, VstIntPtr, void*, float) {
        if (opcode == 1) // audioMasterVersion
            return hostVersion;
        if (opcode == 44) // audioMasterEndEdit
            ++endEdits;
        return 0;
    }

    AEffect* effect = nullptr;

private:
    void* m_lib = nullptr;
    Entry m_entry = nullptr;
};
