#include "CSpinButtonCtrl.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "CDC.h"
#include "CEdit.h"
#include "CXConnection.h"

BEGIN_MESSAGE_MAP(CSpinButtonCtrl, CWnd)
ON_WM_PAINT()
ON_WM_LBUTTONDOWN()
ON_WM_LBUTTONUP()
END_MESSAGE_MAP()

BOOL CSpinButtonCtrl::Create(DWORD style, const CRect& rect, CWnd* parent, UINT id) {
    return CreateEx(0, AfxRegisterWndClass(0, IDC_ARROW, GetStockObject(LTGRAY_BRUSH)), "", style,
                    rect, parent, id);
}

CWnd* CSpinButtonCtrl::SetBuddy(CWnd* buddy) {
    CWnd* old = std::exchange(m_pBuddy, buddy);
    if (auto* edit = dynamic_cast<CEdit*>(buddy); edit && (GetStyle() & UDS_ARROWKEYS))
        edit->AttachSpin(this);
    return old;
}

void CSpinButtonCtrl::SetRange32(int lower, int upper) {
    m_nLower = lower;
    m_nUpper = upper;
}

void CSpinButtonCtrl::GetRange32(int& lower, int& upper) const {
    lower = m_nLower;
    upper = m_nUpper;
}

int CSpinButtonCtrl::SetPos32(int pos) {
    const int lo = std::min(m_nLower, m_nUpper), hi = std::max(m_nLower, m_nUpper);
    const int old = m_nPos;
    m_nPos = std::clamp(pos, lo, hi);
    WriteBuddy();
    return old;
}

void CSpinButtonCtrl::WriteBuddy() {
    if (!m_pBuddy || !(GetStyle() & UDS_SETBUDDYINT))
        return;
    char text[32];
    if (m_nBase == 16)
        std::snprintf(text, sizeof(text), "0x%X", static_cast<unsigned>(m_nPos));
    else
        std::snprintf(text, sizeof(text), "%d", m_nPos);
    m_pBuddy->SetWindowText(text);
}

void CSpinButtonCtrl::Step(int direction) {
    if (m_pBuddy && (GetStyle() & UDS_SETBUDDYINT)) {
        // the buddy may have been typed into: start from what it says, when it is a number
        char text[64] = {};
        m_pBuddy->GetWindowText(text, sizeof(text));
        char* end = nullptr;
        const long v = std::strtol(text, &end, m_nBase);
        if (end != text && *end == 0)
            m_nPos = static_cast<int>(std::clamp<long>(v, INT32_MIN, INT32_MAX));
    }
    // the range may run either way; "up" moves toward the upper bound
    const int delta = m_nUpper >= m_nLower ? direction : -direction;
    const int64_t next = static_cast<int64_t>(m_nPos) + delta;
    SetPos32(static_cast<int>(std::clamp<int64_t>(next, INT32_MIN, INT32_MAX)));
}

void CSpinButtonCtrl::OnPaint() {
    CPaintDC dc(this);
    CRect c;
    GetClientRect(&c);
    const int mid = c.Height() / 2;
    for (int half = 0; half < 2; ++half) {
        CRect r(0, half ? mid : 0, c.Width(), half ? c.Height() : mid);
        const bool down = m_nPressed == (half ? -1 : 1);
        dc.FillSolidRect(r, down ? RGB(196, 200, 206) : RGB(232, 234, 237));
        dc.Draw3dRect(r, down ? RGB(150, 154, 160) : RGB(252, 252, 252), RGB(150, 154, 160));
        const int cx = r.left + r.Width() / 2, cy = r.top + r.Height() / 2;
        const int s = std::max(2, std::min(r.Width(), r.Height()) / 4);
        const CPoint up[] = {
            {cx - s, cy + s / 2 + 1}, {cx + s + 1, cy + s / 2 + 1}, {cx, cy - s / 2 - 1}};
        const CPoint dn[] = {{cx - s, cy - s / 2}, {cx + s + 1, cy - s / 2}, {cx, cy + s / 2 + 2}};
        dc.Polygon(half ? dn : up, 3, IsWindowEnabled() ? RGB(50, 52, 56) : RGB(160, 160, 160));
    }
}

void CSpinButtonCtrl::OnLButtonDown(UINT, CPoint point) {
    if (!IsWindowEnabled())
        return;
    CRect c;
    GetClientRect(&c);
    m_nPressed = point.y < c.Height() / 2 ? 1 : -1;
    Step(m_nPressed);
    Invalidate();
    UpdateWindow();
    // held down: repeat after a pause, as long as the button stays on the arrow
    SetCapture();
    using Clock = std::chrono::steady_clock;
    auto next = Clock::now() + std::chrono::milliseconds(400);
    auto conn = m_pConn;
    conn->RunLoop([&] {
        if (!m_hWnd || m_nPressed == 0)
            return false;
        if (Clock::now() >= next) {
            Step(m_nPressed);
            next = Clock::now() + std::chrono::milliseconds(60);
        }
        return true;
    });
}

void CSpinButtonCtrl::OnLButtonUp(UINT, CPoint) {
    if (!m_nPressed)
        return;
    m_nPressed = 0;
    ReleaseCapture();
    Invalidate();
}
