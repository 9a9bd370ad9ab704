#pragma once

#include "AEffEditor.h"
#include "CKDXBitmap.h"
#include "CWnd.h"

class CUIWindow;

// The plug-in's editor as the host drives it: the panel's size before and after it opens, open
// inside the host's window, close, and the idle call that pumps the panel's events and meters.
class CMorvaneEditor : public AEffEditor {
public:
    explicit CMorvaneEditor(AudioEffect* effect);
    ~CMorvaneEditor() override;

    bool getRect(ERect** rect) override;
    bool open(void* parent) override;
    void close() override;
    void idle() override;
    void draw(ERect* rect) override;
    // The panel while it is open, else null.
    CUIWindow* Panel() const { return m_pPanel; }

private:
    ERect m_rect{};
    CKDXBitmap m_bmpBackground;
    CUIWindow* m_pPanel = nullptr;
    CHostFrame m_frame;
};
