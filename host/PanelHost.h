#pragma once

#include <string>

#include "RenderJob.h"

class VstPlugin;

// `morvane gui`: the plug-in's panel hosted in a window of its own (StudioWindow) through the
// dispatcher, as an audio editor hosts it (opened in the window, idled 30 times a second), with
// the strip around it: programs, engine, files, render, stop, and listening (AudioPlayer).
// Renders run on the window's thread, which keeps handling the window between blocks; between
// renders the plug-in is suspended and resumed, so what the panel says applies to the next one.
class PanelHost {
public:
    PanelHost(VstPlugin& plugin, RenderSettings settings)
        : m_plugin(plugin), m_settings(std::move(settings)) {}
    // Opens with input and output in the strip (either may be empty) and renders at once when
    // render is set. Returns the exit code: 0 when the window was closed, 2 without a display,
    // 130 when it was closed in the middle of a render (nothing partial is left), or the last
    // render's error code.
    int Run(const std::string& input, const std::string& output, bool render);

private:
    VstPlugin& m_plugin;
    RenderSettings m_settings;
};
