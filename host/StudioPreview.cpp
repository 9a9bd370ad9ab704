#include "StudioPreview.h"

#include "HostError.h"
#include "MorvaneEngine.h"
#include "MorvaneParameters.h"
#include "VstPlugin.h"

using namespace MorvaneParameters;

static_assert(MORVANE_STUDIO_PARAMETERS == kCount);

namespace {

// Small blocks: the first output comes soon, and a stop is taken soon.
constexpr int kBlock = 2048;

} // namespace

StudioPreview::StudioPreview(RenderSettings settings) : m_settings(std::move(settings)) {}

StudioPreview::~StudioPreview() = default;

void StudioPreview::Apply(const MorvaneStudioPreview& request) const {
    const VstPlugin& p = *m_plugin;
    if (request.engine == MorvaneEngine::kSplice || request.engine == MorvaneEngine::kCrisp)
        p.Dispatch(effVendorSpecific, MorvaneEngine::kTag, request.engine);
    // Time at its lowest first, so that no pair on the way breaks the bound on time x pitch.
    p.SetParameter(kTime, static_cast<float>(kRateMin));
    for (int i : {kOnOff, kOutput, kPitch, kLowSound, kTime})
        p.SetParameter(i, request.parameters[i]);
}

void StudioPreview::Run(const MorvaneStudioPreview& request) {
    std::lock_guard lock(m_lock);
    if (!m_plugin) {
        try {
            m_plugin = std::make_unique<VstPlugin>(m_settings.pluginPath);
        } catch (const std::exception& e) {
            throw PluginError(e.what());
        }
        m_plugin->Dispatch(effOpen);
    }
    Apply(request);
    RenderSettings settings = m_settings;
    settings.blockSize = kBlock;
    RenderJob(settings).RunExcerpt(
        *m_plugin, request.input, request.from, request.to, kLeadSeconds,
        [&](const float* left, const float* right, sf_count_t n, sf_count_t) {
            return request.deliver(request.user, left, right, static_cast<int>(n)) != 0;
        });
}
