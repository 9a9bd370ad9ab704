#include "CButton.h"

#include "CDC.h"
#include "CXConnection.h"

BEGIN_MESSAGE_MAP(CButton, CWnd)
ON_WM_PAINT()
ON_WM_LBUTTONDOWN()
ON_WM_MOUSEMOVE()
ON_WM_LBUTTONUP()
END_MESSAGE_MAP()

BOOL CButton::Create(const char* caption, DWORD style, const CRect& rect, CWnd* parent, UINT id) {
    return CreateEx(0, AfxRegisterWndClass(0, IDC_ARROW, GetStockObject(HOLLOW_BRUSH)), caption,
                    style, rect, parent, id);
}

void CButton::Click() {
    if (IsWindowEnabled())
        NotifyParent(BN_CLICKED);
}

LRESULT CButton::DefWindowProc(UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_CHAR && (wParam == ' ' || wParam == kCharReturn)) {
        Click();
        return 0;
    }
    return CWnd::DefWindowProc(message, wParam, lParam);
}

void CButton::OnPaint() {
    CPaintDC dc(this);
    CRect c;
    GetClientRect(&c);
    const bool def = GetStyle() & BS_DEFPUSHBUTTON;
    const bool focused = m_pConn && m_pConn->Focus() == this;
    const COLORREF face = m_bDown ? (def ? RGB(40, 96, 180) : RGB(206, 209, 214))
                                  : (def ? RGB(58, 120, 214) : RGB(246, 247, 248));
    // a parent-coloured corner under the rounded edge
    dc.FillSolidRect(c, RGB(236, 237, 239));
    CRect body = c;
    body.InflateRect(0, 0);
    dc.FillSolidRect(CRect(body.left + 1, body.top, body.right - 1, body.bottom), face);
    dc.FillSolidRect(CRect(body.left, body.top + 1, body.right, body.bottom - 1), face);
    const COLORREF edge =
        def ? RGB(36, 84, 160) : (focused ? RGB(58, 120, 214) : RGB(150, 154, 160));
    dc.FillSolidRect(CRect(body.left + 1, body.top, body.right - 1, body.top + 1), edge);
    dc.FillSolidRect(CRect(body.left + 1, body.bottom - 1, body.right - 1, body.bottom), edge);
    dc.FillSolidRect(CRect(body.left, body.top + 1, body.left + 1, body.bottom - 1), edge);
    dc.FillSolidRect(CRect(body.right - 1, body.top + 1, body.right, body.bottom - 1), edge);
    dc.SelectObject(m_pFont);
    dc.SetBkMode(TRANSPARENT);
    dc.SetTextColor(!IsWindowEnabled() ? RGB(150, 150, 150)
                    : def              ? RGB(255, 255, 255)
                                       : RGB(24, 24, 24));
    const CSize t = dc.GetTextExtent(m_strText.c_str());
    dc.ExtTextOut((c.Width() - t.cx) / 2, (c.Height() - t.cy) / 2 + (m_bDown ? 1 : 0), ETO_CLIPPED,
                  &c, m_strText.c_str(), static_cast<UINT>(m_strText.size()));
}

void CButton::OnLButtonDown(UINT, CPoint) {
    if (!IsWindowEnabled())
        return;
    m_bDown = m_bTracking = true;
    SetCapture();
    Invalidate();
}

void CButton::OnMouseMove(UINT, CPoint point) {
    if (!m_bTracking)
        return;
    CRect c;
    GetClientRect(&c);
    if (c.PtInRect(point) != m_bDown) {
        m_bDown = c.PtInRect(point);
        Invalidate();
    }
}

void CButton::OnLButtonUp(UINT, CPoint point) {
    if (!m_bTracking)
        return;
    m_bTracking = false;
    ReleaseCapture();
    CRect c;
    GetClientRect(&c);
    m_bDown = false;
    Invalidate();
    if (c.PtInRect(point))
        Click();
}
