#include "PanelHost.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "AudioReader.h"
#include "BaseName.h"
#include "CSjis.h"
#include "CXConnection.h"
#include "HostError.h"
#include "MorvaneEngine.h"
#include "MorvaneParameters.h"

namespace {

constexpr int kPrograms = 64;

std::string EngineName(int engine) {
    return std::string(
               MorvaneEngine::kNames[engine == MorvaneEngine::kCrisp ? MorvaneEngine::kCrisp
                                                                     : MorvaneEngine::kSplice]) +
           " engine";
}

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
    if (const int failed = Open(input, output))
        return failed;
    m_shownInput = input;
    Show(Mode::Idle, 0,
         input.empty() ? "Drop an audio file here, or type its path above"
                       : "Ready: F5 renders " + BaseName(input));
    Sync();
    if (render)
        Render();
    while (!m_closed && m_window.m_hWnd)
        Step();
    Close();
    return m_code;
}

int PanelHost::Open(const std::string& input, const std::string& output) {
    ERect* rect = nullptr;
    if (!Dispatch(effEditGetRect, 0, 0, &rect) || !rect)
        return Fail(kExitBadPlugin, "the plug-in has no panel");
    CWnd::SetClassHint("morvane", "Morvane"); // as the menu entry's StartupWMClass says
    if (!m_window.Create(rect->right - rect->left, rect->bottom - rect->top))
        return Fail(kExitUsage, "no X display to show the panel on (is DISPLAY set?)");
    m_window.ShowWindow(SW_SHOW);
    if (!Dispatch(effEditOpen, 0, 0, reinterpret_cast<void*>(m_window.PanelFrame().m_hWnd)))
        return Fail(kExitBadPlugin, "the plug-in could not open its panel");
    m_window.SetFiles(input, output);
    return kExitOk;
}

void PanelHost::Close() {
    StopPlaying();
    Dispatch(effEditClose);
    m_window.DestroyWindow();
}

void PanelHost::Pump(bool wait) {
    m_window.PumpMessages();
    m_window.Waves().Poll(); // during a render too
    if (Clock::now() >= m_nextIdle) {
        Dispatch(effEditIdle);
        m_nextIdle = Clock::now() + std::chrono::milliseconds(33);
    }
    if (wait && m_window.Connection())
        m_window.Connection()->Wait(10);
}

void PanelHost::Step() {
    Pump(true);
    StudioWindow::Request q;
    while (!m_closed && m_window.Take(q))
        Handle(q);
    if (m_closed)
        return;
    FollowPanel();
    ShowPlayback();
    if (Clock::now() >= m_nextSync) {
        Sync();
        m_nextSync = Clock::now() + std::chrono::milliseconds(250);
    }
}

void PanelHost::Handle(const StudioWindow::Request& q) {
    switch (q.ask) {
    case StudioWindow::Ask::Close:
        m_closed = true;
        break;
    case StudioWindow::Ask::Render:
        Render();
        break;
    case StudioWindow::Ask::Stop:
        StopPlaying();
        break;
    case StudioWindow::Ask::PlaySource:
    case StudioWindow::Ask::PlayResult:
        PlayOrStop(q.ask == StudioWindow::Ask::PlayResult);
        break;
    case StudioWindow::Ask::Compare:
        Compare();
        break;
    case StudioWindow::Ask::Engine:
        ChooseEngine(q.value);
        break;
    case StudioWindow::Ask::Program:
        Dispatch(effSetProgram, 0, q.value);
        break;
    case StudioWindow::Ask::FitLevel:
        FitLevel();
        break;
    case StudioWindow::Ask::Say:
        Show(Mode::Failed, 0, q.text);
        break;
    case StudioWindow::Ask::Seek:
        Play(q.value == WaveView::kResult, q.from);
        break;
    case StudioWindow::Ask::Loop:
        SetLoop({q.from, q.to});
        Play(q.value == WaveView::kResult, q.from);
        break;
    case StudioWindow::Ask::ClearLoop:
        SetLoop({});
        break;
    case StudioWindow::Ask::Move: {
        // a second of what plays, or of the source
        const double seconds = m_player.Playing() ? m_playingSeconds : Seconds(m_window.Input());
        if (seconds > 0)
            MoveTo(m_playhead + q.value / seconds);
        break;
    }
    case StudioWindow::Ask::Home:
        MoveTo(0);
        break;
    case StudioWindow::Ask::End:
        MoveTo(1);
        break;
    }
}

void PanelHost::Sync() {
    SyncPrograms();
    m_window.SetEngine(Engine());
    SyncInput();
    const bool result =
        !m_window.Output().empty() && std::filesystem::is_regular_file(m_window.Output());
    m_window.SetCanPlayResult(result);
    // the lanes follow the files, and a file changed on the disk
    m_window.Waves().SetFile(WaveView::kSource, m_window.Input());
    m_window.Waves().SetFile(WaveView::kResult, result ? m_window.Output() : "");
    ShowTitle();
}

