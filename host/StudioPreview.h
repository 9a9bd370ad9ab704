#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "MorvaneStudio.h"
#include "RenderJob.h"

class VstPlugin;

// The previews of `morvane gui`'s window: parts of the input rendered to memory while the result
// plays, so that a change of the panel is heard without a render. They run on a plug-in of their
// own, opened at the first preview from the same file as the panel's, so that they never touch
// the panel's plug-in from another thread; one at a time.
class StudioPreview {
public:
    explicit StudioPreview(RenderSettings settings);
    ~StudioPreview();
    StudioPreview(const StudioPreview&) = delete;
    StudioPreview& operator=(const StudioPreview&) = delete;

    // Throws the host's errors.
    void Run(const MorvaneStudioPreview& request);

    // The input the engines are given before the part heard, so that it sounds as it does in the
    // middle of a whole render.
    static constexpr double kLeadSeconds = 0.3;

private:
    void Apply(const MorvaneStudioPreview& request) const;

    std::mutex m_lock;
    const RenderSettings m_settings;
    std::unique_ptr<VstPlugin> m_plugin;
};
