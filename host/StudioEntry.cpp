// The window library's entry point: `morvane gui` loads morvane-studio.so, which holds the window
// and everything it draws with, so that every other command starts without the window libraries.
// The host's own code (plug-in, render, files) comes from the morvane executable itself.
#include <cstddef>
#include <string>

#include "PanelHost.h"
#include "RenderJob.h"
#include "StudioEntry.h"
#include "VstPlugin.h"

extern "C" __attribute__((visibility("default"))) int
MorvaneStudioRun(VstPlugin& plugin, const RenderSettings& settings, const std::string& input,
                 const std::string& output, bool renderNow, size_t settingsSize) {
    if (settingsSize != sizeof(RenderSettings))
        throw PluginError("morvane-studio.so belongs to another version of morvane");
    return PanelHost(plugin, settings).Run(input, output, renderNow);
}
