#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "AEffect.h"
#include "AudioPlayer.h"
#include "LivePreview.h"
#include "MorvaneStudio.h"
#include "StudioWindow.h"

// `morvane gui`: the plug-in's panel hosted in a window of its own (StudioWindow) through the
// dispatcher, as an audio editor hosts it (opened in the window, idled 30 times a second), with
// the strip around it: programs, engine, files, render, stop, and listening (AudioPlayer).
// Renders run on the window's thread, which keeps handling the window between blocks; between
// renders the plug-in is suspended and resumed, so what the panel says applies to the next one.
// The renders themselves are the host's (MorvaneStudioHost). While the result plays, a change of
// the panel is heard at once, from the same point, rendered to memory as it plays (LivePreview);
// the result as set now is what plays until the next render writes it.
class PanelHost {
public:
    PanelHost(AEffect& effect, const MorvaneStudioHost& host) : m_effect(effect), m_host(host) {}
    // Opens with input and output in the strip (either may be empty) and renders at once when
    // render is set. Returns the exit code: 0 when the window was closed, 2 without a display,
    // 130 when it was closed in the middle of a render (nothing partial is left), or the last
    // render's error code.
    int Run(const std::string& input, const std::string& output, bool render);

private:
    using Clock = std::chrono::steady_clock;
    using Mode = StatusView::Mode;

    // The window with the panel in it, or the exit code saying why there is none.
    int Open(const std::string& input, const std::string& output);
    void Close();
    // One turn of the host's loop: its own window's events, then the editor's idle call.
    void Pump(bool wait);
    // One pass of the window's loop: events, what the person asked, the state line.
    void Step();
    void Handle(const StudioWindow::Request& request);

    // The strip follows what the panel does to the programs: copy, revert and save.
    void Sync();
    void SyncPrograms();
    void SyncInput();
    void Show(Mode mode, double fraction, const std::string& text);
    void ShowTitle();

    void Render();
    // Between the render's blocks: its share on the line, the window handled; false to stop.
    static int OnProgress(void* self, double fraction);
    bool Progress(double fraction);
    void ShowRendered(const MorvaneStudioRendered& result, const std::string& output);

    // The button of what is playing stops it; the other one starts it, from the playhead.
    void PlayOrStop(bool ofResult);
    void Compare();
    // Plays from a point of the music (a share of the file), repeating the loop.
    void Play(bool ofResult, double fraction);
    void StopPlaying();
    // The playhead moved by the person: what plays goes on from there.
    void MoveTo(double fraction);
    void SetLoop(AudioPlayer::Loop loop);
    void ShowPlayback();

    // What the panel has set now, as a preview takes it.
    LivePreview::Settings Current() const;
    // The settings the output file was made with, when this window rendered it.
    std::optional<LivePreview::Settings> Rendered() const;
    // The result as the panel is set now, from a share of the music on: in place of what plays,
    // or crossing over to it when across is set. False when the input cannot be read.
    bool PlayPreview(const LivePreview::Settings& settings, double fraction, bool across);
    // While the result plays, a change of the panel crosses over to a preview of it.
    void FollowPanel();

    int Engine() const;
    void ChooseEngine(int engine);
    void FitLevel();
    std::string ProgramName(int index) const;
    VstIntPtr Dispatch(VstInt32 opcode, VstInt32 index = 0, VstIntPtr value = 0,
                       void* ptr = nullptr) const;

    AEffect& m_effect;
    const MorvaneStudioHost& m_host;
    StudioWindow m_window;
    LivePreview m_preview{m_host};
    AudioPlayer m_player; // after the window: stopped before the window goes

    Clock::time_point m_nextIdle{}, m_nextSync{};
    Mode m_mode = Mode::Idle;
    std::string m_status, m_programName, m_title, m_shownInput;
    bool m_closed = false;
    int m_code = 0; // the status morvane ends with

    // the render that runs: its input's name, its engine's, the percentage shown
    std::string m_renderName, m_renderEngine;
    int m_shownPercent = -1;
    float m_clipPeak = 0; // the last result's, beyond 1 when it clipped

    bool m_playingResult = false; // what plays, and how long it is
    double m_playingSeconds = 0;
    // the last render's settings, and the input and output it was of
    LivePreview::Settings m_rendered;
    std::string m_renderedFiles;
    // what the result that plays was made with, and the preview that plays when it is one
    std::optional<LivePreview::Settings> m_heard;
    std::shared_ptr<PreviewStream> m_previewing;
    // The point of the music heard, or where playback starts next; the loop, on both files at
    // the same points of the music
    double m_playhead = 0;
    AudioPlayer::Loop m_loop;
    bool m_noServerSaid = false;
};
