#include "CEdit.h"

#include <algorithm>

#include "CDC.h"
#include "CSpinButtonCtrl.h"
#include "CXConnection.h"

namespace {

constexpr int kPad = 3;
constexpr COLORREF kSelection = RGB(58, 120, 214);

bool Continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

int CharCount(const std::string& s) {
    return static_cast<int>(
        std::count_if(s.begin(), s.end(), [](char c) { return !Continuation(c); }));
}

std::string Utf8(UINT cp) {
    std::string s;
    if (cp < 0x80) {
        s += static_cast<char>(cp);
    } else if (cp < 0x800) {
        s += static_cast<char>(0xC0 | (cp >> 6));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        s += static_cast<char>(0xE0 | (cp >> 12));
        s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        s += static_cast<char>(0xF0 | (cp >> 18));
        s += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    }
    return s;
}

} // namespace

BEGIN_MESSAGE_MAP(CEdit, CWnd)
ON_WM_PAINT()
ON_WM_LBUTTONDOWN()
ON_WM_LBUTTONDBLCLK()
ON_WM_MOUSEMOVE()
ON_WM_LBUTTONUP()
END_MESSAGE_MAP()

BOOL CEdit::Create(DWORD style, const CRect& rect, CWnd* parent, UINT id) {
    return CreateEx(0, AfxRegisterWndClass(CS_DBLCLKS, IDC_IBEAM, GetStockObject(WHITE_BRUSH)), "",
                    style, rect, parent, id);
}

void CEdit::SetWindowText(const char* text) {
    m_strText = text ? text : "";
    m_nCaret = m_nAnchor = static_cast<int>(m_strText.size());
    m_nScroll = 0;
    Invalidate();
}

void CEdit::SetSel(int start, int end, BOOL) {
    const int n = static_cast<int>(m_strText.size());
    if (start < 0) { // no selection, caret kept
        m_nAnchor = m_nCaret;
    } else {
        auto fit = [&](int i) {
            i = (i < 0 || i > n) ? n : i;
            while (i > 0 && i < n && Continuation(m_strText[static_cast<size_t>(i)]))
                --i;
            return i;
        };
        m_nAnchor = fit(start);
        m_nCaret = fit(end);
    }
    Invalidate();
}

void CEdit::GetSel(int& start, int& end) const {
    start = std::min(m_nAnchor, m_nCaret);
    end = std::max(m_nAnchor, m_nCaret);
}

void CEdit::ReplaceSel(const char* text) {
    int a, b;
    GetSel(a, b);
    std::string add = text ? text : "";
    // keep within the limit, whole characters only
    const int room =
        static_cast<int>(m_nLimit) -
        (CharCount(m_strText) -
         CharCount(m_strText.substr(static_cast<size_t>(a), static_cast<size_t>(b - a))));
    int keep = 0, chars = 0;
    while (keep < static_cast<int>(add.size()) && chars < std::max(room, 0)) {
        ++keep;
        while (keep < static_cast<int>(add.size()) && Continuation(add[static_cast<size_t>(keep)]))
            ++keep;
        ++chars;
    }
    add.resize(static_cast<size_t>(keep));
    m_strText.replace(static_cast<size_t>(a), static_cast<size_t>(b - a), add);
    m_nCaret = m_nAnchor = a + keep;
    Changed();
}

void CEdit::Changed() {
    Invalidate();
    NotifyParent(EN_CHANGE);
}

void CEdit::Move(int to, bool extend) {
    m_nCaret = std::clamp(to, 0, static_cast<int>(m_strText.size()));
    if (!extend)
        m_nAnchor = m_nCaret;
    Invalidate();
}

LRESULT CEdit::DefWindowProc(UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_CHAR) {
        DefaultChar(static_cast<UINT>(wParam));
        return 0;
    }
    if (message == WM_KEYDOWN) {
        DefaultKeyDown(static_cast<UINT>(wParam));
        return 0;
    }
    // Focus bookkeeping is default handling, so subclasses that take these messages keep it.
    if (message == WM_SETFOCUS || message == WM_KILLFOCUS)
        m_bSelecting = false;
    return CWnd::DefWindowProc(message, wParam, lParam);
}

void CEdit::DefaultKeyDown(UINT key) {
    if (key == kKeyA && GetKeyState(VK_CONTROL) < 0) {
        SetSel(0, -1);
    } else if ((key == kKeyUp || key == kKeyDown) && m_pSpin) {
        m_pSpin->Step(key == kKeyUp ? 1 : -1);
    }
}

