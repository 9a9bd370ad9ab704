#include "PanelHost.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "AudioPlayer.h"
#include "AudioReader.h"
#include "BaseName.h"
#include "CSjis.h"
#include "CXConnection.h"
#include "MorvaneEngine.h"
#include "OutputFormat.h"
#include "RenderBatch.h"
#include "StudioWindow.h"
#include "VstPlugin.h"

namespace {

using Clock = std::chrono::steady_clock;
using Mode = StatusView::Mode;

constexpr int kPrograms = 64;

// m:ss.d
std::string TimeText(double seconds) {
    char text[32];
    const int tenths = static_cast<int>(std::lround(std::max(0.0, seconds) * 10));
    std::snprintf(text, sizeof text, "%d:%02d.%d", tenths / 600, tenths / 10 % 60, tenths % 10);
    return text;
}

// A file's length in seconds, or 0 when it cannot be read.
double Seconds(const std::string& path) {
    try {
        AudioReader r(path);
        return r.SampleRate() > 0 ? static_cast<double>(r.Frames()) / r.SampleRate() : 0.0;
    } catch (const std::exception&) {
        return 0.0;
    }
}

} // namespace

int PanelHost::Run(const std::string& input, const std::string& output, bool render) {
    ERect* rect = nullptr;
    if (!m_plugin.Dispatch(effEditGetRect, 0, 0, &rect) || !rect) {
        return Fail(kExitBadPlugin, "the plug-in has no panel");
    }
    CWnd::SetClassHint("morvane", "Morvane"); // as the menu entry's StartupWMClass says
    StudioWindow window;
    if (!window.Create(rect->right - rect->left, rect->bottom - rect->top)) {
        return Fail(kExitUsage, "no X display to show the panel on (is DISPLAY set?)");
    }
    window.ShowWindow(SW_SHOW);
    if (!m_plugin.Dispatch(effEditOpen, 0, 0,
                           reinterpret_cast<void*>(window.PanelFrame().m_hWnd))) {
        return Fail(kExitBadPlugin, "the plug-in could not open its panel");
    }
    window.SetFiles(input, output);
    AudioPlayer player;

    auto nextIdle = Clock::now();
    auto nextSync = Clock::now();
    bool closed = false;
    std::string status, programName, title, shownInput = input;
    Mode mode = Mode::Idle;

    const auto engine = [&] {
        return static_cast<int>(
            m_plugin.Dispatch(effVendorSpecific, MorvaneEngine::kTag, MorvaneEngine::kAsk));
    };
    const auto engineName = [&](int e) {
        return std::string(e == MorvaneEngine::kCrisp ? "crisp" : "splice") + " engine";
    };
    const auto show = [&](Mode m, double fraction, const std::string& text) {
        mode = m;
        status = text;
        window.ShowState(m, fraction, text);
    };
    // The title names the state first (a taskbar shows its start), then the program.
    const auto showTitle = [&] {
        const std::string t = "Morvane: " + status + " \xE2\x80\x94 " + programName;
        if (t != title)
            window.SetWindowText((title = t).c_str());
    };
    // The strip follows what the panel does to the programs: copy, revert and save.
    const auto sync = [&] {
        std::vector<std::string> names;
        for (int i = 0; i < kPrograms; ++i) {
            const CString utf8 =
                CheckSJISAndToUFT8(m_plugin.Text(effGetProgramNameIndexed, i, -1).c_str());
            names.emplace_back(static_cast<const char*>(utf8));
        }
        const int current = static_cast<int>(m_plugin.Dispatch(effGetProgram));
        window.SetPrograms(names, current);
        programName = current >= 0 && current < kPrograms
                          ? std::to_string(current + 1) + ": " + names[static_cast<size_t>(current)]
                          : "";
        window.SetEngine(engine());
        if (window.Input() != shownInput && mode != Mode::Playing && mode != Mode::Rendering) {
            shownInput = window.Input();
            show(Mode::Idle, 0, "Ready: F5 renders " + BaseName(shownInput));
        }
        window.SetCanPlayResult(!window.Output().empty() &&
                                std::filesystem::is_regular_file(window.Output()));
        showTitle();
    };
    // One turn of the host's loop: its own window's events, then the editor's idle call.
    const auto turn = [&](bool wait) {
        window.PumpMessages();
        if (Clock::now() >= nextIdle) {
            m_plugin.Dispatch(effEditIdle);
            nextIdle = Clock::now() + std::chrono::milliseconds(33);
        }
        if (wait && window.Connection())
            window.Connection()->Wait(10);
    };

    bool playingResult = false; // what plays, and how long it is
    double playingSeconds = 0;
    const auto play = [&](bool ofResult, double fraction) {
        const std::string path = ofResult ? window.Output() : window.Input();
        if (path.empty() || !std::filesystem::is_regular_file(path)) {
            show(Mode::Failed, 0,
                 ofResult ? "Nothing rendered to play yet: F5 renders"
                          : "No input to play: type its path or drop a file");
            return;
        }
        playingResult = ofResult;
        playingSeconds = Seconds(path);
        player.Play(path, fraction);
    };
    bool noServerSaid = false;
    const auto showPlayback = [&] {
        if (player.Playing()) {
            show(Mode::Playing, player.Position(),
                 std::string(playingResult ? "Playing the result " : "Playing the source ") +
                     TimeText(player.Position() * playingSeconds) + " of " +
                     TimeText(playingSeconds) + "  (F8 or A/B compares at the same point)");
        } else if (const std::string e = player.TakeError(); !e.empty()) {
            // said once; after that the line just says playback is off
            show(Mode::Failed, 0,
                 noServerSaid ? "Playback is off: " + e
                              : "Cannot play: " + e + "; rendering works as before");
            noServerSaid = true;
        } else if (mode == Mode::Playing) {
            show(Mode::Idle, 0, "Stopped playing");
        }
    };

    int code = kExitOk;
    const auto doRender = [&] {
        const std::string in = window.Input(), out = window.Output();
        if (in.empty() || out.empty()) {
            show(Mode::Failed, 0, "Choose an input and an output first (F3, F4, or drop a file)");
            return;
        }
        player.Stop();
        RenderSettings settings = m_settings;
        try {
            RenderBatch::CheckCollisions({{in, out}}, false);
            settings.container = OutputFormat::FromName(out);
        } catch (const std::exception& e) {
            show(Mode::Failed, 0, e.what());
            return;
        }
        const std::string name = BaseName(in);
        shownInput = in;
        const std::string made = engineName(engine());
        window.SetRendering(true);
        std::atomic<bool> stop{false};
        try {
            int shown = -1;
            show(Mode::Rendering, 0, "Rendering " + name + " 0 %");
            showTitle();
            const RenderResult r =
                RenderJob(settings, &stop).RunOn(m_plugin, in, out, [&](double f) {
                    const int percent = static_cast<int>(f * 100);
                    if (percent != shown) {
                        shown = percent;
                        show(Mode::Rendering, f,
                             "Rendering " + name + " " + std::to_string(percent) + " % with the " +
                                 made);
                        showTitle();
                    }
                    turn(false);
                    StudioWindow::Request q;
                    while (window.Take(q)) {
                        closed = closed || q.ask == StudioWindow::Ask::Close;
                        stop = stop || closed || q.ask == StudioWindow::Ask::Stop;
                    }
                    if (!window.m_hWnd)
                        stop = closed = true;
                });
            const double rate = r.sampleRate > 0 ? r.sampleRate : 1;
            show(Mode::Idle, 1,
                 "wrote " + BaseName(out) + " with the " + made + ": " +
                     TimeText(static_cast<double>(r.inputFrames) / rate) + " \xE2\x86\x92 " +
                     TimeText(static_cast<double>(r.outputFrames) / rate) +
                     (r.silencedFrames > 0 ? "; " + r.SilenceNote("the crisp engine (F9)")
                                           : ", F7 plays it"));
            code = kExitOk;
        } catch (const StoppedError&) {
            if (closed)
                code = kExitStopped;
            else
                show(Mode::Idle, 0, "Stopped: nothing was written");
        } catch (const std::exception& e) {
            Fail(e);
            show(Mode::Failed, 0, std::string("The render failed: ") + e.what());
            // the files' errors are the files'; any other is the plug-in's
            const ExitCode c = ExitCodeOf(e);
            code = c == kExitBadInput || c == kExitBadOutput ? c : kExitBadPlugin;
        }
        window.SetRendering(false);
    };

    show(Mode::Idle, 0,
         input.empty() ? "Drop an audio file here, or type its path above"
                       : "Ready: F5 renders " + BaseName(input));
    sync();
    if (render)
        doRender();
    while (!closed && window.m_hWnd) {
        turn(true);
        StudioWindow::Request q;
        while (!closed && window.Take(q)) {
            switch (q.ask) {
            case StudioWindow::Ask::Close:
                closed = true;
                break;
            case StudioWindow::Ask::Render:
                doRender();
                break;
            case StudioWindow::Ask::Stop:
                player.Stop();
                break;
            case StudioWindow::Ask::PlaySource:
            case StudioWindow::Ask::PlayResult: {
                const bool ofResult = q.ask == StudioWindow::Ask::PlayResult;
                const std::string path = ofResult ? window.Output() : window.Input();
                // the button of what is playing stops it
                if (player.Playing() && player.Path() == path)
                    player.Stop();
                else
                    play(ofResult, 0);
                break;
            }
            case StudioWindow::Ask::Compare:
                // the other one at the same point of the music: lengths differ by the
                // time rate, so the point is a share of each
                if (player.Playing())
                    play(!playingResult, player.Position());
                else
                    play(true, 0);
                break;
            case StudioWindow::Ask::Engine:
                m_plugin.Dispatch(effVendorSpecific, MorvaneEngine::kTag, q.value);
                show(Mode::Idle, 0, "The " + engineName(engine()) + " renders next");
                break;
            case StudioWindow::Ask::Program:
                m_plugin.Dispatch(effSetProgram, 0, q.value);
                break;
            }
        }
        if (closed)
            break;
        showPlayback();
        if (Clock::now() >= nextSync) {
            sync();
            nextSync = Clock::now() + std::chrono::milliseconds(250);
        }
    }
    if (code == kExitStopped)
        std::fprintf(stderr, "morvane: the window was closed during the render; no partial "
                             "output was left\n");
    player.Stop();
    m_plugin.Dispatch(effEditClose);
    window.DestroyWindow();
    return code;
}
