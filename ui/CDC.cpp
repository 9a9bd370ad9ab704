#include "CDC.h"

#include <cairo.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "CBitmap.h"
#include "CFont.h"
#include "CWnd.h"
#include "CXConnection.h"

namespace {

// A surface only for measuring text when a context has nothing to draw on.
cairo_surface_t* Scratch() {
    thread_local cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_RGB24, 1, 1);
    return s;
}

CRect Bounds(cairo_surface_t* s) {
    return s ? CRect(0, 0, cairo_image_surface_get_width(s), cairo_image_surface_get_height(s))
             : CRect();
}

void SetColor(cairo_t* cr, COLORREF c) {
    cairo_set_source_rgb(cr, GetRValue(c) / 255.0, GetGValue(c) / 255.0, GetBValue(c) / 255.0);
}

uint32_t Apply(uint32_t d, uint32_t s, DWORD rop) {
    switch (rop) {
    case SRCINVERT:
        return d ^ s;
    case SRCAND:
        return d & s;
    default:
        return s;
    }
}

// The font and its size on a cairo context; text metrics in whole pixels.
void UseFont(cairo_t* cr, const CFont* font) {
    if (font && font->Face()) {
        cairo_set_font_face(cr, font->Face());
        cairo_set_font_size(cr, font->PixelSize());
    } else {
        cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
        cairo_set_font_size(cr, 12);
    }
    cairo_font_options_t* o = cairo_font_options_create();
    cairo_font_options_set_hint_metrics(o, CAIRO_HINT_METRICS_ON);
    cairo_font_options_set_hint_style(o, CAIRO_HINT_STYLE_SLIGHT);
    cairo_font_options_set_antialias(o, CAIRO_ANTIALIAS_GRAY);
    cairo_set_font_options(cr, o);
    cairo_font_options_destroy(o);
}

std::string Cut(const char* text, int length) {
    if (!text)
        return {};
    return length < 0 ? std::string(text)
                      : std::string(text, strnlen(text, static_cast<size_t>(length)));
}

} // namespace

CDC::~CDC() = default;

void CDC::Target(cairo_surface_t* surface, const CRect& clip) {
    m_pSurface = surface;
    m_rcClip.IntersectRect(clip, Bounds(surface));
}

void CDC::Touch(const CRect& rect) {
    CRect r;
    if (r.IntersectRect(rect, m_rcClip))
        m_rcDirty.UnionRect(m_rcDirty, r);
}

BOOL CDC::CreateCompatibleDC(CDC*) {
    m_bMemory = true;
    Target(nullptr, CRect());
    return TRUE;
}

BOOL CDC::DeleteDC() {
    m_pBitmap = nullptr;
    Target(nullptr, CRect());
    return TRUE;
}

CBitmap* CDC::SelectObject(CBitmap* bitmap) {
    CBitmap* old = m_pBitmap;
    m_pBitmap = bitmap;
    cairo_surface_t* s = bitmap ? bitmap->Surface() : nullptr;
    Target(s, Bounds(s));
    return old;
}

CFont* CDC::SelectObject(CFont* font) {
    CFont* old = m_pFont;
    m_pFont = font;
    return old;
}

BOOL CDC::BitBlt(int x, int y, int width, int height, CDC* src, int xSrc, int ySrc, DWORD rop) {
    if (!m_pSurface || !src || !src->m_pSurface || width <= 0 || height <= 0)
        return FALSE;
    // clip the destination, then the source, moving the other side along
    CRect dst(x, y, x + width, y + height), in;
    if (!in.IntersectRect(dst, m_rcClip))
        return TRUE;
    int sx = xSrc + (in.left - x), sy = ySrc + (in.top - y);
    const CRect srcBounds = Bounds(src->m_pSurface);
    CRect srcRect(sx, sy, sx + in.Width(), sy + in.Height()), srcIn;
    if (!srcIn.IntersectRect(srcRect, srcBounds))
        return TRUE;
    in.OffsetRect(srcIn.left - sx, srcIn.top - sy);
    in.right = in.left + srcIn.Width();
    in.bottom = in.top + srcIn.Height();
    sx = srcIn.left, sy = srcIn.top;

    cairo_surface_flush(src->m_pSurface);
    cairo_surface_flush(m_pSurface);
    const int sStride = cairo_image_surface_get_stride(src->m_pSurface);
    const int dStride = cairo_image_surface_get_stride(m_pSurface);
    const unsigned char* sData = cairo_image_surface_get_data(src->m_pSurface);
    unsigned char* dData = cairo_image_surface_get_data(m_pSurface);
    const int w = in.Width();
    std::vector<uint32_t> row(static_cast<size_t>(w));
    // rows in the order that keeps an overlapping copy within one surface right
    const bool up = src->m_pSurface == m_pSurface && in.top > sy;
    for (int k = 0; k < in.Height(); ++k) {
        const int r = up ? in.Height() - 1 - k : k;
        std::memcpy(row.data(), sData + (sy + r) * sStride + 4 * sx, 4 * static_cast<size_t>(w));
        auto* d = reinterpret_cast<uint32_t*>(dData + (in.top + r) * dStride + 4 * in.left);
        if (rop == SRCCOPY) {
            std::memcpy(d, row.data(), 4 * static_cast<size_t>(w));
        } else {
            for (int i = 0; i < w; ++i)
                d[i] = Apply(d[i], row[static_cast<size_t>(i)], rop);
        }
    }
    cairo_surface_mark_dirty_rectangle(m_pSurface, in.left, in.top, in.Width(), in.Height());
    Touch(in);
    return TRUE;
}