void PanelHost::SyncPrograms() {
    std::vector<std::string> names;
    for (int i = 0; i < kPrograms; ++i)
        names.push_back(ProgramName(i));
    const int current = static_cast<int>(Dispatch(effGetProgram));
    m_window.SetPrograms(names, current);
    m_programName = current >= 0 && current < kPrograms
                        ? std::to_string(current + 1) + ": " + names[static_cast<size_t>(current)]
                        : "";
}

// A new input typed or dropped is what F5 renders next, unless something plays or renders.
void PanelHost::SyncInput() {
    if (m_window.Input() == m_shownInput || m_mode == Mode::Playing || m_mode == Mode::Rendering)
        return;
    m_shownInput = m_window.Input();
    // points of another piece of music
    m_loop = {};
    m_playhead = 0;
    m_window.Waves().SetLoop(0, 0);
    Show(Mode::Idle, 0, "Ready: F5 renders " + BaseName(m_shownInput));
}

void PanelHost::Show(Mode mode, double fraction, const std::string& text) {
    m_mode = mode;
    m_status = text;
    m_window.ShowState(mode, fraction, text);
}

// The title names the state first (a taskbar shows its start), then the program.
void PanelHost::ShowTitle() {
    const std::string title = "Morvane: " + m_status + " \xE2\x80\x94 " + m_programName;
    if (title != m_title)
        m_window.SetWindowText((m_title = title).c_str());
}

void PanelHost::Render() {
    const std::string in = m_window.Input(), out = m_window.Output();
    if (in.empty() || out.empty()) {
        Show(Mode::Failed, 0, "Choose an input and an output first (F3, F4, or drop a file)");
        return;
    }
    StopPlaying();
    char why[4096];
    if (m_host.check(m_host.context, in.c_str(), out.c_str(), why, sizeof why) != kExitOk) {
        Show(Mode::Failed, 0, why);
        return;
    }
    m_shownInput = in;
    m_renderName = BaseName(in);
    m_renderEngine = EngineName(Engine());
    m_shownPercent = -1;
    m_window.SetRendering(true);
    Show(Mode::Rendering, 0, "Rendering " + m_renderName + " 0 %");
    ShowTitle();
    const MorvaneStudioRender request{.input = in.c_str(),
                                      .output = out.c_str(),
                                      .progress = &PanelHost::OnProgress,
                                      .user = this,
                                      .crispHint = "F9 crisp"};
    MorvaneStudioRendered result{};
    const LivePreview::Settings settings = Current();
    m_host.render(m_host.context, &request, &result);
    switch (result.outcome) {
    case MORVANE_STUDIO_WRITTEN:
        m_rendered = settings;
        m_renderedFiles = in + '\n' + out;
        ShowRendered(result, out);
        m_code = kExitOk;
        break;
    case MORVANE_STUDIO_STOPPED:
        if (m_closed) {
            std::fprintf(stderr, "morvane: the window was closed during the render; no partial "
                                 "output was left\n");
            m_code = kExitStopped;
        } else {
            Show(Mode::Idle, 0, "Stopped: nothing was written");
        }
        break;
    default: {
        Fail(kExitBadPlugin, result.text);
        Show(Mode::Failed, 0, std::string("The render failed: ") + result.text);
        // the files' errors are the files'; any other is the plug-in's
        const int c = result.exitCode;
        m_code = c == kExitBadInput || c == kExitBadOutput ? c : kExitBadPlugin;
        break;
    }
    }
    m_window.SetRendering(false);
}

int PanelHost::OnProgress(void* self, double fraction) {
    return static_cast<PanelHost*>(self)->Progress(fraction);
}

bool PanelHost::Progress(double fraction) {
    if (const int percent = static_cast<int>(fraction * 100); percent != m_shownPercent) {
        m_shownPercent = percent;
        Show(Mode::Rendering, fraction,
             "Rendering " + m_renderName + " " + std::to_string(percent) + " % with the " +
                 m_renderEngine);
        ShowTitle();
    }
    Pump(false);
    // the first Stop or Close ends the render; what came after it waits for the window's loop
    StudioWindow::Request q;
    while (m_window.Take(q)) {
        if (q.ask == StudioWindow::Ask::Close)
            m_closed = true;
        if (q.ask == StudioWindow::Ask::Close || q.ask == StudioWindow::Ask::Stop)
            return false;
    }
    if (!m_window.m_hWnd)
        m_closed = true;
    return !m_closed;
}

