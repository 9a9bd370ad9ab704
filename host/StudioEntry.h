#pragma once

#include <cstddef>
#include <string>

class VstPlugin;
struct RenderSettings;

// The window library's entry point: PanelHost's Run on plugin, opened with settings. Throws as
// PanelHost does.
extern "C" int MorvaneStudioRun(VstPlugin& plugin, const RenderSettings& settings,
                                const std::string& input, const std::string& output, bool renderNow,
                                size_t settingsSize);
using MorvaneStudioEntry = decltype(&MorvaneStudioRun);
