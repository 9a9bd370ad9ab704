#include "StatusView.h"

#include <algorithm>

#include "CDC.h"

BEGIN_MESSAGE_MAP(StatusView, CWnd)
ON_WM_PAINT()
END_MESSAGE_MAP()

BOOL StatusView::Create(const CRect& rect, CWnd* parent, UINT id) {
    return CreateEx(0, AfxRegisterWndClass(0), "", WS_CHILD | WS_VISIBLE, rect, parent, id);
}

void StatusView::Show(Mode mode, double fraction, const std::string& text) {
    CRect c;
    GetClientRect(&c);
    const int fill = static_cast<int>(std::clamp(fraction, 0.0, 1.0) * (c.Width() - 2) + 0.5);
    if (mode == m_mode && fill == m_nFill && text == m_text)
        return;
    m_mode = mode;
    m_nFill = fill;
    m_text = text;
    Invalidate();
}

void StatusView::OnPaint() {
    CPaintDC dc(this);
    CRect c;
    GetClientRect(&c);
    // a sunken well, as the panel's read-outs are drawn
    dc.FillSolidRect(c, RGB(150, 154, 160));
    CRect well(c.left + 1, c.top + 1, c.right - 1, c.bottom - 1);
    dc.FillSolidRect(well, RGB(250, 250, 251));
    const COLORREF fill = m_mode == Mode::Rendering ? RGB(190, 212, 242)
                          : m_mode == Mode::Playing ? RGB(198, 232, 204)
                          : m_mode == Mode::Failed  ? RGB(246, 208, 204)
                                                    : RGB(250, 250, 251);
    if (m_mode == Mode::Failed)
        dc.FillSolidRect(well, fill);
    else if (m_nFill > 0)
        dc.FillSolidRect(CRect(well.left, well.top, well.left + m_nFill, well.bottom), fill);
    if (m_mode == Mode::Playing && m_nFill > 0) // the playhead: the fill's edge
        dc.FillSolidRect(CRect(well.left + m_nFill - 1, well.top, well.left + m_nFill, well.bottom),
                         RGB(96, 176, 112));
    dc.SelectObject(m_pFont);
    dc.SetBkMode(TRANSPARENT);
    dc.SetTextColor(m_mode == Mode::Failed ? RGB(150, 30, 20) : RGB(36, 38, 42));
    const CSize t = dc.GetTextExtent(m_text.c_str());
    dc.ExtTextOut(well.left + 8, (c.Height() - t.cy) / 2, ETO_CLIPPED, &well, m_text.c_str(),
                  static_cast<UINT>(m_text.size()));
}
