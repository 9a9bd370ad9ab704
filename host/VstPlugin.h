#pragma once

#include <string>

#include "AEffect.h"

// A VST 2.4 plug-in loaded the way any host loads one: the file opened with dlopen, one effect
// created through its exported entry point (VSTPluginMain, or the older main), and every call
// made through the record and its dispatcher. Nothing of the plug-in's code is linked.
class VstPlugin {
public:
    // Throws std::runtime_error with a sentence for the user when the file cannot be loaded or
    // is not a VST 2 plug-in.
    explicit VstPlugin(const std::string& path);
    ~VstPlugin();
    VstPlugin(const VstPlugin&) = delete;
    VstPlugin& operator=(const VstPlugin&) = delete;

    AEffect* Effect() const { return m_effect; }
    const std::string& Path() const { return m_path; }

    VstIntPtr Dispatch(VstInt32 opcode, VstInt32 index = 0, VstIntPtr value = 0,
                       void* ptr = nullptr, float opt = 0) const;
    // A string the plug-in writes; room is generous because plug-ins overrun the old limits.
    std::string Text(VstInt32 opcode, VstInt32 index = 0, VstIntPtr value = 0) const;
    void SetParameter(int index, float value) const;
    float GetParameter(int index) const;

    // Empty when the effect is Morvane's offline processor with its five parameters; else a
    // sentence saying what it is instead.
    std::string NotMorvane() const;

    // The plug-in file found for Morvane: $MORVANE_PLUGIN, the build tree beside this program,
    // the install tree, then the folders Linux hosts search. Empty when none exists; throws
    // when $MORVANE_PLUGIN names a file that is not there.
    static std::string FindMorvane();
    // The plug-in to use: the one named, else Morvane's found. Throws PluginError.
    static std::string Locate(const std::string& named);
    // The running program's folder, slash kept; empty when the system does not say.
    static std::string ProgramFolder();

private:
    static VstIntPtr HostCallback(AEffect* effect, VstInt32 opcode, VstInt32 index, VstIntPtr value,
                                  void* ptr, float opt);

    std::string m_path;
    void* m_library = nullptr;
    AEffect* m_effect = nullptr;
};
