#pragma once

#include <string>

#include "MorvaneStudio.h"
#include "RenderJob.h"
#include "StudioPreview.h"

class VstPlugin;

// The host's side of the window of `morvane gui` (MorvaneStudio.h): the files checked and
// rendered as `morvane render` does, with the plug-in the window hosts and the command line's
// settings. Renders run here, in the executable, whose signal handlers clear their temporary
// files. Lives as long as the window it was given to.
class StudioRenderer {
public:
    StudioRenderer(const VstPlugin& plugin, RenderSettings settings);
    StudioRenderer(const StudioRenderer&) = delete;
    StudioRenderer& operator=(const StudioRenderer&) = delete;

    const MorvaneStudioHost* Host() const { return &m_host; }

private:
    // The table's functions: no exception leaves them.
    static int OnCheck(void* self, const char* input, const char* output, char* why, size_t size);
    static void OnRender(void* self, const MorvaneStudioRender* request,
                         MorvaneStudioRendered* result);
    static int OnPreview(void* self, const MorvaneStudioPreview* request, char* why, size_t size);

    // The settings for output from input; throws UsageError when the pair is refused.
    RenderSettings SettingsFor(const std::string& input, const std::string& output) const;
    void Render(const MorvaneStudioRender& request, MorvaneStudioRendered& result) const;

    const VstPlugin& m_plugin;
    const RenderSettings m_settings;
    mutable StudioPreview m_preview{m_settings};
    const MorvaneStudioHost m_host{
        .context = this, .check = &OnCheck, .render = &OnRender, .preview = &OnPreview};
};
