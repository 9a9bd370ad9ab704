#include "PanelHost.h"

#include <chrono>
#include <cstdio>

#include "CWnd.h"
#include "CXConnection.h"
#include "MorvaneEngine.h"
#include "VstPlugin.h"

namespace {

// The window the panel is shown in: it asks to close, R asks for a render and E for the other
// engine.
class CHostWindow : public CWnd {
public:
    bool closed = false;
    bool renderAgain = false;
    bool otherEngine = false;
    bool WantsKeys() const override { return true; }

protected:
    DECLARE_MESSAGE_MAP()
    void OnClose() { closed = true; }
    void OnChar(UINT ch, UINT, UINT) {
        if (ch == 'r' || ch == 'R')
            renderAgain = true;
        if (ch == 'e' || ch == 'E')
            otherEngine = true;
    }
};
BEGIN_MESSAGE_MAP(CHostWindow, CWnd)
ON_WM_CLOSE()
ON_WM_CHAR()
END_MESSAGE_MAP()

struct Closed : std::runtime_error {
    Closed() : std::runtime_error("closed") {}
};

std::string BaseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

int PanelHost::Run(const std::string& input, const std::string& output) {
    ERect* rect = nullptr;
    if (!m_plugin.Dispatch(effEditGetRect, 0, 0, &rect) || !rect) {
        return Fail(kExitBadPlugin, "the plug-in has no panel");
    }
    CHostWindow window;
    const CRect r(100, 100, 100 + rect->right - rect->left, 100 + rect->bottom - rect->top);
    if (!window.CreateEx(0, AfxRegisterWndClass(0), "Morvane", WS_POPUP | WS_CAPTION | WS_SYSMENU,
                         r, nullptr, 0)) {
        return Fail(kExitUsage, "no X display to show the panel on (is DISPLAY set?)");
    }
    window.SelectKeys(true);
    window.ShowWindow(SW_SHOW);
    if (!m_plugin.Dispatch(effEditOpen, 0, 0, reinterpret_cast<void*>(window.m_hWnd))) {
        return Fail(kExitBadPlugin, "the plug-in could not open its panel");
    }
    using Clock = std::chrono::steady_clock;
    auto nextIdle = Clock::now();
    // One turn of the host's loop: its own window's events, then the editor's idle call.
    auto turn = [&](bool wait) {
        window.PumpMessages();
        if (Clock::now() >= nextIdle) {
            m_plugin.Dispatch(effEditIdle);
            nextIdle = Clock::now() + std::chrono::milliseconds(33);
        }
        if (wait && window.Connection())
            window.Connection()->Wait(10);
    };

    // The engine is the host's choice, not the panel's: it shows in the title, and E changes it.
    const auto engineName = [&] {
        const VstIntPtr e =
            m_plugin.Dispatch(effVendorSpecific, MorvaneEngine::kTag, MorvaneEngine::kAsk);
        return std::string(e == MorvaneEngine::kCrisp ? "crisp" : "splice") + " engine";
    };
    std::string status = input.empty() ? "" : " (R renders)";
    const auto showTitle = [&] {
        window.SetWindowText(("Morvane: " + engineName() + ", E changes it" + status).c_str());
    };
    showTitle();
    int code = kExitOk;
    bool render = !input.empty();
    while (!window.closed && window.m_hWnd) {
        if (render) {
            render = false;
            const std::string name = BaseName(input);
            try {
                int shown = -1;
                RenderJob(m_settings).RunOn(m_plugin, input, output, [&](double f) {
                    const int percent = static_cast<int>(f * 100);
                    if (percent != shown) {
                        shown = percent;
                        window.SetWindowText(
                            ("Morvane: rendering " + name + " " + std::to_string(percent) + " %")
                                .c_str());
                    }
                    turn(false);
                    if (window.closed || !window.m_hWnd)
                        throw Closed();
                });
                window.SetWindowText(("Morvane: wrote " + BaseName(output) + " with the " +
                                      engineName() + " (R renders again, E changes the engine)")
                                         .c_str());
                status = "; wrote " + BaseName(output) + " (R renders again)";
                code = kExitOk;
            } catch (const Closed&) {
                std::fprintf(stderr, "morvane: the window was closed during the render; no partial "
                                     "output was left\n");
                code = kExitStopped;
                break;
            } catch (const std::exception& e) {
                Fail(e);
                window.SetWindowText("Morvane: the render failed");
                // the files' errors are the files'; any other is the plug-in's
                const ExitCode c = ExitCodeOf(e);
                code = c == kExitBadInput || c == kExitBadOutput ? c : kExitBadPlugin;
            }
        }
        turn(true);
        if (window.otherEngine) {
            window.otherEngine = false;
            const VstIntPtr e =
                m_plugin.Dispatch(effVendorSpecific, MorvaneEngine::kTag, MorvaneEngine::kAsk);
            m_plugin.Dispatch(effVendorSpecific, MorvaneEngine::kTag,
                              e == MorvaneEngine::kCrisp ? MorvaneEngine::kSplice
                                                         : MorvaneEngine::kCrisp);
            showTitle();
        }
        if (window.renderAgain) {
            window.renderAgain = false;
            render = !input.empty();
        }
    }
    m_plugin.Dispatch(effEditClose);
    window.DestroyWindow();
    return code;
}
