#include "StudioWindow.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "CDC.h"
#include "CFileDialog.h"
#include "CXConnection.h"
#include "MorvaneEngine.h"

namespace {

enum : UINT {
    kIdProgram = 100,
    kIdEngine,
    kIdIn,
    kIdOut,
    kIdRender,
    kIdStop,
    kIdPlaySource,
    kIdPlayResult,
    kIdCompare,
    kIdStatus,
    kIdPanel,
    kIdChooseIn,
    kIdChooseOut,
    kIdWaves,
};

// Posted from the portal's thread when its answer is in.
constexpr UINT kPortalAnswered = WM_USER + 40;

// The strip's grid: a column of labels, then the controls, rows of one height.
constexpr int kMargin = 10;
constexpr int kLabelWidth = 54;
constexpr int kRow = 24;
constexpr int kGap = 6;
constexpr int kHelpLine = 17;
constexpr int kHelpHeight = 3 * kHelpLine + 6;
// The window is wider than the panel so that the waves have room; the panel keeps its own size
// in a band of the footer's colour, centred.
constexpr int kMinWidth = 820;
constexpr int kBand = 10; // above and below the panel

constexpr COLORREF kFace = RGB(236, 237, 239);
constexpr COLORREF kFooter = RGB(43, 47, 54); // the panel's own header colour
constexpr COLORREF kFooterText = RGB(176, 182, 190);

// What the file dialogs list: the containers morvane reads and writes.
const std::vector<std::string> kAudioExtensions = {"wav",  "wave", "aif",  "aiff", "aifc",
                                                   "flac", "ogg",  "oga",  "opus", "mp3",
                                                   "caf",  "w64",  "rf64", "au",   "snd"};

} // namespace

const char* const StudioWindow::kKeysHelp[3] = {
    "F5 render  \xC2\xB7  Esc stop  \xC2\xB7  F6 play source  \xC2\xB7  F7 play result  \xC2\xB7  "
    "F8 A/B  \xC2\xB7  F9 engine  \xC2\xB7  F10 fit the level",
    "Click a lane: play it from there  \xC2\xB7  drag across it: loop  \xC2\xB7  L clear the loop  "
    "\xC2\xB7  \xE2\x86\x90/\xE2\x86\x92 playhead \xE2\x88\x92/+ 1 s  \xC2\xB7  Home/End start/end",
    "PgUp/PgDn program  \xC2\xB7  F3/F4 type a file  \xC2\xB7  Ctrl+O/Ctrl+S choose one  "
    "\xC2\xB7  Tab next control"};

BEGIN_MESSAGE_MAP(StudioWindow, CWnd)
ON_WM_PAINT()
ON_WM_CLOSE()
ON_WM_CHAR()
ON_BN_CLICKED(kIdRender, OnRender)
ON_BN_CLICKED(kIdStop, OnStop)
ON_BN_CLICKED(kIdPlaySource, OnPlaySource)
ON_BN_CLICKED(kIdPlayResult, OnPlayResult)
ON_BN_CLICKED(kIdCompare, OnCompare)
ON_CBN_SELCHANGE(kIdProgram, OnProgram)
ON_CBN_SELCHANGE(kIdEngine, OnEngine)
ON_EN_CHANGE(kIdIn, OnInputChanged)
ON_BN_CLICKED(kIdChooseIn, OnChooseInput)
ON_BN_CLICKED(kIdChooseOut, OnChooseOutput)
ON_MESSAGE(kPortalAnswered, OnPortalAnswer)
END_MESSAGE_MAP()

