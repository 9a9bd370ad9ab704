#pragma once

#include <string>

#include "RenderJob.h"

class VstPlugin;

// `morvane gui`: the plug-in's panel in a window of its own, hosted through the dispatcher as an
// audio editor hosts it (opened in the window, idled 30 times a second). With an input and an
// output it renders once at the start and again on R, the title showing progress; between
// renders the plug-in is suspended and resumed, so settings changed on the panel apply to the
// next one.
class PanelHost {
public:
    PanelHost(VstPlugin& plugin, RenderSettings settings)
        : m_plugin(plugin), m_settings(std::move(settings)) {}
    // Returns the exit code: 0 when the window was closed, 2 without a display, 130 when it was
    // closed in the middle of a render (nothing partial is left), or a render's error code.
    int Run(const std::string& input, const std::string& output);

private:
    VstPlugin& m_plugin;
    RenderSettings m_settings;
};
