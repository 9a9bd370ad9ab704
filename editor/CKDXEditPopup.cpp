#include "CKDXEditPopup.h"

#include <cstdio>

#include "CDC.h"

namespace {
const CBrush kLightGrey{RGB(214, 217, 222), false};
}

BEGIN_MESSAGE_MAP(CKDXEditPopup, CWnd)
ON_WM_CREATE()
ON_MESSAGE(0x0A01, OnInputReturn)
ON_MESSAGE(0x0A00, OnInputEscape)
END_MESSAGE_MAP()

BOOL CKDXEditPopup::MakeWindow(CWnd* parent, CWnd* notify, const char* title, DWORD attributes,
                               int digits, CFont* font, bool signFlag) {
    m_pNotify = notify;
    m_nLimit = digits + 1;
    m_bSign = signFlag;
    m_pEditFont = font;
    CDC dc; // the font's character cell, as a display context measures it
    dc.SelectObject(font);
    const CSize a = dc.GetTextExtent("A");
    m_nCharWidth = a.cx;
    m_nCharHeight = a.cy;
    m_nSpinWidth = GetSystemMetrics(SM_CXHSCROLL);
    const char* cls = AfxRegisterWndClass(0, IDC_ARROW, &kLightGrey);
    return CreateEx(0, cls, title, WS_CHILD | attributes, CRect(0, 0, 10, 10), parent, 0);
}

CSize CKDXEditPopup::Layout() const {
    return {m_nLimit * m_nCharWidth + 2 * GetSystemMetrics(SM_CXEDGE) + m_nSpinWidth,
            m_nCharHeight + m_nCharHeight / 2};
}

int CKDXEditPopup::OnCreate(LPCREATESTRUCT cs) {
    if (CWnd::OnCreate(cs) == -1)
        return -1;
    const CSize size = Layout();
    SetWindowPos(nullptr, 0, 0, size.cx, size.cy, SWP_NOMOVE | SWP_NOZORDER);
    if (!CreateField(CRect(0, 0, size.cx - m_nSpinWidth, size.cy)))
        return -1;
    Field().SetLimitText(static_cast<UINT>(m_nLimit));
    Field().SetFont(m_pEditFont);
    m_spin.Create(WS_CHILD | WS_VISIBLE | UDS_ARROWKEYS | UDS_ALIGNRIGHT | UDS_NOTHOUSANDS |
                      UDS_SETBUDDYINT,
                  CRect(size.cx - m_nSpinWidth, 0, size.cx, size.cy), this, kSpinID);
    m_spin.SetBase(10);
    m_spin.SetBuddy(&Field());
    ShowWindow(SW_HIDE);
    return 0;
}

void CKDXEditPopup::ChangeSize(int digits, bool signFlag) {
    m_nLimit = digits + 1;
    SetSingnFlag(signFlag);
    const CSize size = Layout();
    SetWindowPos(nullptr, 0, 0, size.cx, size.cy, SWP_NOMOVE | SWP_NOZORDER);
    Field().SetWindowPos(nullptr, 0, 0, size.cx - m_nSpinWidth, size.cy, SWP_NOZORDER);
    Field().SetLimitText(static_cast<UINT>(m_nLimit));
    m_spin.SetWindowPos(nullptr, size.cx - m_nSpinWidth, 0, m_nSpinWidth, size.cy, SWP_NOZORDER);
}

void CKDXEditPopup::ShowValue(int value, int minimum, int maximum) {
    m_spin.SetRange32(minimum, maximum);
    m_spin.SetPos32(value);
    Field().SetFocus();
    char text[16];
    std::snprintf(text, sizeof(text), "%d", value);
    Field().SetWindowText(text);
    Field().SetSel(0, -1);
}

void CKDXEditPopup::OnReturn() {
    if (m_pNotify)
        m_pNotify->SendMessage(0x0A01, 0, 0);
    ShowWindow(SW_HIDE);
}

void CKDXEditPopup::OnEscape() {
    if (m_pNotify)
        m_pNotify->SendMessage(0x0A00, 0, 0);
    ShowWindow(SW_HIDE);
    if (m_pParent)
        m_pParent->SetFocus();
}

LRESULT CKDXEditPopup::OnInputReturn(WPARAM, LPARAM) {
    OnReturn();
    return 0;
}

LRESULT CKDXEditPopup::OnInputEscape(WPARAM, LPARAM) {
    OnEscape();
    return 0;
}