bool StudioWindow::Create(int panelWidth, int panelHeight) {
    const int width = std::max(panelWidth, kMinWidth);
    const int right = width - kMargin;
    const int left = kMargin + kLabelWidth;
    int y = kMargin;
    auto row = [&](int x0, int x1) { return CRect(x0, y, x1, y + kRow); };
    const int rowsHeight = kMargin + 5 * (kRow + kGap) + kGap;
    m_nStripHeight = rowsHeight;
    const int panelTop = rowsHeight + WaveView::kHeight + kBand;
    m_rcPanel = CRect((width - panelWidth) / 2, panelTop, (width - panelWidth) / 2 + panelWidth,
                      panelTop + panelHeight);
    const CRect frame(100, 100, 100 + width, 100 + m_rcPanel.bottom + kBand + kHelpHeight);
    if (!CreateEx(0, AfxRegisterWndClass(0), "Morvane", WS_POPUP | WS_CAPTION | WS_SYSMENU, frame,
                  nullptr, 0))
        return false;
    m_font.CreatePointFont(90, "sans-serif");
    m_small.CreatePointFont(80, "sans-serif");
    const DWORD child = WS_CHILD | WS_VISIBLE;

    const int engineLeft = right - 90;
    m_programLabel.Create("Program", child, row(kMargin, left), this);
    m_program.Create(child | WS_TABSTOP | CBS_DROPDOWNLIST, row(left, engineLeft - 62), this,
                     kIdProgram);
    m_engineLabel.Create("Engine", child, row(engineLeft - 52, engineLeft), this);
    m_engine.Create(child | WS_TABSTOP | CBS_DROPDOWNLIST, row(engineLeft, right), this, kIdEngine);
    for (int kind : {MorvaneEngine::kSplice, MorvaneEngine::kCrisp}) // index kind - 1
        m_engine.AddString(MorvaneEngine::kNames[kind]);
    y += kRow + kGap;
    m_inLabel.Create("Input", child, row(kMargin, left), this);
    const int choose = right - 30;
    m_in.Create(child | WS_TABSTOP | ES_AUTOHSCROLL, row(left, choose - 4), this, kIdIn);
    m_chooseIn.Create("\xE2\x80\xA6", child | WS_TABSTOP, row(choose, right), this, kIdChooseIn);
    y += kRow + kGap;
    m_outLabel.Create("Output", child, row(kMargin, left), this);
    m_out.Create(child | WS_TABSTOP | ES_AUTOHSCROLL, row(left, choose - 4), this, kIdOut);
    m_chooseOut.Create("\xE2\x80\xA6", child | WS_TABSTOP, row(choose, right), this, kIdChooseOut);
    y += kRow + kGap + 2;
    m_render.Create("Render", child | WS_TABSTOP | BS_DEFPUSHBUTTON, row(kMargin, kMargin + 80),
                    this, kIdRender);
    m_stop.Create("Stop", child | WS_TABSTOP, row(kMargin + 86, kMargin + 146), this, kIdStop);
    const int play = right - 96 - 6 - 96 - 6 - 56;
    m_playSource.Create("Play source", child | WS_TABSTOP, row(play, play + 96), this,
                        kIdPlaySource);
    m_playResult.Create("Play result", child | WS_TABSTOP, row(play + 102, play + 198), this,
                        kIdPlayResult);
    m_compare.Create("A/B", child | WS_TABSTOP, row(right - 56, right), this, kIdCompare);
    y += kRow + kGap;
    m_status.Create(row(kMargin, right), this, kIdStatus);
    for (CWnd* w : std::initializer_list<CWnd*>{
             &m_programLabel, &m_engineLabel, &m_inLabel, &m_outLabel, &m_program, &m_engine, &m_in,
             &m_out, &m_render, &m_stop, &m_playSource, &m_playResult, &m_compare, &m_status})
        w->SetFont(&m_font, FALSE);
    m_waves.Create(CRect(0, rowsHeight, width, rowsHeight + WaveView::kHeight), this, kIdWaves);
    m_waves.OnPick = [this](int lane, double from, double to) { OnPick(lane, from, to); };
    m_panel.CreateEx(0, AfxRegisterWndClass(0), "", child, m_rcPanel, this, kIdPanel);
    SetCanPlayResult(false);
    SelectKeys(true);
    DragAcceptFiles();
    return true;
}

bool StudioWindow::Take(Request& request) {
    if (m_requests.empty())
        return false;
    request = m_requests.front();
    m_requests.pop_front();
    return true;
}

void StudioWindow::SetPrograms(const std::vector<std::string>& names, int current) {
    if (names != m_names) {
        m_names = names;
        m_program.ResetContent();
        for (size_t i = 0; i < names.size(); ++i)
            m_program.AddString((std::to_string(i + 1) + ": " + names[i]).c_str());
    }
    if (m_program.GetCurSel() != current)
        m_program.SetCurSel(current);
}

void StudioWindow::SetEngine(int engine) {
    if (m_engine.GetCurSel() != engine - 1)
        m_engine.SetCurSel(engine - 1);
}

void StudioWindow::SetFiles(const std::string& input, const std::string& output) {
    m_in.SetWindowText(input.c_str());
    m_proposed = output.empty() ? ProposedOutput(input) : "";
    m_out.SetWindowText(output.empty() ? m_proposed.c_str() : output.c_str());
}

std::string StudioWindow::Input() const {
    CString s;
    m_in.GetWindowText(s);
    return static_cast<const char*>(s);
}

std::string StudioWindow::Output() const {
    CString s;
    m_out.GetWindowText(s);
    return static_cast<const char*>(s);
}

