#pragma once

#include "AEffEditor.h"
#include "AMorvaneView.h"
#include "CKDXBitmap.h"
#include "CWnd.h"

class AMorvane;
class CUIWindow;

// The plug-in's editor as the host drives it: the panel's size before and after it opens, open
// inside the host's window, close, and the idle call that pumps the panel's events and meters.
// It is also the effect's view: what the effect shows reaches the panel while it is open.
class CMorvaneEditor : public AEffEditor, public AMorvaneView {
public:
    // Attaches itself to effect as its editor and its view; the effect deletes it.
    explicit CMorvaneEditor(AMorvane* effect);
    ~CMorvaneEditor() override;

    bool getRect(ERect** rect) override;
    bool open(void* parent) override;
    void close() override;
    void idle() override;
    void draw(ERect* rect) override;
    // The panel while it is open, else null.
    CUIWindow* Panel() const { return m_pPanel; }

    void ShowParameter(int index, float value) override;
    void ShowProgramState() override;
    void ShowMessage(const char* text) override;

private:
    ERect m_rect{};
    CKDXBitmap m_bmpBackground;
    CUIWindow* m_pPanel = nullptr;
    CHostFrame m_frame;
};
