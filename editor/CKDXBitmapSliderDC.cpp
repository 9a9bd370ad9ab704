#include "CKDXBitmapSliderDC.h"

#include <algorithm>
#include <cmath>

#include "CDC.h"
#include "CWnd.h"

void CKDXBitmapSliderDC::Make(CRect& hit, CRect& invalidate, CWnd* parent, CKDXBitmap* track,
                              CKDXBitmap* fill, CKDXBitmap* knob, float min, float max,
                              CPoint minPoint, CPoint maxPoint, unsigned id, int vertical,
                              bool logarithmic, bool reversed, bool hideKnob, bool twoPosition,
                              KDXCALLBACK callback, void* user) {
    m_rcHit = hit;
    m_rcInvalidate = invalidate;
    m_pParent = parent;
    m_pTrack = track;
    m_pFill = fill;
    m_pKnob = knob;
    m_fMin = min;
    m_fMax = max;
    m_fValue = min;
    m_ptMin = minPoint;
    m_ptMax = maxPoint;
    m_nID = id;
    m_nVertical = vertical;
    m_bLog = logarithmic;
    m_bReversed = reversed;
    m_bHideKnob = hideKnob;
    m_bTwoPosition = twoPosition;
    m_pCallback = callback;
    m_pUser = user;
    m_nTrackWidth = track ? track->Width() : 0;
    m_nTrackHeight = track ? track->Height() : 0;
    if (logarithmic) {
        // A minimum of 0 spans infinitely many decades; nothing reads these.
        m_dDecades = std::log10(static_cast<double>(max)) - std::log10(static_cast<double>(min));
        m_dPixelsPerDecade = std::abs(minPoint.y - maxPoint.y) / m_dDecades;
    }
}

void CKDXBitmapSliderDC::Invalidate() {
    if (m_pParent && !m_rcInvalidate.IsRectEmpty())
        m_pParent->InvalidateRect(&m_rcInvalidate);
}

void CKDXBitmapSliderDC::SetValue(float value, CDC* dc, bool notify) {
    value = std::clamp(value, m_fMin, m_fMax);
    if (value != m_fValue) {
        m_fValue = value;
        if (notify && m_pCallback)
            m_pCallback(static_cast<int>(m_nID), value, m_pUser, 0);
    }
    if (dc)
        DrawSlider(dc);
    Invalidate();
}

bool CKDXBitmapSliderDC::PtInSwitch(CPoint point) {
    if (!m_bEnabled || !m_rcHit.PtInRect(point))
        return false;
    if (m_pParent)
        m_pParent->SetCapture();
    m_bDragging = true;
    return true;
}

bool CKDXBitmapSliderDC::SetValueByPoint(CPoint point, int flag) {
    if (!m_bEnabled)
        return false;
    const float range = m_fMax - m_fMin;
    float value;
    if (m_nVertical) {
        const int y = point.y - m_rcHit.top, y0 = m_ptMin.y, y1 = m_ptMax.y;
        const bool below = m_bReversed ? y < y0 : y > y0;
        const bool above = m_bReversed ? y > y1 : y < y1;
        if (below)
            value = m_fMin;
        else if (above)
            value = m_fMax;
        else if (m_bLog)
            value = static_cast<float>(
                m_fMin + range * (std::pow(10.0, static_cast<double>(y - y0) / (y1 - y0)) - 1) / 9);
        else
            value = y0 == y1
                        ? m_fMin
                        : m_fMin + static_cast<float>(y0 - y) * range / static_cast<float>(y0 - y1);
    } else {
        const int x = point.x - m_rcHit.left, x0 = m_ptMin.x, x1 = m_ptMax.x;
        const bool left = m_bReversed ? x > x0 : x < x0;
        const bool right = m_bReversed ? x < x1 : x > x1;
        if (left)
            value = m_fMin;
        else if (right)
            value = m_fMax;
        else
            value = x0 == x1
                        ? m_fMin
                        : m_fMin + static_cast<float>(x - x0) * range / static_cast<float>(x1 - x0);
    }
    if (m_bTwoPosition)
        value = value < m_fMin + range * 0.5f ? m_fMin : m_fMax;
    m_fValue = value; // stored without comparing: every gesture phase is reported
    Invalidate();
    if (m_pCallback)
        m_pCallback(static_cast<int>(m_nID), value, m_pUser, flag);
    return true;
}