void StudioWindow::SetRendering(bool rendering) {
    m_render.EnableWindow(!rendering);
    m_program.EnableWindow(!rendering);
    m_engine.EnableWindow(!rendering);
    for (CWnd* w : std::initializer_list<CWnd*>{&m_in, &m_out, &m_chooseIn, &m_chooseOut})
        w->EnableWindow(!rendering);
}

void StudioWindow::SetCanPlayResult(bool can) {
    m_playResult.EnableWindow(can);
    m_compare.EnableWindow(can);
}

std::string StudioWindow::ProposedOutput(const std::string& input) {
    const size_t slash = input.rfind('/');
    const size_t dot = input.rfind('.');
    const bool hasExt = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
    const std::string stem = hasExt ? input.substr(0, dot) : input;
    const std::string ext = hasExt ? input.substr(dot) : ".wav";
    return input.empty() ? "" : stem + "-morvane" + ext;
}

void StudioWindow::OnInputChanged() {
    // the output follows the input until the person types one of their own
    if (Output() == m_proposed) {
        m_proposed = ProposedOutput(Input());
        m_out.SetWindowText(m_proposed.c_str());
    }
}

void StudioWindow::OnDropFiles(const std::vector<std::string>& paths) {
    if (!m_in.IsWindowEnabled())
        return; // not while a render runs
    m_in.SetWindowText(paths.front().c_str());
    OnInputChanged();
}

void StudioWindow::Choose(bool input) {
    if (!(input ? m_in : m_out).IsWindowEnabled() || m_portal.Asking())
        return;
    char parent[32];
    std::snprintf(parent, sizeof parent, "x11:%lx", m_hWnd);
    const PortalChooser::Question question{
        input, parent, input ? "Morvane: choose the input" : "Morvane: save the result as",
        StartOf(input), kAudioExtensions};
    // the answer comes back through the window's own queue, which outlives the question
    const std::shared_ptr<CXConnection> connection = Connection()->shared_from_this();
    const HWND window = m_hWnd;
    m_portalForInput = input;
    if (!m_portal.Ask(question,
                      [connection, window] { connection->Post(window, kPortalAnswered, 0, 0); }))
        ChooseHere(input);
}

LRESULT StudioWindow::OnPortalAnswer(WPARAM, LPARAM) {
    PortalChooser::Answer answer;
    const bool input = m_portalForInput;
    if (!m_portal.Take(answer) || !(input ? m_in : m_out).IsWindowEnabled())
        return 0; // not while a render runs
    switch (answer.outcome) {
    case PortalChooser::Outcome::Chosen:
        Chosen(input, answer.path);
        break;
    case PortalChooser::Outcome::NoPortal:
        ChooseHere(input);
        break;
    case PortalChooser::Outcome::Refused:
        m_requests.push_back({Ask::Say, 0, 0, 0,
                              "The file chooser answered " + answer.path +
                                  ", which is not a file on this computer"});
        break;
    case PortalChooser::Outcome::Cancelled:
        break;
    }
    return 0;
}

std::string StudioWindow::StartOf(bool input) const {
    const std::string now = input ? Input() : Output();
    return now.empty() && !input ? Input() : now;
}

void StudioWindow::ChooseHere(bool input) {
    CFileDialog dialog(input, StartOf(input), kAudioExtensions, this);
    if (dialog.DoModal() == IDOK)
        Chosen(input, dialog.GetPathName());
}

void StudioWindow::Chosen(bool input, const std::string& path) {
    (input ? m_in : m_out).SetWindowText(path.c_str());
    if (input)
        OnInputChanged();
    else
        m_proposed.clear(); // the person's own choice, kept when the input changes
}

void StudioWindow::OnPick(int lane, double from, double to) {
    // the keys that move the playhead come to the window from now on
    if (KeysInControl())
        SetFocus();
    if (to > from)
        Push(Ask::Loop, lane, from, to);
    else
        Push(Ask::Seek, lane, from);
}

bool StudioWindow::KeysInControl() const {
    const CWnd* focus = GetFocus();
    return focus == &m_in || focus == &m_out || focus == &m_program || focus == &m_engine;
}

void StudioWindow::StepProgram(int by) {
    const int n = m_program.GetCount();
    if (n == 0 || !m_program.IsWindowEnabled())
        return;
    const int next = (m_program.GetCurSel() + by + n) % n;
    m_program.SetCurSel(next);
    Push(Ask::Program, next);
}

