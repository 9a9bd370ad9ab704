#include "CListBox.h"

#include <algorithm>
#include <cmath>

#include "CDC.h"
#include "CFont.h"
#include "CXConnection.h"

BEGIN_MESSAGE_MAP(CListBox, CWnd)
ON_WM_PAINT()
ON_WM_LBUTTONDOWN()
ON_WM_LBUTTONDBLCLK()
ON_WM_MOUSEWHEEL()
ON_WM_KEYDOWN()
END_MESSAGE_MAP()

BOOL CListBox::Create(DWORD style, const CRect& rect, CWnd* parent, UINT id) {
    return CreateEx(0, AfxRegisterWndClass(CS_DBLCLKS, IDC_ARROW, GetStockObject(WHITE_BRUSH)), "",
                    style, rect, parent, id);
}

int CListBox::AddString(const char* text) {
    m_items.emplace_back(text ? text : "");
    Invalidate();
    return GetCount() - 1;
}

void CListBox::ResetContent() {
    m_items.clear();
    m_nSel = -1;
    m_nTop = 0;
    Invalidate();
}

int CListBox::SetCurSel(int index) {
    if (index < -1 || index >= GetCount())
        return -1;
    Select(index, false);
    return index;
}

void CListBox::GetText(int index, CString& text) const {
    text = index >= 0 && index < GetCount() ? CString(m_items[static_cast<size_t>(index)].c_str())
                                            : CString();
}

int CListBox::RowHeight() const {
    return m_pFont ? static_cast<int>(std::ceil(m_pFont->PixelSize() * 1.5)) : 18;
}

int CListBox::VisibleRows() const {
    CRect c;
    GetClientRect(&c);
    return std::max(1, (c.Height() - 2) / RowHeight());
}

void CListBox::Select(int index, bool notify) {
    const bool changed = index != m_nSel;
    m_nSel = index;
    if (index >= 0) { // kept in view
        const int rows = VisibleRows();
        if (index < m_nTop)
            m_nTop = index;
        else if (index >= m_nTop + rows)
            m_nTop = index - rows + 1;
    }
    Invalidate();
    if (changed && notify)
        NotifyParent(LBN_SELCHANGE);
}

void CListBox::OnPaint() {
    CPaintDC dc(this);
    CRect c;
    GetClientRect(&c);
    const bool focused = m_pConn && m_pConn->Focus() == this;
    dc.FieldWell(c, focused);
    dc.SelectObject(m_pFont);
    dc.SetBkMode(TRANSPARENT);
    const int h = RowHeight();
    const CRect inside(c.left + 1, c.top + 1, c.right - 1, c.bottom - 1);
    for (int row = m_nTop; row < GetCount() && (row - m_nTop) * h < inside.Height(); ++row) {
        const CRect r(inside.left, inside.top + (row - m_nTop) * h, inside.right,
                      inside.top + (row - m_nTop + 1) * h);
        const bool selected = row == m_nSel;
        if (selected)
            dc.FillSolidRect(r, focused ? RGB(58, 120, 214) : RGB(206, 209, 214));
        dc.SetTextColor(selected && focused ? RGB(255, 255, 255) : RGB(20, 20, 20));
        const std::string& text = m_items[static_cast<size_t>(row)];
        const CSize t = dc.GetTextExtent(text.c_str());
        const CRect clip(r.left, r.top, std::min(r.right, inside.right),
                         std::min(r.bottom, inside.bottom));
        dc.ExtTextOut(r.left + 6, r.top + (h - t.cy) / 2, ETO_CLIPPED, &clip, text.c_str(),
                      static_cast<UINT>(text.size()));
    }
    // how much of the list is in view, on the right edge
    const int rows = VisibleRows();
    if (GetCount() > rows) {
        const int track = inside.Height();
        const int top = inside.top + track * m_nTop / GetCount();
        const int height = std::max(12, track * rows / GetCount());
        dc.FillSolidRect(
            CRect(inside.right - 5, top, inside.right - 1, std::min(inside.bottom, top + height)),
            RGB(160, 164, 170));
    }
}

void CListBox::OnLButtonDown(UINT, CPoint point) {
    SetFocus();
    const int row = m_nTop + (point.y - 1) / RowHeight();
    if (row < GetCount())
        Select(row, true);
}

void CListBox::OnLButtonDblClk(UINT flags, CPoint point) {
    OnLButtonDown(flags, point);
    if (m_nSel >= 0)
        NotifyParent(LBN_DBLCLK);
}

void CListBox::OnMouseWheel(UINT flags, CPoint) {
    const int delta = static_cast<short>(HIWORD(flags)) > 0 ? -3 : 3;
    m_nTop = std::clamp(m_nTop + delta, 0, std::max(0, GetCount() - VisibleRows()));
    Invalidate();
}

void CListBox::OnKeyDown(UINT key, UINT, UINT) {
    if (GetCount() == 0)
        return;
    const int page = std::max(1, VisibleRows() - 1);
    int to = m_nSel;
    switch (key) {
    case kKeyDown:
        to = m_nSel + 1;
        break;
    case kKeyUp:
        to = m_nSel - 1;
        break;
    case kKeyPageDown:
        to = m_nSel + page;
        break;
    case kKeyPageUp:
        to = m_nSel - page;
        break;
    case kKeyHome:
        to = 0;
        break;
    case kKeyEnd:
        to = GetCount() - 1;
        break;
    case kKeyReturn:
    case kKeyEnter:
        if (m_nSel >= 0)
            NotifyParent(LBN_DBLCLK);
        return;
    default:
        return;
    }
    Select(std::clamp(to, 0, GetCount() - 1), true);
}