void PanelHost::ShowRendered(const MorvaneStudioRendered& r, const std::string& output) {
    const double rate = r.sampleRate > 0 ? r.sampleRate : 1;
    m_clipPeak = r.peak;
    m_window.Waves().SetFile(WaveView::kResult, output, true);
    if (r.peak > 1.0f) {
        char text[160];
        std::snprintf(text, sizeof(text), "wrote %s with the %s: clips %.1f dB, F10 fits it",
                      BaseName(output).c_str(), m_renderEngine.c_str(), 20 * std::log10(r.peak));
        Show(Mode::Idle, 1, text);
        return;
    }
    // silent gaps the splice engine left by design: said in their place, the line being short
    if (r.text[0])
        Show(Mode::Idle, 1, "wrote " + BaseName(output) + " with " + r.text);
    else
        Show(Mode::Idle, 1,
             "wrote " + BaseName(output) + " with the " + m_renderEngine + ": " +
                 TimeText(static_cast<double>(r.inputFrames) / rate) + " \xE2\x86\x92 " +
                 TimeText(static_cast<double>(r.outputFrames) / rate) + ", F7 plays it");
}

void PanelHost::PlayOrStop(bool ofResult) {
    const std::string path = ofResult ? m_window.Output() : m_window.Input();
    if (m_player.Playing() && m_player.Path() == path)
        m_player.Stop();
    else
        Play(ofResult, m_playhead);
}

// The other one at the same point of the music: lengths differ by the time rate, so the point
// is a share of each, and so is the loop.
void PanelHost::Compare() {
    if (m_player.Playing())
        Play(!m_playingResult, m_player.Position());
    else
        Play(true, m_playhead);
}

void PanelHost::Play(bool ofResult, double fraction) {
    const std::string path = ofResult ? m_window.Output() : m_window.Input();
    const std::optional<LivePreview::Settings> rendered = Rendered();
    // a result whose settings have changed since it was rendered plays as they are now
    if (ofResult && rendered && *rendered != Current() && PlayPreview(Current(), fraction, false))
        return;
    if (path.empty() || !std::filesystem::is_regular_file(path)) {
        Show(Mode::Failed, 0,
             ofResult ? "Nothing rendered to play yet: F5 renders"
                      : "No input to play: type its path or drop a file");
        return;
    }
    m_playingResult = ofResult;
    m_playingSeconds = Seconds(path);
    m_previewing.reset();
    // a result made elsewhere is taken as made with the panel as it is when first played
    if (ofResult && !rendered) {
        m_rendered = Current();
        m_renderedFiles = m_window.Input() + '\n' + m_window.Output();
    }
    m_heard = ofResult ? std::optional(m_rendered) : std::nullopt;
    m_playhead = std::clamp(fraction, 0.0, 1.0);
    m_player.Play(path, m_playhead, m_loop);
}

void PanelHost::MoveTo(double fraction) {
    fraction = std::clamp(fraction, 0.0, 1.0);
    if (m_player.Playing() && fraction < 1)
        Play(m_playingResult, fraction);
    else {
        StopPlaying(); // the end: nothing left to hear
        m_playhead = fraction;
        Show(Mode::Idle, 0,
             "Playhead at " + TimeText(fraction * Seconds(m_window.Input())) +
                 " of the source: F6 and F7 play from there");
    }
}

// A loop chosen while one file plays is heard at once, from where it plays.
void PanelHost::SetLoop(AudioPlayer::Loop loop) {
    m_loop = loop.Active() ? loop : AudioPlayer::Loop{};
    m_window.Waves().SetLoop(m_loop.from, m_loop.to);
    if (!m_loop.Active() && m_player.Playing())
        Play(m_playingResult, m_player.Position());
    else if (!m_loop.Active())
        Show(Mode::Idle, 0, "The loop is cleared");
}

void PanelHost::StopPlaying() {
    m_player.Stop();
    m_preview.Stop();
    m_previewing.reset();
}

LivePreview::Settings PanelHost::Current() const {
    LivePreview::Settings now;
    for (int i = 0; i < MORVANE_STUDIO_PARAMETERS; ++i)
        now.parameters[i] = m_effect.getParameter(&m_effect, i);
    now.engine = Engine();
    return now;
}

std::optional<LivePreview::Settings> PanelHost::Rendered() const {
    if (m_renderedFiles != m_window.Input() + '\n' + m_window.Output())
        return std::nullopt;
    return m_rendered;
}

