#include "StudioRenderer.h"

#include <atomic>
#include <cstdio>

#include "HostError.h"
#include "OutputFormat.h"
#include "RenderBatch.h"
#include "VstPlugin.h"

namespace {

void Copy(const std::string& text, char* to, size_t size) {
    if (to && size > 0)
        std::snprintf(to, size, "%s", text.c_str());
}

void Tell(MorvaneStudioRendered& result, int outcome, int exitCode, const std::string& text) {
    result.outcome = outcome;
    result.exitCode = exitCode;
    Copy(text, result.text, sizeof result.text);
}

} // namespace

StudioRenderer::StudioRenderer(const VstPlugin& plugin, RenderSettings settings)
    : m_plugin(plugin), m_settings(std::move(settings)) {}

int StudioRenderer::OnCheck(void* self, const char* input, const char* output, char* why,
                            size_t size) {
    try {
        static_cast<const StudioRenderer*>(self)->SettingsFor(input, output);
        return kExitOk;
    } catch (const std::exception& e) {
        Copy(e.what(), why, size);
        return ExitCodeOf(e);
    } catch (...) {
        Copy("the files could not be checked", why, size);
        return kExitSomeFailed;
    }
}

void StudioRenderer::OnRender(void* self, const MorvaneStudioRender* request,
                              MorvaneStudioRendered* result) {
    try {
        static_cast<const StudioRenderer*>(self)->Render(*request, *result);
    } catch (...) {
        Tell(*result, MORVANE_STUDIO_FAILED, kExitSomeFailed, "the render failed");
    }
}

int StudioRenderer::OnPreview(void* self, const MorvaneStudioPreview* request, char* why,
                              size_t size) {
    try {
        static_cast<const StudioRenderer*>(self)->m_preview.Run(*request);
        return kExitOk;
    } catch (const std::exception& e) {
        Copy(e.what(), why, size);
        return ExitCodeOf(e);
    } catch (...) {
        Copy("the preview failed", why, size);
        return kExitSomeFailed;
    }
}

RenderSettings StudioRenderer::SettingsFor(const std::string& input,
                                           const std::string& output) const {
    RenderSettings settings = m_settings;
    RenderBatch::CheckCollisions({{input, output}}, false);
    settings.container = OutputFormat::FromName(output);
    return settings;
}

void StudioRenderer::Render(const MorvaneStudioRender& request,
                            MorvaneStudioRendered& result) const {
    std::atomic<bool> stop{false};
    try {
        const RenderResult r =
            RenderJob(SettingsFor(request.input, request.output), &stop)
                .RunOn(m_plugin, request.input, request.output, [&](double fraction) {
                    if (request.progress && !request.progress(request.user, fraction))
                        stop = true;
                });
        result.inputFrames = r.inputFrames;
        result.outputFrames = r.outputFrames;
        result.sampleRate = r.sampleRate;
        result.peak = r.peak;
        Tell(result, MORVANE_STUDIO_WRITTEN, kExitOk,
             r.SilenceNote(request.crispHint ? request.crispHint : "the crisp engine"));
    } catch (const StoppedError& e) {
        Tell(result, MORVANE_STUDIO_STOPPED, e.Code(), e.what());
    } catch (const std::exception& e) {
        Tell(result, MORVANE_STUDIO_FAILED, ExitCodeOf(e), e.what());
    }
}
