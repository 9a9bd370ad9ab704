// libFuzzer target: any bytes as the user's bank and as the factory bank beside the plug-in,
// loaded by open() as a host opens the effect.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "AMorvane.h"

namespace {

std::string gDir;

VstIntPtr Host(AEffect*, VstInt32 opcode, VstInt32, VstIntPtr, void*, float) {
    if (opcode == audioMasterVersion)
        return 2400;
    if (opcode == audioMasterGetDirectory)
        return reinterpret_cast<VstIntPtr>(gDir.c_str());
    return 0;
}

void Put(const std::string& path, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f) {
        std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (gDir.empty()) {
        char name[] = "/tmp/morvane-fuzz-bank-XXXXXX";
        gDir = std::string(mkdtemp(name)) + "/";
        setenv("XDG_CONFIG_HOME", gDir.c_str(), 1);
        std::atexit([] { std::filesystem::remove_all(gDir); });
    }
    Put(gDir + "Morvane.fxb", data, size); // both the user's and the factory bank
    AMorvane effect(Host);
    effect.open();
    char name[64];
    for (int i = 0; i < AMorvane::kNumPrograms; ++i)
        effect.getProgramNameIndexed(0, i, name);
    effect.ProgramToFactory();
    effect.getParameterDisplay(2, name);
    return 0;
}