bool PanelHost::PlayPreview(const LivePreview::Settings& settings, double fraction, bool across) {
    const std::string input = m_window.Input();
    const bool loop = m_loop.Active();
    std::shared_ptr<PreviewStream> stream = m_preview.Start(
        input, settings, fraction, loop ? m_loop.from : -1.0, loop ? m_loop.to : -1.0);
    if (!stream)
        return false;
    if (across) {
        if (!m_player.CrossTo(stream)) {
            m_preview.Stop();
            return false;
        }
    } else {
        m_player.Play(stream, m_window.Output());
        m_playhead = std::clamp(fraction, 0.0, 1.0);
    }
    m_previewing = stream;
    m_playingResult = true;
    m_heard = settings;
    m_playingSeconds = static_cast<double>(stream->SourceFrames()) * settings.TimeRate() /
                       std::max(stream->Rate(), 1);
    return true;
}

void PanelHost::FollowPanel() {
    if (!m_playingResult || !m_heard || !m_player.Playing())
        return;
    const LivePreview::Settings now = Current();
    if (now != *m_heard)
        PlayPreview(now, m_player.Position(), true);
}

void PanelHost::ShowPlayback() {
    const bool playing = m_player.Playing();
    // where the music is; a file played to its end is heard next from the start (of the loop)
    const double heard = m_player.Position();
    if (playing)
        m_playhead = heard;
    else if (m_mode == Mode::Playing && heard >= 1.0)
        m_playhead = m_loop.Active() ? m_loop.from : 0.0;
    m_window.Waves().SetPlayhead(
        m_playhead, playing ? (m_playingResult ? WaveView::kResult : WaveView::kSource) : -1);
    if (playing) {
        const std::string what = !m_playingResult ? "Playing the source "
                                 : m_previewing   ? "Previewing the result "
                                                  : "Playing the result ";
        const std::string loop =
            m_loop.Active()
                ? ", looping " + TimeText(m_loop.from * m_playingSeconds) + "\xE2\x80\x93" +
                      TimeText(m_loop.to * m_playingSeconds) +
                      (m_previewing ? " as set now: F5 renders it" : " (L ends the loop)")
            : m_previewing ? ", as set now: F5 renders it"
                           : "  (F8 or A/B compares at the same point)";
        Show(Mode::Playing, heard,
             what + TimeText(heard * m_playingSeconds) + " of " + TimeText(m_playingSeconds) +
                 loop);
    } else if (const std::string e = m_player.TakeError(); !e.empty()) {
        // said once; after that the line just says playback is off
        Show(Mode::Failed, 0,
             m_noServerSaid ? "Playback is off: " + e
                            : "Cannot play: " + e + "; rendering works as before");
        m_noServerSaid = true;
        m_previewing.reset();
    } else if (m_previewing && !m_previewing->Error().empty()) {
        Show(Mode::Failed, 0, "The preview failed: " + m_previewing->Error());
        m_previewing.reset();
    } else if (m_mode == Mode::Playing) {
        Show(Mode::Idle, 0, "Stopped playing");
    }
}

int PanelHost::Engine() const {
    return static_cast<int>(Dispatch(effVendorSpecific, MorvaneEngine::kTag, MorvaneEngine::kAsk));
}

void PanelHost::ChooseEngine(int engine) {
    Dispatch(effVendorSpecific, MorvaneEngine::kTag, engine);
    Show(Mode::Idle, 0, "The " + EngineName(Engine()) + " renders next");
}

// The plug-in's names are Shift-JIS where they are not ASCII; the window shows UTF-8. Room is
// generous because plug-ins overrun the old limits.
std::string PanelHost::ProgramName(int index) const {
    std::vector<char> name(1024, 0);
    Dispatch(effGetProgramNameIndexed, index, -1, name.data());
    name.back() = 0;
    return static_cast<const char*>(CheckSJISAndToUFT8(name.data()));
}

// The Output fader lowered, through the parameter as a host sets it, by what the last result
// went beyond full scale, and a hair more so that the next render stays below it.
void PanelHost::FitLevel() {
    using namespace MorvaneParameters;
    if (!(m_clipPeak > 1.0f)) {
        Show(Mode::Idle, 0, "The last result does not clip: the level stays");
        return;
    }
    constexpr double kMargin = 0.9999;
    const double before = HostToGain(m_effect.getParameter(&m_effect, kOutput));
    const double after = std::max(kGainMin, before / m_clipPeak * kMargin);
    m_effect.setParameter(&m_effect, kOutput, GainToHost(after));
    m_clipPeak = 0;
    char text[120];
    std::snprintf(text, sizeof(text), "Output lowered by %.1f dB to %.1f dB: F5 renders again",
                  GainToDb(before) - GainToDb(after), GainToDb(after));
    Show(Mode::Idle, 0, text);
}

VstIntPtr PanelHost::Dispatch(VstInt32 opcode, VstInt32 index, VstIntPtr value, void* ptr) const {
    return m_effect.dispatcher(&m_effect, opcode, index, value, ptr, 0);
}