BOOL CDC::StretchBlt(int x, int y, int width, int height, CDC* src, int xSrc, int ySrc,
                     int srcWidth, int srcHeight, DWORD rop) {
    if (width == srcWidth && height == srcHeight)
        return BitBlt(x, y, width, height, src, xSrc, ySrc, rop);
    if (!m_pSurface || !src || !src->m_pSurface || width <= 0 || height <= 0 || srcWidth <= 0 ||
        srcHeight <= 0)
        return FALSE;
    // nearest source pixel for each destination pixel: pictures stay crisp
    cairo_surface_flush(src->m_pSurface);
    cairo_surface_flush(m_pSurface);
    const CRect srcBounds = Bounds(src->m_pSurface);
    const int sStride = cairo_image_surface_get_stride(src->m_pSurface);
    const int dStride = cairo_image_surface_get_stride(m_pSurface);
    std::vector<uint32_t> copy(static_cast<size_t>(srcWidth) * srcHeight);
    const unsigned char* sData = cairo_image_surface_get_data(src->m_pSurface);
    for (int j = 0; j < srcHeight; ++j)
        for (int i = 0; i < srcWidth; ++i)
            if (srcBounds.PtInRect({xSrc + i, ySrc + j}))
                std::memcpy(&copy[static_cast<size_t>(j) * srcWidth + i],
                            sData + (ySrc + j) * sStride + 4 * (xSrc + i), 4);
    unsigned char* dData = cairo_image_surface_get_data(m_pSurface);
    CRect in;
    if (!in.IntersectRect(CRect(x, y, x + width, y + height), m_rcClip))
        return TRUE;
    for (int dy = in.top; dy < in.bottom; ++dy) {
        const int j = static_cast<int>(static_cast<int64_t>(dy - y) * srcHeight / height);
        auto* d = reinterpret_cast<uint32_t*>(dData + dy * dStride);
        for (int dx = in.left; dx < in.right; ++dx) {
            const int i = static_cast<int>(static_cast<int64_t>(dx - x) * srcWidth / width);
            if (srcBounds.PtInRect({xSrc + i, ySrc + j}))
                d[dx] = Apply(d[dx], copy[static_cast<size_t>(j) * srcWidth + i], rop);
        }
    }
    cairo_surface_mark_dirty_rectangle(m_pSurface, in.left, in.top, in.Width(), in.Height());
    Touch(in);
    return TRUE;
}

void CDC::FillSolidRect(const CRect& rect, COLORREF color) {
    CRect in;
    if (!m_pSurface || !in.IntersectRect(rect, m_rcClip))
        return;
    cairo_t* cr = cairo_create(m_pSurface);
    SetColor(cr, color);
    cairo_rectangle(cr, in.left, in.top, in.Width(), in.Height());
    cairo_fill(cr);
    cairo_destroy(cr);
    Touch(in);
}

void CDC::Draw3dRect(const CRect& r, COLORREF topLeft, COLORREF bottomRight) {
    FillSolidRect(CRect(r.left, r.top, r.right - 1, r.top + 1), topLeft);
    FillSolidRect(CRect(r.left, r.top, r.left + 1, r.bottom - 1), topLeft);
    FillSolidRect(CRect(r.left, r.bottom - 1, r.right, r.bottom), bottomRight);
    FillSolidRect(CRect(r.right - 1, r.top, r.right, r.bottom), bottomRight);
}

void CDC::FieldWell(const CRect& rect, bool focused, bool enabled) {
    FillSolidRect(rect, enabled ? RGB(255, 255, 255) : RGB(236, 236, 236));
    const COLORREF frame = focused ? RGB(58, 120, 214) : RGB(120, 124, 130);
    Draw3dRect(rect, frame, frame);
}

void CDC::Line(double x0, double y0, double x1, double y1, COLORREF color, double width) {
    if (!m_pSurface)
        return;
    cairo_t* cr = cairo_create(m_pSurface);
    cairo_rectangle(cr, m_rcClip.left, m_rcClip.top, m_rcClip.Width(), m_rcClip.Height());
    cairo_clip(cr);
    SetColor(cr, color);
    cairo_set_line_width(cr, width);
    cairo_move_to(cr, x0, y0);
    cairo_line_to(cr, x1, y1);
    cairo_stroke(cr);
    cairo_destroy(cr);
    Touch(CRect(static_cast<int>(std::min(x0, x1) - width),
                static_cast<int>(std::min(y0, y1) - width),
                static_cast<int>(std::max(x0, x1) + width + 1),
                static_cast<int>(std::max(y0, y1) + width + 1)));
}

