// The window library's entry point: `morvane gui` loads morvane-studio.so, which holds the window
// and everything it draws with, so that every other command starts without the window libraries.
// It takes only what the call hands it (MorvaneStudio.h); no exception leaves it.
#include "HostError.h"
#include "MorvaneStudio.h"
#include "PanelHost.h"

extern "C" __attribute__((visibility("default"))) int
MorvaneStudioRun(const MorvaneStudioCall* call) {
    // the version is the first field in every version, so it is read before anything else
    if (!call || call->version != MORVANE_STUDIO_CALL_VERSION)
        return Fail(kExitBadPlugin,
                    "morvane-studio.so takes calls of version " +
                        std::to_string(MORVANE_STUDIO_CALL_VERSION) + ", and this morvane made " +
                        (call ? "one of version " + std::to_string(call->version) : "none") +
                        ": install morvane and its window from one build");
    try {
        return PanelHost(*call->effect, *call->host)
            .Run(call->input ? call->input : "", call->output ? call->output : "",
                 call->renderNow != 0);
    } catch (const std::exception& e) {
        return Fail(kExitBadPlugin, e.what());
    } catch (...) {
        return Fail(kExitBadPlugin, "the window failed");
    }
}
