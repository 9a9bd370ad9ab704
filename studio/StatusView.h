#pragma once

#include <string>

#include "CWnd.h"

// The window's line of state: a bar that fills with a render's progress, or follows playback
// with a playhead, and a sentence over it ("Rendering in.wav 42 %", "Playing the result 0:03").
class StatusView : public CWnd {
public:
    enum class Mode { Idle, Rendering, Playing, Failed };

    BOOL Create(const CRect& rect, CWnd* parent, UINT id);
    // fraction in 0..1; repaints only when something shown changes.
    void Show(Mode mode, double fraction, const std::string& text);
    const std::string& Text() const { return m_text; }

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnPaint();

private:
    Mode m_mode = Mode::Idle;
    int m_nFill = 0; // pixels of the bar filled
    std::string m_text;
};
