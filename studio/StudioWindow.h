#pragma once

#include <deque>
#include <string>
#include <vector>

#include "CButton.h"
#include "CComboBox.h"
#include "CEdit.h"
#include "CFont.h"
#include "CStatic.h"
#include "CWnd.h"
#include "PortalChooser.h"
#include "StatusView.h"
#include "WaveView.h"

// `morvane gui`'s window: the strip a host puts around a plug-in's panel (program, engine, the
// input and output files, render, stop, play and A/B, the state line), the source's and the
// result's waves under it (WaveView), the panel's own place below them, shown whole and
// unscaled, and lines naming every key. The window only collects what the person asks for;
// PanelHost acts on it.
class StudioWindow : public CWnd {
public:
    enum class Ask {
        Render,
        Stop,
        PlaySource,
        PlayResult,
        Compare,
        Engine,
        Program,
        FitLevel,
        Say,
        Seek,      // play value's lane (WaveView::Lane) from the share from of the piece
        Loop,      // loop from..to (shares of the piece), playing value's lane
        ClearLoop, // the loop goes, playback goes on
        Move,      // the playhead by value seconds
        Home,      // the playhead to the start
        End,       // the playhead to the end
        Close
    };
    struct Request {
        Ask ask;
        int value = 0; // the program (0..63), engine, lane or seconds
        double from = 0, to = 0;
        std::string text{}; // what Say puts on the state line
    };

    // A window around a panel of that size; false without a display.
    bool Create(int panelWidth, int panelHeight);
    // The child window the plug-in opens its panel in.
    CWnd& PanelFrame() { return m_panel; }
    WaveView& Waves() { return m_waves; }

    bool Take(Request& request);

    void SetPrograms(const std::vector<std::string>& names, int current);
    void SetEngine(int engine);
    void SetFiles(const std::string& input, const std::string& output);
    std::string Input() const;
    std::string Output() const;
    void SetRendering(bool rendering);
    void SetCanPlayResult(bool can);
    void ShowState(StatusView::Mode mode, double fraction, const std::string& text) {
        m_status.Show(mode, fraction, text);
    }

    bool WantsKeys() const override { return true; }
    BOOL PreTranslateMessage(MSG* msg) override;
    void OnDropFiles(const std::vector<std::string>& paths) override;

    // Where a result of input goes unless the person says otherwise: beside it, named for it.
    static std::string ProposedOutput(const std::string& input);
    static const char* const kKeysHelp[3];

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnPaint();
    void OnClose();
    void OnChar(UINT ch, UINT repeat, UINT flags);
    void OnRender() { Push(Ask::Render); }
    void OnStop() { Push(Ask::Stop); }
    void OnPlaySource() { Push(Ask::PlaySource); }
    void OnPlayResult() { Push(Ask::PlayResult); }
    void OnCompare() { Push(Ask::Compare); }
    void OnProgram() { Push(Ask::Program, m_program.GetCurSel()); }
    void OnEngine() { Push(Ask::Engine, m_engine.GetCurSel() + 1); }
    void OnInputChanged();
    void OnChooseInput() { Choose(true); }
    void OnChooseOutput() { Choose(false); }
    LRESULT OnPortalAnswer(WPARAM, LPARAM);

private:
    void Push(Ask ask, int value = 0, double from = 0, double to = 0) {
        m_requests.push_back({ask, value, from, to});
    }
    void OnPick(int lane, double from, double to);
    // Whether the keyboard is in a control that takes the keys that move the playhead.
    bool KeysInControl() const;
    void StepProgram(int by);
    void OtherEngine();
    // A file dialog for the input (open) or the output (save), starting where the field points:
    // the desktop's own through its portal, or ours where there is none (ChooseHere).
    void Choose(bool input);
    void ChooseHere(bool input);
    std::string StartOf(bool input) const;
    void Chosen(bool input, const std::string& path);
    // Tab and Shift+Tab: the next control that is enabled, the fields' text selected.
    void FocusNext(int direction);

    std::deque<Request> m_requests;
    CFont m_font, m_small;
    CStatic m_programLabel, m_engineLabel, m_inLabel, m_outLabel;
    CComboBox m_program, m_engine;
    CEdit m_in, m_out;
    CButton m_chooseIn, m_chooseOut;
    CButton m_render, m_stop, m_playSource, m_playResult, m_compare;
    StatusView m_status;
    WaveView m_waves;
    CWnd m_panel;
    std::vector<std::string> m_names;
    std::string m_proposed; // the output last proposed for the input, while not typed over
    int m_nStripHeight = 0;
    CRect m_rcPanel; // where the panel is, in the dark band under the waves
    bool m_portalForInput = false;
    PortalChooser m_portal; // last: its question ends before anything it reports to goes
};
