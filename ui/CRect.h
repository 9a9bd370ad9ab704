#pragma once

#include <algorithm>

// Points, sizes and rectangles in window pixels. A rectangle's right and bottom are exclusive.
struct CPoint {
    int x = 0, y = 0;
    CPoint() = default;
    CPoint(int x, int y) : x(x), y(y) {}
    bool operator==(const CPoint&) const = default;
};

struct CSize {
    int cx = 0, cy = 0;
    CSize() = default;
    CSize(int cx, int cy) : cx(cx), cy(cy) {}
    bool operator==(const CSize&) const = default;
};

struct CRect {
    int left = 0, top = 0, right = 0, bottom = 0;
    CRect() = default;
    CRect(int l, int t, int r, int b) : left(l), top(t), right(r), bottom(b) {}
    CRect(CPoint p, CSize s) : CRect(p.x, p.y, p.x + s.cx, p.y + s.cy) {}

    int Width() const { return right - left; }
    int Height() const { return bottom - top; }
    CSize Size() const { return {Width(), Height()}; }
    CPoint TopLeft() const { return {left, top}; }
    bool IsRectEmpty() const { return right <= left || bottom <= top; }
    bool PtInRect(CPoint p) const {
        return p.x >= left && p.x < right && p.y >= top && p.y < bottom;
    }
    void SetRect(int l, int t, int r, int b) { *this = CRect(l, t, r, b); }
    void SetRectEmpty() { *this = CRect(); }
    void OffsetRect(int dx, int dy) {
        left += dx, right += dx;
        top += dy, bottom += dy;
    }
    void InflateRect(int dx, int dy) {
        left -= dx, right += dx;
        top -= dy, bottom += dy;
    }
    // The overlap of a and b; empty (all zero) when they do not meet.
    bool IntersectRect(const CRect& a, const CRect& b) {
        *this = CRect(std::max(a.left, b.left), std::max(a.top, b.top), std::min(a.right, b.right),
                      std::min(a.bottom, b.bottom));
        if (IsRectEmpty())
            SetRectEmpty();
        return !IsRectEmpty();
    }
    // The smallest rectangle holding a and b; an empty one adds nothing.
    bool UnionRect(const CRect& a, const CRect& b) {
        if (a.IsRectEmpty())
            *this = b;
        else if (b.IsRectEmpty())
            *this = a;
        else
            *this = CRect(std::min(a.left, b.left), std::min(a.top, b.top),
                          std::max(a.right, b.right), std::max(a.bottom, b.bottom));
        return !IsRectEmpty();
    }
    bool operator==(const CRect&) const = default;
};
