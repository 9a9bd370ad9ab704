#include "CStatic.h"

#include "CDC.h"

BEGIN_MESSAGE_MAP(CStatic, CWnd)
ON_WM_PAINT()
END_MESSAGE_MAP()

BOOL CStatic::Create(const char* text, DWORD style, const CRect& rect, CWnd* parent, UINT id) {
    return CreateEx(0, AfxRegisterWndClass(0, IDC_ARROW, GetStockObject(HOLLOW_BRUSH)), text, style,
                    rect, parent, id);
}

void CStatic::OnPaint() {
    CPaintDC dc(this);
    CRect c;
    GetClientRect(&c);
    dc.FillSolidRect(c, RGB(236, 237, 239));
    dc.SelectObject(m_pFont);
    dc.SetBkMode(TRANSPARENT);
    dc.SetTextColor(RGB(40, 42, 46));
    const CSize t = dc.GetTextExtent(m_strText.c_str());
    dc.ExtTextOut(0, (c.Height() - t.cy) / 2, ETO_CLIPPED, &c, m_strText.c_str(),
                  static_cast<UINT>(m_strText.size()));
}
