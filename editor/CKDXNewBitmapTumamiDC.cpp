#include "CKDXNewBitmapTumamiDC.h"

#include <algorithm>
#include <cmath>

#include "CDC.h"
#include "CWnd.h"

namespace {

// Deliberately the ten-digit value the knob has always used.
constexpr double kPi = 3.141592653;

} // namespace

void CKDXNewBitmapTumamiDC::Make(CRect& rect, CRect& invalidate, CWnd* parent, CKDXBitmap* film,
                                 float min, float max, unsigned id, int frames, float angleMin,
                                 float angleMax, int extra, bool logarithmic, KDXCALLBACK callback,
                                 void* user) {
    m_rcKnob = rect;
    m_rcInvalidate = invalidate;
    m_pParent = parent;
    m_pFilm = film;
    m_fMin = min;
    m_fMax = max;
    m_nID = id;
    m_fAngleMin = angleMin;
    m_fAngleMax = angleMax;
    m_nExtra = extra;
    m_bLog = logarithmic;
    m_pCallback = callback;
    m_pUser = user;
    m_fValue = m_fLastValue = 65535.0f; // so that the next line always counts as a change
    SetValue(min + 0.5f * (max - min), nullptr, false);
    m_fValuePerFrame = frames > 1 ? (max - min) / static_cast<float>(frames - 1) : (max - min);
    m_bDragging = false;
}

void CKDXNewBitmapTumamiDC::Invalidate() {
    if (m_pParent && !m_rcInvalidate.IsRectEmpty())
        m_pParent->InvalidateRect(&m_rcInvalidate);
}

void CKDXNewBitmapTumamiDC::SetValue(float value, CDC* dc, bool notify) {
    value = std::clamp(value, m_fMin, m_fMax);
    if (value == m_fValue)
        return;
    m_fValue = value;
    // linear in the angle, even for a logarithmic knob
    m_dAngle = m_fMax == m_fMin ? m_fAngleMin
                                : m_fAngleMin + (m_fAngleMax - m_fAngleMin) * (value - m_fMin) /
                                                    (m_fMax - m_fMin);
    m_fLastValue = value;
    if (notify && m_pCallback)
        m_pCallback(static_cast<int>(m_nID), value, m_pUser, 0);
    if (dc)
        Draw(dc);
    Invalidate();
}

void CKDXNewBitmapTumamiDC::SetValue(CPoint point) {
    const int dx = point.x - m_rcKnob.left - m_rcKnob.Width() / 2;
    const int dy = point.y - m_rcKnob.top - m_rcKnob.Height() / 2;
    if (dx == 0 && dy == 0)
        return;
    double angle;
    if (dx > 0) {
        angle = -std::atan2(dx, dy) * 180 / kPi + 360;
        if (m_fLastValue == m_fMin)
            angle = m_fAngleMin;
    } else if (dx < 0) {
        angle = -std::atan2(dx, dy) * 180 / kPi;
        if (m_fLastValue == m_fMax)
            angle = m_fAngleMax;
    } else {
        angle = dy < 0 ? 180 : 0;
        if (m_fLastValue == m_fMax)
            angle = m_fAngleMax;
        else if (m_fLastValue == m_fMin)
            angle = m_fAngleMin;
    }
    angle = std::clamp(angle, static_cast<double>(m_fAngleMin), static_cast<double>(m_fAngleMax));
    const double f =
        m_fAngleMax == m_fAngleMin ? 0 : (angle - m_fAngleMin) / (m_fAngleMax - m_fAngleMin);
    const float value =
        m_bLog ? static_cast<float>(m_fMin + (m_fMax - m_fMin) * (std::pow(10.0, f) - 1) / 9)
               : static_cast<float>(m_fMin + f * (m_fMax - m_fMin));
    m_fValue = value;
    m_dAngle = angle;
    m_fLastValue = value;
    Invalidate();
    if (m_pCallback)
        m_pCallback(static_cast<int>(m_nID), value, m_pUser, 0);
}

int CKDXNewBitmapTumamiDC::GetIndexValue() const {
    return static_cast<int>(std::ceil((m_fValue - m_fMin) / m_fValuePerFrame));
}

bool CKDXNewBitmapTumamiDC::PtInTumami(CPoint point) {
    if (!m_rcKnob.PtInRect(point))
        return false;
    if (m_pParent)
        m_pParent->SetCapture();
    m_bDragging = true;
    return true;
}

void CKDXNewBitmapTumamiDC::OnMouseMove(CPoint point, CDC* dc) {
    if (!m_bDragging)
        return;
    SetValue(point);
    Draw(dc);
}

void CKDXNewBitmapTumamiDC::OnLButtonUp(CPoint point, CDC* dc) {
    if (!m_bDragging)
        return;
    CWnd::ReleaseCapture();
    m_bDragging = false;
    SetValue(point);
    m_fLastValue = -1.0f; // the next drag may start at either end
    Draw(dc);
}

int CKDXNewBitmapTumamiDC::Frame() const {
    // The logarithmic frame count divides by the same value per frame: it matches a 0..1 range,
    // deliberately.
    const double f =
        m_bLog ? std::log10((m_fValue - m_fMin) / (m_fMax - m_fMin) * 9 + 1) / m_fValuePerFrame
               : (m_fValue - m_fMin) / m_fValuePerFrame;
    return static_cast<int>(std::floor(f + 0.5));
}

void CKDXNewBitmapTumamiDC::Draw(CDC* dc) {
    if (!dc || !m_pFilm || m_pFilm->IsEmpty())
        return;
    CDC mem;
    mem.CreateCompatibleDC(dc);
    mem.SelectObject(m_pFilm);
    dc->BitBlt(m_rcKnob.left, m_rcKnob.top, m_rcKnob.Width(), m_rcKnob.Height(), &mem, 0,
               Frame() * m_rcKnob.Height(), SRCCOPY);
}
