// libFuzzer target: any bytes as a bank or a program chunk from a host, through the dispatcher,
// then the effect's names, displays and chunks read back.
#include <cstdint>
#include <cstring>
#include <vector>

#include "FuzzEffect.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    AMorvane* effect = &FuzzEffect();
    AEffect* a = effect->getAeffect();
    if (size < 1)
        return 0;
    // first byte: program chunk or bank, and a size that may lie (hosts do)
    const bool preset = data[0] & 1;
    const VstIntPtr claimed = (data[0] & 2)
                                  ? static_cast<VstIntPtr>(size - 1)
                                  : static_cast<VstIntPtr>(std::min<size_t>(size - 1, 48));
    std::vector<uint8_t> chunk(data + 1, data + size); // exactly what the host owns
    a->dispatcher(a, effSetChunk, preset ? 1 : 0, claimed, chunk.data(), 0);
    char text[256];
    for (int p = 0; p < AMorvane::kNumPrograms; ++p)
        a->dispatcher(a, effGetProgramNameIndexed, p, 0, text, 0);
    for (int i = 0; i < 5; ++i)
        a->dispatcher(a, effGetParamDisplay, i, 0, text, 0);
    void* out = nullptr;
    const VstIntPtr n = a->dispatcher(a, effGetChunk, 0, 0, &out, 0);
    if (n != 3072 || !out)
        __builtin_trap();
    return 0;
}
