#include "CPopupList.h"

#include <X11/Xlib.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "CDC.h"
#include "CFont.h"
#include "CXConnection.h"

namespace {

constexpr int kCheckColumn = 22;
constexpr int kScrollBar = 6;

unsigned long Ms() {
    using namespace std::chrono;
    return static_cast<unsigned long>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

} // namespace

BEGIN_MESSAGE_MAP(CPopupList, CWnd)
ON_WM_PAINT()
ON_WM_MOUSEMOVE()
ON_WM_LBUTTONDOWN()
ON_WM_LBUTTONUP()
ON_WM_MOUSEWHEEL()
ON_WM_KEYDOWN()
END_MESSAGE_MAP()

int CPopupList::Track(CWnd* owner, std::vector<Item> items, CPoint screen, int minWidth,
                      int current, int maxRows, CFont* font) {
    if (!owner || !owner->Connection() || items.empty())
        return -1;
    m_items = std::move(items);
    m_pConn = owner->Connection()->shared_from_this();
    m_pFont = font;
    Display* d = m_pConn->Display();
    const int screenW = DisplayWidth(d, m_pConn->Screen());
    const int screenH = DisplayHeight(d, m_pConn->Screen());

    // measure
    CDC measure;
    measure.SelectObject(font);
    m_nRowHeight = measure.GetTextExtent("Ag").cy + 8;
    int textWidth = 0;
    for (const Item& it : m_items)
        textWidth = std::max(textWidth, measure.GetTextExtent(it.text.c_str()).cx);
    m_nColumnWidth = std::max(minWidth - 2, kCheckColumn + textWidth + 18);
    const int n = static_cast<int>(m_items.size());
    int columns = 1;
    if (maxRows > 0) {
        m_bScrolls = n > maxRows;
        m_nVisibleRows = std::min(n, maxRows);
        m_nRowsPerColumn = m_nVisibleRows;
    } else {
        const int fit = std::max(1, (screenH - 16) / m_nRowHeight);
        columns = (n + fit - 1) / fit;
        m_nRowsPerColumn = (n + columns - 1) / columns;
        m_nVisibleRows = n;
    }
    const int width = columns * m_nColumnWidth + 2 + (m_bScrolls ? kScrollBar : 0);
    const int height = m_nRowsPerColumn * m_nRowHeight + 2;
    // on screen, flipped above or to the left when it would run off
    int x = std::clamp(screen.x, 0, std::max(0, screenW - width));
    int y = screen.y;
    if (y + height > screenH)
        y = std::max(0, screenH - height);
    m_nHot = Enabled(current) ? current : -1;
    if (m_bScrolls && current >= 0)
        m_nScroll = std::clamp(current - m_nVisibleRows / 2, 0, n - m_nVisibleRows);

    const unsigned long savedFocus = m_pConn->SaveFocus();
    if (!CreateEx(0, AfxRegisterWndClass(0, IDC_ARROW, GetStockObject(HOLLOW_BRUSH)), "", WS_POPUP,
                  CRect(x, y, x + width, y + height), nullptr, 0))
        return -1;
    ShowWindow(SW_SHOW);
    UpdateWindow();
    XSync(d, False);
    SelectKeys(true);
    SetCapture();
    // Another client may hold the keyboard for a moment (a window manager's key binding): try
    // again briefly, as menus do, rather than open a menu the keys cannot reach.
    for (int tries = 0; tries < 20; ++tries) {
        if (XGrabKeyboard(d, m_hWnd, False, GrabModeAsync, GrabModeAsync, CurrentTime) ==
            GrabSuccess)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    m_nOpenedAt = Ms();
    Window root = 0, child = 0;
    int rx = 0, ry = 0, wx = 0, wy = 0;
    unsigned mask = 0;
    XQueryPointer(d, m_hWnd, &root, &child, &rx, &ry, &wx, &wy, &mask);
    m_ptOpened = {wx, wy};

    auto conn = m_pConn;
    conn->RunLoop([this] { return m_hWnd && !m_bDone; });
    const int chosen = m_nChosen;
    if (m_hWnd) {
        XUngrabKeyboard(d, CurrentTime);
        ReleaseCapture();
        conn->RestoreFocus(savedFocus); // before the popup goes, or focus falls to the root
        DestroyWindow();
    }
    return chosen;
}

bool CPopupList::Enabled(int row) const {
    return row >= 0 && row < static_cast<int>(m_items.size()) &&
           !m_items[static_cast<size_t>(row)].disabled &&
           !m_items[static_cast<size_t>(row)].separator;
}

CRect CPopupList::RowRect(int row) const {
    int column = 0, r = row;
    if (m_bScrolls)
        r = row - m_nScroll;
    else
        column = row / m_nRowsPerColumn, r = row % m_nRowsPerColumn;
    const int x = 1 + column * m_nColumnWidth, y = 1 + r * m_nRowHeight;
    return CRect(x, y, x + m_nColumnWidth, y + m_nRowHeight);
}

int CPopupList::RowAt(CPoint p) const {
    CRect client;
    GetClientRect(&client);
    if (!client.PtInRect(p) || p.y < 1 || p.x < 1)
        return -1;
    const int r = (p.y - 1) / m_nRowHeight;
    if (r >= m_nRowsPerColumn)
        return -1;
    int row;
    if (m_bScrolls) {
        if (p.x >= client.right - 1 - kScrollBar)
            return -1;
        row = m_nScroll + r;
    } else {
        row = (p.x - 1) / m_nColumnWidth * m_nRowsPerColumn + r;
    }
    return row < static_cast<int>(m_items.size()) ? row : -1;
}

void CPopupList::Highlight(int row) {
    if (row == m_nHot)
        return;
    m_nHot = row;
    if (m_bScrolls && row >= 0) {
        if (row < m_nScroll)
            m_nScroll = row;
        else if (row >= m_nScroll + m_nVisibleRows)
            m_nScroll = row - m_nVisibleRows + 1;
    }
    Invalidate();
}

void CPopupList::Finish(int chosen) {
    m_nChosen = chosen;
    m_bDone = true;
}

void CPopupList::OnPaint() {
    CPaintDC dc(this);
    CRect c;
    GetClientRect(&c);
    dc.FillSolidRect(c, RGB(250, 250, 251));
    dc.Draw3dRect(c, RGB(140, 144, 150), RGB(110, 114, 120));
    dc.SelectObject(m_pFont);
    dc.SetBkMode(TRANSPARENT);
    const int first = m_bScrolls ? m_nScroll : 0;
    const int last = m_bScrolls ? m_nScroll + m_nVisibleRows : static_cast<int>(m_items.size());
    for (int i = first; i < last; ++i) {
        const Item& it = m_items[static_cast<size_t>(i)];
        const CRect r = RowRect(i);
        if (it.separator) {
            dc.FillSolidRect(
                CRect(r.left + 6, r.top + r.Height() / 2, r.right - 6, r.top + r.Height() / 2 + 1),
                RGB(210, 212, 216));
            continue;
        }
        const bool hot = i == m_nHot && !it.disabled;
        if (hot)
            dc.FillSolidRect(CRect(r.left + 1, r.top, r.right - 1, r.bottom), RGB(58, 120, 214));
        const COLORREF ink = it.disabled ? RGB(160, 162, 166)
                             : hot       ? RGB(255, 255, 255)
                                         : RGB(24, 24, 24);
        if (it.checked) {
            const int cx = r.left + 11, cy = r.top + r.Height() / 2;
            dc.Line(cx - 4, cy, cx - 1, cy + 3, ink, 1.6);
            dc.Line(cx - 1, cy + 3, cx + 5, cy - 4, ink, 1.6);
        }
        dc.SetTextColor(ink);
        const CSize t = dc.GetTextExtent(it.text.c_str());
        CRect clip(r.left + kCheckColumn, r.top, r.right - 6, r.bottom);
        dc.ExtTextOut(clip.left, r.top + (r.Height() - t.cy) / 2, ETO_CLIPPED, &clip,
                      it.text.c_str(), static_cast<UINT>(it.text.size()));
    }
    if (m_bScrolls) {
        const int n = static_cast<int>(m_items.size());
        const int trackH = c.Height() - 4;
        const int thumbH = std::max(12, trackH * m_nVisibleRows / n);
        const int top = 2 + (trackH - thumbH) * m_nScroll / std::max(1, n - m_nVisibleRows);
        dc.FillSolidRect(CRect(c.right - 1 - kScrollBar + 1, top, c.right - 2, top + thumbH),
                         RGB(180, 183, 188));
    }
}

void CPopupList::OnMouseMove(UINT, CPoint point) {
    const int row = RowAt(point);
    if (row >= 0 || m_bScrolls)
        Highlight(Enabled(row) ? row : -1);
    else
        Highlight(-1);
}

void CPopupList::OnLButtonDown(UINT, CPoint point) {
    CRect client;
    GetClientRect(&client);
    m_bPressedInside = client.PtInRect(point);
    if (!m_bPressedInside)
        Finish(-1); // a press anywhere else closes the list
}

void CPopupList::OnLButtonUp(UINT, CPoint point) {
    const int row = RowAt(point);
    // The release of the press that opened the list chooses only after a drag onto a row.
    const bool opening = !m_bPressedInside && Ms() - m_nOpenedAt < 400 &&
                         std::abs(point.x - m_ptOpened.x) < 4 &&
                         std::abs(point.y - m_ptOpened.y) < 4;
    if (Enabled(row) && !opening)
        Finish(row);
    m_bPressedInside = false;
}

void CPopupList::OnMouseWheel(UINT flags, CPoint) {
    if (!m_bScrolls)
        return;
    const int delta = static_cast<short>(HIWORD(flags)) > 0 ? -3 : 3;
    m_nScroll = std::clamp(m_nScroll + delta, 0, static_cast<int>(m_items.size()) - m_nVisibleRows);
    Invalidate();
}

void CPopupList::OnKeyDown(UINT key, UINT, UINT) {
    const int n = static_cast<int>(m_items.size());
    auto step = [&](int from, int dir) {
        for (int i = from + dir; i >= 0 && i < n; i += dir)
            if (Enabled(i))
                return i;
        return from;
    };
    switch (key) {
    case kKeyEscape:
        Finish(-1);
        break;
    case kKeyReturn:
    case kKeyEnter:
        if (Enabled(m_nHot))
            Finish(m_nHot);
        break;
    case kKeyDown:
        Highlight(step(m_nHot, 1));
        break;
    case kKeyUp:
        Highlight(m_nHot < 0 ? step(n, -1) : step(m_nHot, -1));
        break;
    case kKeyHome:
        Highlight(step(-1, 1));
        break;
    case kKeyEnd:
        Highlight(step(n, -1));
        break;
    default:
        break;
    }
}