BOOL StudioWindow::PreTranslateMessage(MSG* msg) {
    if (msg->message != WM_KEYDOWN)
        return FALSE;
    auto focusField = [](CEdit& e) {
        e.SetFocus();
        e.SetSel(0, -1);
    };
    // the keys that only ask, wherever the focus is
    static constexpr std::pair<UINT, Ask> kAsks[] = {
        {kKeyF1 + 4, Ask::Render},     {kKeyEscape, Ask::Stop},    {kKeyF1 + 5, Ask::PlaySource},
        {kKeyF1 + 6, Ask::PlayResult}, {kKeyF1 + 7, Ask::Compare}, {kKeyF1 + 9, Ask::FitLevel}};
    for (const auto& [key, ask] : kAsks)
        if (msg->wParam == key) {
            Push(ask);
            return TRUE;
        }
    switch (msg->wParam) {
    case kKeyF1 + 8:
        OtherEngine();
        return TRUE;
    case kKeyF1 + 2:
        focusField(m_in);
        return TRUE;
    case kKeyF1 + 3:
        focusField(m_out);
        return TRUE;
    case kKeyReturn:
    case kKeyEnter: // in a file's field: render, as a dialog's default button would
        if (GetFocus() == &m_in || GetFocus() == &m_out) {
            Push(Ask::Render);
            return TRUE;
        }
        return FALSE;
    case kKeyTab:
        FocusNext(GetKeyState(VK_SHIFT) < 0 ? -1 : 1);
        return TRUE;
    case kKeyO:
    case kKeyS:
        if (GetKeyState(VK_CONTROL) >= 0)
            return FALSE; // the letter, typed
        Choose(msg->wParam == kKeyO);
        return TRUE;
    case kKeyPageUp:
        StepProgram(-1);
        return TRUE;
    case kKeyPageDown:
        StepProgram(1);
        return TRUE;
    case kKeyLeft:
    case kKeyRight:
    case kKeyHome:
    case kKeyEnd:
        if (KeysInControl())
            return FALSE; // the field's or list's own
        Push(msg->wParam == kKeyHome  ? Ask::Home
             : msg->wParam == kKeyEnd ? Ask::End
                                      : Ask::Move,
             msg->wParam == kKeyLeft ? -1 : 1);
        return TRUE;
    default:
        return FALSE;
    }
}

void StudioWindow::FocusNext(int direction) {
    CWnd* const order[] = {&m_program,    &m_engine,     &m_in,     &m_chooseIn,
                           &m_out,        &m_chooseOut,  &m_render, &m_stop,
                           &m_playSource, &m_playResult, &m_compare};
    const int n = static_cast<int>(std::size(order));
    int at = -1;
    for (int i = 0; i < n; ++i)
        if (order[i] == GetFocus())
            at = i;
    for (int step = 1; step <= n; ++step) {
        CWnd* next = order[((at < 0 && direction < 0 ? 0 : at) + direction * step + 2 * n) % n];
        if (next->IsWindowEnabled()) {
            next->SetFocus();
            if (auto* field = dynamic_cast<CEdit*>(next))
                field->SetSel(0, -1);
            return;
        }
    }
}

void StudioWindow::OnChar(UINT ch, UINT, UINT) {
    // the window's own letters, while no field has the keyboard
    if (ch == 'r' || ch == 'R')
        Push(Ask::Render);
    else if (ch == 'e' || ch == 'E')
        OtherEngine();
    else if (ch == 'l' || ch == 'L')
        Push(Ask::ClearLoop);
}

void StudioWindow::OtherEngine() {
    if (!m_engine.IsWindowEnabled())
        return;
    m_engine.SetCurSel(1 - m_engine.GetCurSel());
    OnEngine();
}

void StudioWindow::OnClose() {
    Push(Ask::Close);
}

void StudioWindow::OnPaint() {
    CPaintDC dc(this);
    CRect c;
    GetClientRect(&c);
    dc.FillSolidRect(CRect(0, 0, c.right, m_nStripHeight), kFace);
    dc.FillSolidRect(CRect(0, m_nStripHeight - 1, c.right, m_nStripHeight), RGB(178, 182, 188));
    // the panel's band, and the keys under it
    dc.FillSolidRect(CRect(0, m_rcPanel.top - kBand, c.right, c.bottom), kFooter);
    const CRect help(0, c.bottom - kHelpHeight, c.right, c.bottom);
    dc.FillSolidRect(CRect(0, help.top, c.right, help.top + 1), RGB(56, 61, 69));
    dc.SelectObject(&m_small);
    dc.SetBkMode(TRANSPARENT);
    dc.SetTextColor(kFooterText);
    for (int i = 0; i < 3; ++i)
        dc.ExtTextOut(kMargin, help.top + 4 + i * kHelpLine, ETO_CLIPPED, &help, kKeysHelp[i],
                      static_cast<UINT>(std::string(kKeysHelp[i]).size()));
}