void CEdit::DefaultChar(UINT ch) {
    const bool shift = GetKeyState(VK_SHIFT) < 0;
    // A numeric field's pre-translation hands the arrows over as 37 and 39.
    const bool mapped = m_pConn && m_pConn->m_bCallCancel;
    auto prev = [&](int i) {
        if (i <= 0)
            return 0;
        --i;
        while (i > 0 && Continuation(m_strText[static_cast<size_t>(i)]))
            --i;
        return i;
    };
    auto next = [&](int i) {
        const int n = static_cast<int>(m_strText.size());
        if (i >= n)
            return n;
        ++i;
        while (i < n && Continuation(m_strText[static_cast<size_t>(i)]))
            ++i;
        return i;
    };
    int a, b;
    GetSel(a, b);
    if (ch == kCharLeft || (mapped && ch == kCharMappedLeft)) {
        Move(a != b && !shift ? a : prev(m_nCaret), shift);
    } else if (ch == kCharRight || (mapped && ch == kCharMappedRight)) {
        Move(a != b && !shift ? b : next(m_nCaret), shift);
    } else if (ch == kCharHome) {
        Move(0, shift);
    } else if (ch == kCharEnd) {
        Move(static_cast<int>(m_strText.size()), shift);
    } else if (ch == kCharBackspace) {
        if (a == b && a > 0)
            m_nAnchor = prev(a), m_nCaret = a;
        if (m_nAnchor != m_nCaret)
            ReplaceSel("");
    } else if (ch == kCharDelete) {
        if (a == b)
            m_nAnchor = a, m_nCaret = next(a);
        if (m_nAnchor != m_nCaret)
            ReplaceSel("");
    } else if (ch >= 32 && ch != kCharDelete) {
        ReplaceSel(Utf8(ch).c_str());
    }
}

int CEdit::TextX() {
    CRect client;
    GetClientRect(&client);
    CClientDC dc(this);
    dc.SelectObject(m_pFont);
    const int width = dc.GetTextExtent(m_strText.c_str()).cx;
    const int caretX = dc.GetTextExtent(m_strText.c_str(), m_nCaret).cx;
    const int room = client.Width() - 2 * kPad;
    int x = (GetStyle() & ES_RIGHT) ? client.right - kPad - width : kPad;
    // keep the caret in view when the text is wider than the field
    if (width > room) {
        x = kPad - m_nScroll;
        if (x + caretX > client.right - kPad)
            m_nScroll = caretX - room;
        else if (x + caretX < kPad)
            m_nScroll = caretX;
        x = kPad - m_nScroll;
    } else {
        m_nScroll = 0;
    }
    return x;
}

int CEdit::HitChar(CPoint point) {
    const int x0 = TextX();
    CClientDC dc(this);
    dc.SelectObject(m_pFont);
    int best = 0, bestDistance = 1 << 30;
    for (int i = 0; i <= static_cast<int>(m_strText.size()); ++i) {
        if (i < static_cast<int>(m_strText.size()) &&
            Continuation(m_strText[static_cast<size_t>(i)]))
            continue;
        const int d = std::abs(x0 + dc.GetTextExtent(m_strText.c_str(), i).cx - point.x);
        if (d < bestDistance)
            best = i, bestDistance = d;
    }
    return best;
}

void CEdit::OnPaint() {
    CPaintDC dc(this);
    CRect client;
    GetClientRect(&client);
    const bool focused = m_pConn && m_pConn->Focus() == this;
    const bool enabled = IsWindowEnabled();
    dc.FieldWell(client, focused, enabled);
    dc.SelectObject(m_pFont);
    const int x = TextX();
    const int h = dc.GetTextExtent("Ag").cy;
    const int y = (client.Height() - h) / 2;
    CRect inner = client;
    inner.InflateRect(-2, -2);
    int a, b;
    GetSel(a, b);
    dc.SetBkMode(TRANSPARENT);
    dc.SetTextColor(enabled ? RGB(20, 20, 20) : RGB(140, 140, 140));
    if (focused && a != b) {
        const int xa = x + dc.GetTextExtent(m_strText.c_str(), a).cx;
        const int xb = x + dc.GetTextExtent(m_strText.c_str(), b).cx;
        dc.ExtTextOut(x, y, ETO_CLIPPED, &inner, m_strText.c_str(),
                      static_cast<UINT>(m_strText.size()));
        CRect sel(xa, y, xb, y + h), clip;
        clip.IntersectRect(sel, inner);
        dc.FillSolidRect(clip, kSelection);
        dc.SetTextColor(RGB(255, 255, 255));
        dc.ExtTextOut(x, y, ETO_CLIPPED, &clip, m_strText.c_str(),
                      static_cast<UINT>(m_strText.size()));
    } else {
        dc.ExtTextOut(x, y, ETO_CLIPPED, &inner, m_strText.c_str(),
                      static_cast<UINT>(m_strText.size()));
    }
    if (focused && a == b) {
        const int cx =
            std::clamp(x + dc.GetTextExtent(m_strText.c_str(), m_nCaret).cx, 2, client.right - 3);
        dc.FillSolidRect(CRect(cx, y, cx + 1, y + h), RGB(0, 0, 0));
    }
}

void CEdit::OnLButtonDown(UINT, CPoint point) {
    SetFocus();
    Move(HitChar(point), GetKeyState(VK_SHIFT) < 0);
    m_bSelecting = true;
    SetCapture();
}

void CEdit::OnLButtonDblClk(UINT, CPoint) {
    SetFocus();
    SetSel(0, -1);
}

void CEdit::OnMouseMove(UINT, CPoint point) {
    if (m_bSelecting)
        Move(HitChar(point), true);
}

void CEdit::OnLButtonUp(UINT, CPoint) {
    if (m_bSelecting) {
        m_bSelecting = false;
        ReleaseCapture();
    }
}
