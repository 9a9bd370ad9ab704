// The exported entry point. Linux hosts look for VSTPluginMain, and many fall back to "main".
#include "AMorvane.h"

AudioEffect* createEffectInstance(audioMasterCallback audioMaster) {
    if (!audioMaster)
        return nullptr;
    return new AMorvane(audioMaster); // its panel comes from Morvane.panel when asked for
}

extern "C" {

__attribute__((visibility("default"))) AEffect* VSTPluginMain(audioMasterCallback audioMaster) {
    // A host that does not answer the version request predates VST 2.
    if (!audioMaster || audioMaster(nullptr, audioMasterVersion, 0, 0, nullptr, 0) == 0)
        return nullptr;
    AudioEffect* effect = createEffectInstance(audioMaster);
    return effect ? effect->getAeffect() : nullptr;
}

// The same entry under the old name "main", which hosts (and Debian's own plug-ins) still use.
// C++ reserves that name, so the alias is made at the assembler level.
__attribute__((visibility("default"), alias("VSTPluginMain"))) AEffect*
VSTPluginMainAlias(audioMasterCallback audioMaster) __asm__("main");
}
