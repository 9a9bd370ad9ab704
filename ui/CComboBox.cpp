#include "CComboBox.h"

#include <memory>

#include "CDC.h"
#include "CPopupList.h"
#include "CXConnection.h"

BEGIN_MESSAGE_MAP(CComboBox, CWnd)
ON_WM_PAINT()
ON_WM_LBUTTONDOWN()
ON_WM_KEYDOWN()
END_MESSAGE_MAP()

BOOL CComboBox::Create(DWORD style, const CRect& rect, CWnd* parent, UINT id) {
    return CreateEx(0, AfxRegisterWndClass(0, IDC_ARROW, GetStockObject(HOLLOW_BRUSH)), "", style,
                    rect, parent, id);
}

int CComboBox::AddString(const char* text) {
    m_items.emplace_back(text ? text : "");
    return static_cast<int>(m_items.size()) - 1;
}

void CComboBox::ResetContent() {
    m_items.clear();
    m_nSel = -1;
    Invalidate();
}

int CComboBox::SetCurSel(int index) {
    if (index < -1 || index >= GetCount())
        return -1;
    m_nSel = index;
    Invalidate();
    return index;
}

void CComboBox::GetLBText(int index, CString& text) const {
    text = index >= 0 && index < GetCount() ? CString(m_items[static_cast<size_t>(index)].c_str())
                                            : CString();
}

void CComboBox::UserSelects(int index) {
    if (index < 0 || index >= GetCount() || index == m_nSel)
        return;
    m_nSel = index;
    Invalidate();
    UpdateWindow();
    NotifyParent(CBN_SELCHANGE);
}

void CComboBox::ShowDropDown() {
    if (!m_hWnd || m_items.empty())
        return;
    std::vector<CPopupList::Item> rows;
    for (const std::string& s : m_items)
        rows.push_back({s});
    CRect r;
    GetWindowRect(&r);
    auto list = std::make_unique<CPopupList>();
    const int row = list->Track(this, std::move(rows), CPoint(r.left, r.bottom), r.Width(), m_nSel,
                                12, m_pFont);
    list.reset();
    if (m_hWnd) {
        SetFocus();
        UserSelects(row);
    }
}

void CComboBox::OnPaint() {
    CPaintDC dc(this);
    CRect c;
    GetClientRect(&c);
    const bool focused = m_pConn && m_pConn->Focus() == this;
    dc.FieldWell(c, focused);
    const int button = c.Height();
    CRect arrow(c.right - button, c.top + 1, c.right - 1, c.bottom - 1);
    dc.FillSolidRect(arrow, RGB(238, 239, 241));
    dc.FillSolidRect(CRect(arrow.left, arrow.top + 3, arrow.left + 1, arrow.bottom - 3),
                     RGB(200, 203, 208));
    const int cx = arrow.left + arrow.Width() / 2, cy = arrow.top + arrow.Height() / 2;
    const CPoint tri[] = {{cx - 4, cy - 2}, {cx + 5, cy - 2}, {cx, cy + 3}};
    dc.Polygon(tri, 3, RGB(50, 52, 56));
    if (m_nSel >= 0) {
        dc.SelectObject(m_pFont);
        dc.SetBkMode(TRANSPARENT);
        dc.SetTextColor(RGB(20, 20, 20));
        const std::string& s = m_items[static_cast<size_t>(m_nSel)];
        const CSize t = dc.GetTextExtent(s.c_str());
        CRect clip(c.left + 2, c.top + 2, arrow.left - 2, c.bottom - 2);
        dc.ExtTextOut(c.left + 6, (c.Height() - t.cy) / 2, ETO_CLIPPED, &clip, s.c_str(),
                      static_cast<UINT>(s.size()));
    }
}

void CComboBox::OnLButtonDown(UINT, CPoint) {
    if (!IsWindowEnabled())
        return;
    SetFocus();
    ShowDropDown();
}

void CComboBox::OnKeyDown(UINT key, UINT, UINT) {
    if (key == kKeyDown && GetKeyState(VK_CONTROL) >= 0)
        UserSelects(m_nSel + 1);
    else if (key == kKeyUp)
        UserSelects(std::max(0, m_nSel - 1));
    else if (key == kKeyHome)
        UserSelects(0);
    else if (key == kKeyEnd)
        UserSelects(GetCount() - 1);
    else
        Default();
}