void CKDXBitmapSliderDC::OnMouseMove(CPoint point, CDC* dc) {
    if (!m_bDragging)
        return;
    SetValueByPoint(point, 255);
    DrawSlider(dc);
}

void CKDXBitmapSliderDC::OnLButtonUp(CPoint point, CDC* dc) {
    if (!m_bDragging)
        return;
    CWnd::ReleaseCapture();
    m_bDragging = false;
    SetValueByPoint(point, 0);
    DrawSlider(dc);
}

void CKDXBitmapSliderDC::DrawSlider(CDC* dc) {
    if (!m_bEnabled || !dc || !m_pTrack || m_pTrack->IsEmpty())
        return;
    const int w = m_nVertical ? m_nTrackWidth : m_pTrack->Width();
    const int h = m_nVertical ? m_nTrackHeight : m_pTrack->Height();
    CBitmap canvas;
    if (!canvas.CreateCompatibleBitmap(dc, w, h))
        return;
    CDC mem, pic;
    mem.CreateCompatibleDC(dc);
    mem.SelectObject(&canvas);
    pic.CreateCompatibleDC(dc);
    pic.SelectObject(m_pTrack);
    if (m_nVertical && m_nTrackHeight != m_pTrack->Height())
        mem.StretchBlt(0, 0, m_pTrack->Width(), m_nTrackHeight, &pic, 0, 0, m_pTrack->Width(),
                       m_pTrack->Height(), SRCCOPY);
    else
        mem.BitBlt(0, 0, w, h, &pic, 0, 0, SRCCOPY);

    const float range = m_fMax - m_fMin;
    if (m_pKnob && !m_pKnob->IsEmpty()) {
        const int kw = m_pKnob->Width(), kh = m_pKnob->Height();
        pic.SelectObject(m_pKnob);
        if (m_nVertical) {
            const int y0 = m_ptMin.y, y1 = m_ptMax.y;
            int top;
            if (range == 0)
                top = y0 - kh / 2;
            else if (m_bLog)
                top = static_cast<int>(
                          y0 + (y1 - y0) * std::log10((m_fValue - m_fMin) / range * 9 + 1) + 0.5) -
                      kh / 2;
            else
                top = static_cast<int>(y0 - (m_fValue - m_fMin) * (y0 - y1) / range - 0.5 * kh);
            if (!m_bHideKnob)
                mem.BitBlt(m_ptMin.x, top, kw, kh, &pic, 0, 0, SRCCOPY);
        } else {
            const int x0 = m_ptMin.x, x1 = m_ptMax.x;
            const int left =
                range == 0
                    ? static_cast<int>(x0 - 0.5 * kw)
                    : static_cast<int>(x0 + (m_fValue - m_fMin) * (x1 - x0) / range - 0.5 * kw);
            if (m_pFill && !m_pFill->IsEmpty() && left > 0) {
                CDC fill;
                fill.CreateCompatibleDC(dc);
                fill.SelectObject(m_pFill);
                mem.BitBlt(0, m_ptMin.y, left, kh, &fill, 0, 0, SRCCOPY);
            }
            if (!m_bHideKnob)
                mem.BitBlt(left, m_ptMin.y, kw, kh, &pic, 0, 0, SRCCOPY);
        }
    }
    dc->BitBlt(m_rcHit.left, m_rcHit.top, w, h, &mem, 0, 0, SRCCOPY);
}
