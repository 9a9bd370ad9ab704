#pragma once

#include "CRect.h"
#include "WinDefs.h"

class CBitmap;
class CFont;
class CWnd;
struct _cairo_surface;

// A device context: draws into a memory bitmap, or into a window's backing image that is copied
// to the screen when the context ends. Block copies take the raster operations bitwise on the
// pixels: SRCCOPY, SRCINVERT (xor) and SRCAND (and). Text is drawn in the selected font and text
// colour, transparent or on the background colour.
class CDC {
public:
    CDC() = default;
    virtual ~CDC();
    CDC(const CDC&) = delete;
    CDC& operator=(const CDC&) = delete;

    // A memory context; select a bitmap into it to draw.
    BOOL CreateCompatibleDC(CDC* dc);
    BOOL DeleteDC();
    CBitmap* SelectObject(CBitmap* bitmap);
    CFont* SelectObject(CFont* font);

    BOOL BitBlt(int x, int y, int width, int height, CDC* src, int xSrc, int ySrc, DWORD rop);
    BOOL StretchBlt(int x, int y, int width, int height, CDC* src, int xSrc, int ySrc, int srcWidth,
                    int srcHeight, DWORD rop);
    void FillSolidRect(const CRect& rect, COLORREF color);
    void FillSolidRect(int x, int y, int cx, int cy, COLORREF color) {
        FillSolidRect(CRect(x, y, x + cx, y + cy), color);
    }
    // A one-pixel frame: top and left in one colour, bottom and right in the other.
    void Draw3dRect(const CRect& rect, COLORREF topLeft, COLORREF bottomRight);
    // The well of a control that takes input (edit, combo box, list): white, grey when disabled,
    // in a frame that turns blue while it has the focus.
    void FieldWell(const CRect& rect, bool focused, bool enabled = true);
    // An anti-aliased line or polygon outline/fill, for the controls' own drawing.
    void Line(double x0, double y0, double x1, double y1, COLORREF color, double width = 1.0);
    void Polygon(const CPoint* points, int count, COLORREF color);

    int SetBkMode(int mode);
    COLORREF SetTextColor(COLORREF color);
    COLORREF SetBkColor(COLORREF color);
    CSize GetTextExtent(const char* text, int length = -1) const;
    int GetTextAscent() const;
    BOOL TextOut(int x, int y, const char* text, int length = -1);
    // options: ETO_CLIPPED keeps the text inside rect, ETO_OPAQUE fills rect with the background
    // colour first. The text's top-left is (x, y).
    BOOL ExtTextOut(int x, int y, UINT options, const CRect* rect, const char* text, UINT length,
                    const int* dx = nullptr);

    // Where drawing may go, in this context's coordinates.
    CRect ClipBox() const { return m_rcClip; }

protected:
    void Target(_cairo_surface* surface, const CRect& clip);
    void Touch(const CRect& rect);
    CRect m_rcDirty; // what drawing touched, for window contexts

private:
    _cairo_surface* m_pSurface = nullptr;
    CRect m_rcClip;
    CBitmap* m_pBitmap = nullptr;
    CFont* m_pFont = nullptr;
    COLORREF m_crText = 0;
    COLORREF m_crBk = RGB(255, 255, 255);
    int m_nBkMode = OPAQUE;
    bool m_bMemory = false;
};

// Painting in answer to WM_PAINT: clipped to what was invalid (all of the window when nothing
// was), which it validates; the result reaches the screen when the context ends.
class CPaintDC : public CDC {
public:
    explicit CPaintDC(CWnd* wnd);
    ~CPaintDC() override;
    CRect m_rcPaint;

private:
    CWnd* m_pWnd;
};

// Drawing on a window outside WM_PAINT; what it touched reaches the screen when it ends.
class CClientDC : public CDC {
public:
    explicit CClientDC(CWnd* wnd);
    ~CClientDC() override;

private:
    CWnd* m_pWnd;
};