void CDC::Polygon(const CPoint* points, int count, COLORREF color) {
    if (!m_pSurface || count < 3)
        return;
    cairo_t* cr = cairo_create(m_pSurface);
    cairo_rectangle(cr, m_rcClip.left, m_rcClip.top, m_rcClip.Width(), m_rcClip.Height());
    cairo_clip(cr);
    SetColor(cr, color);
    CRect box(points[0].x, points[0].y, points[0].x, points[0].y);
    cairo_move_to(cr, points[0].x, points[0].y);
    for (int i = 1; i < count; ++i) {
        cairo_line_to(cr, points[i].x, points[i].y);
        box.UnionRect(box, CRect(points[i].x, points[i].y, points[i].x + 1, points[i].y + 1));
    }
    cairo_close_path(cr);
    cairo_fill(cr);
    cairo_destroy(cr);
    box.InflateRect(1, 1);
    Touch(box);
}

int CDC::SetBkMode(int mode) {
    return std::exchange(m_nBkMode, mode);
}

COLORREF CDC::SetTextColor(COLORREF color) {
    return std::exchange(m_crText, color);
}

COLORREF CDC::SetBkColor(COLORREF color) {
    return std::exchange(m_crBk, color);
}

CSize CDC::GetTextExtent(const char* text, int length) const {
    const std::string s = Cut(text, length);
    cairo_t* cr = cairo_create(m_pSurface ? m_pSurface : Scratch());
    UseFont(cr, m_pFont);
    cairo_font_extents_t fe;
    cairo_font_extents(cr, &fe);
    cairo_text_extents_t te;
    cairo_text_extents(cr, s.c_str(), &te);
    cairo_destroy(cr);
    return {static_cast<int>(te.x_advance + 0.5), static_cast<int>(fe.ascent + fe.descent + 0.5)};
}

int CDC::GetTextAscent() const {
    cairo_t* cr = cairo_create(m_pSurface ? m_pSurface : Scratch());
    UseFont(cr, m_pFont);
    cairo_font_extents_t fe;
    cairo_font_extents(cr, &fe);
    cairo_destroy(cr);
    return static_cast<int>(fe.ascent + 0.5);
}

BOOL CDC::TextOut(int x, int y, const char* text, int length) {
    return ExtTextOut(x, y, 0, nullptr, text,
                      length < 0 ? static_cast<UINT>(-1) : static_cast<UINT>(length));
}

BOOL CDC::ExtTextOut(int x, int y, UINT options, const CRect* rect, const char* text, UINT length,
                     const int*) {
    if (!m_pSurface)
        return FALSE;
    const std::string s =
        Cut(text, length == static_cast<UINT>(-1) ? -1 : static_cast<int>(length));
    CRect clip = m_rcClip;
    if (rect && (options & ETO_CLIPPED) && !clip.IntersectRect(clip, *rect))
        return TRUE;
    if (rect && (options & ETO_OPAQUE))
        FillSolidRect(*rect, m_crBk);
    const CSize size = GetTextExtent(s.c_str());
    if (m_nBkMode == OPAQUE && !s.empty())
        FillSolidRect(CRect(x, y, x + size.cx, y + size.cy) /*cell*/, m_crBk);
    cairo_t* cr = cairo_create(m_pSurface);
    cairo_rectangle(cr, clip.left, clip.top, clip.Width(), clip.Height());
    cairo_clip(cr);
    UseFont(cr, m_pFont);
    cairo_font_extents_t fe;
    cairo_font_extents(cr, &fe);
    SetColor(cr, m_crText);
    cairo_move_to(cr, x, y + static_cast<int>(fe.ascent + 0.5));
    cairo_show_text(cr, s.c_str());
    cairo_destroy(cr);
    CRect cell(x, y, x + size.cx + 2, y + size.cy + 1), touched;
    if (touched.IntersectRect(cell, clip))
        Touch(touched);
    return TRUE;
}

CPaintDC::CPaintDC(CWnd* wnd) : m_pWnd(wnd) {
    CRect client;
    wnd->GetClientRect(&client);
    if (!wnd->GetUpdateRect(&m_rcPaint))
        m_rcPaint = client;
    wnd->ValidateRect(nullptr);
    wnd->MarkPainted();
    Target(wnd->Backing(), m_rcPaint);
}

CPaintDC::~CPaintDC() {
    m_pWnd->FlushToScreen(m_rcPaint);
}

CClientDC::CClientDC(CWnd* wnd) : m_pWnd(wnd) {
    CRect client;
    wnd->GetClientRect(&client);
    Target(wnd->Backing(), client);
}

CClientDC::~CClientDC() {
    // drawn outside a paint: on the screen when the drawing ends, as any other client sees it
    m_pWnd->FlushToScreen(m_rcDirty);
    if (CXConnection* conn = m_pWnd->Connection())
        conn->Sync();
}
