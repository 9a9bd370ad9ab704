#include "VstPlugin.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "CFileType.h"
#include "HostError.h"
#include "MorvaneParameters.h"

namespace {

// Plug-ins are loaded, created and unloaded one at a time, as hosts do from their main thread:
// a library's static initialisers and its first instance's set-up then happen before any other
// thread's instance uses them, in a way every tool can see.
std::mutex gLoading;

bool Exists(const std::string& path) {
    return !path.empty() && access(path.c_str(), R_OK) == 0;
}

} // namespace

std::string VstPlugin::ProgramFolder() {
    char buf[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0)
        return {};
    std::string path(buf, static_cast<size_t>(n));
    return path.substr(0, path.rfind('/') + 1);
}

VstIntPtr VstPlugin::HostCallback(AEffect*, VstInt32 opcode, VstInt32, VstIntPtr, void*, float) {
    switch (opcode) {
    case audioMasterVersion:
        return 2400;
    case audioMasterCurrentId:
        return 0;
    default:
        return 0; // a plain offline host: no time info, no automation, no directory
    }
}

VstPlugin::VstPlugin(const std::string& path) : m_path(path) {
    std::lock_guard lock(gLoading);
    m_library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!m_library) {
        std::string why = dlerror();
        if (why.rfind(path + ": ", 0) == 0) // the loader repeats the path
            why.erase(0, path.size() + 2);
        const CFileType::Kind kind = CFileType::OfFile(path);
        if (kind == CFileType::Missing)
            throw std::runtime_error("there is no plug-in " + path);
        if (kind != CFileType::Elf && kind != CFileType::Unreadable)
            throw std::runtime_error(path + " is " + CFileType::Describe(kind) + ", not a plug-in");
        throw std::runtime_error("cannot load plug-in " + path + ": " + why);
    }
    using Entry = AEffect* (*)(audioMasterCallback);
    auto entry = reinterpret_cast<Entry>(dlsym(m_library, "VSTPluginMain"));
    if (!entry)
        entry = reinterpret_cast<Entry>(dlsym(m_library, "main"));
    if (!entry) {
        dlclose(m_library);
        throw std::runtime_error(path + " is not a VST 2 plug-in (no VSTPluginMain or main)");
    }
    m_effect = entry(&HostCallback);
    if (!m_effect || m_effect->magic != kEffectMagic) {
        dlclose(m_library);
        throw std::runtime_error(path + " did not create an effect");
    }
}

VstPlugin::~VstPlugin() {
    std::lock_guard lock(gLoading);
    if (m_effect)
        Dispatch(effClose); // the plug-in deletes itself
    if (m_library)
        dlclose(m_library);
}

VstIntPtr VstPlugin::Dispatch(VstInt32 opcode, VstInt32 index, VstIntPtr value, void* ptr,
                              float opt) const {
    return m_effect->dispatcher(m_effect, opcode, index, value, ptr, opt);
}

std::string VstPlugin::Text(VstInt32 opcode, VstInt32 index, VstIntPtr value) const {
    std::vector<char> buf(1024, 0);
    Dispatch(opcode, index, value, buf.data());
    buf.back() = 0;
    return buf.data();
}

void VstPlugin::SetParameter(int index, float value) const {
    m_effect->setParameter(m_effect, index, value);
}

float VstPlugin::GetParameter(int index) const {
    return m_effect->getParameter(m_effect, index);
}

std::string VstPlugin::NotMorvane() const {
    using MorvaneParameters::kCount;
    bool same = m_effect->numParams == kCount && m_effect->numInputs == 2 &&
                Dispatch(effGetPlugCategory) == kPlugCategOfflineProcess;
    for (int i = 0; same && i < kCount; ++i)
        same = Text(effGetParamName, i) == MorvaneParameters::kNames[i];
    if (same)
        return {};
    const std::string name = Text(effGetEffectName);
    std::string what = name.empty() ? std::string("a plug-in") : "\"" + name + "\"";
    if (const std::string vendor = Text(effGetVendorString); !vendor.empty())
        what += " by " + vendor;
    const bool offline = Dispatch(effGetPlugCategory) == kPlugCategOfflineProcess;
    return m_path + " is not Morvane: it is " + what +
           (offline ? ", an offline processor with other parameters" : ", a real-time effect") +
           "; render needs Morvane's offline processor";
}

std::string VstPlugin::FindMorvane() {
    std::vector<std::string> candidates;
    if (const char* env = std::getenv("MORVANE_PLUGIN"); env && *env) {
        if (!Exists(env))
            throw std::runtime_error(std::string("MORVANE_PLUGIN names ") + env +
                                     ", which does not exist or cannot be read");
        return env;
    }
    const std::string here = ProgramFolder();
    if (!here.empty()) {
        candidates.push_back(here + "../plugin/Morvane.so");  // build tree
        candidates.push_back(here + "../lib/vst/Morvane.so"); // install tree
    }
    if (const char* home = std::getenv("HOME"))
        candidates.push_back(std::string(home) + "/.vst/Morvane.so");
    candidates.push_back("/usr/local/lib/vst/Morvane.so");
    candidates.push_back("/usr/lib/vst/Morvane.so");
    for (const auto& c : candidates)
        if (Exists(c))
            return c;
    return {};
}

std::string VstPlugin::Locate(const std::string& named) {
    if (!named.empty())
        return named;
    std::string found;
    try {
        found = FindMorvane();
    } catch (const std::exception& e) {
        throw PluginError(e.what());
    }
    if (found.empty())
        throw PluginError("the Morvane plug-in was not found; name it with --plugin");
    return found;
}
