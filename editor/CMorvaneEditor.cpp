#include "CMorvaneEditor.h"

#include "AMorvane.h"
#include "CMessageBox.h"
#include "CResources.h"
#include "CUIWindow.h"

CMorvaneEditor::CMorvaneEditor(AMorvane* effect) : AEffEditor(effect) {
    effect->setEditor(this);
    effect->SetView(this);
    RegisterBuiltInResources();
    // The size comes from the picture's header; it is decoded only when the panel first opens,
    // so that a host creating the effect (to scan it, or to render) pays nothing for the panel.
    int width = 0, height = 0;
    CResources::PictureSize(5000, &width, &height);
    m_rect.top = 0;
    m_rect.left = 0;
    m_rect.bottom = static_cast<VstInt16>(height);
    m_rect.right = static_cast<VstInt16>(width);
}

CMorvaneEditor::~CMorvaneEditor() {
    if (m_pPanel)
        close();
}

bool CMorvaneEditor::getRect(ERect** rect) {
    *rect = &m_rect;
    return true;
}

bool CMorvaneEditor::open(void* parent) {
    if (m_pPanel)
        return true;
    // On X11 the host's view is a window id.
    if (!m_frame.Attach(static_cast<HWND>(reinterpret_cast<uintptr_t>(parent))))
        return false; // no display, or no such window: there is no panel to show
    if (m_bmpBackground.IsEmpty())
        m_bmpBackground.LoadResourceBitmap(5000);
    systemWindow = parent;
    m_frame.SetBounds(CRect(0, 0, m_rect.right, m_rect.bottom));
    m_pPanel = new CUIWindow;
    if (!m_pPanel->MakeWindow(&m_frame, &m_bmpBackground, this)) {
        delete m_pPanel;
        m_pPanel = nullptr;
        m_frame.DestroyWindow();
        systemWindow = nullptr;
        return false;
    }
    m_pPanel->MoveWindow(0, 0, m_bmpBackground.Width(), m_bmpBackground.Height(), TRUE);
    return true;
}

void CMorvaneEditor::close() {
    systemWindow = nullptr;
    if (m_pPanel) {
        CUIWindow* panel = m_pPanel;
        m_pPanel = nullptr; // the effect stops reaching the panel first
        panel->DestroyWindow();
        delete panel;
    }
    m_frame.DestroyWindow();
}

void CMorvaneEditor::idle() {
    if (m_pPanel)
        m_pPanel->idle();
}

void CMorvaneEditor::draw(ERect*) {
    if (m_pPanel)
        m_pPanel->SendMessage(WM_PAINT);
}

void CMorvaneEditor::ShowParameter(int index, float value) {
    if (CUIWindow* panel = m_pPanel)
        panel->UpdateControl(index, value);
}

void CMorvaneEditor::ShowProgramState() {
    if (CUIWindow* panel = m_pPanel)
        panel->UpdateModify();
}

void CMorvaneEditor::ShowMessage(const char* text) {
    AfxMessageBox(text);
}
