#pragma once

#include "CKDXBitmap.h"
#include "CRect.h"
#include "KDXCallback.h"

class CDC;
class CWnd;

// A rotary knob ("tumami") drawn from a film strip of frames stacked vertically. Dragging turns
// it by the pointer's angle around its centre, measured clockwise from straight down; a knob that
// reached an end does not jump across the gap at the bottom to the other end until released.
class CKDXNewBitmapTumamiDC {
public:
    void Make(CRect& rect, CRect& invalidate, CWnd* parent, CKDXBitmap* film, float min, float max,
              unsigned id, int frames, float angleMin, float angleMax, int extra, bool logarithmic,
              KDXCALLBACK callback, void* user);
    void SetValue(float value, CDC* dc, bool notify);
    void SetValue(CPoint point);
    float GetValue() const { return m_fValue; }
    int GetIndexValue() const;
    double GetAngle() const { return m_dAngle; }
    void GetRect(CRect* rect) const { *rect = m_rcKnob; }
    void SetNewRect(CRect& rect, CRect& invalidate) {
        m_rcKnob = rect;
        m_rcInvalidate = invalidate;
    }
    bool PtInTumami(CPoint point);
    bool IsDragging() const { return m_bDragging; }
    void OnMouseMove(CPoint point, CDC* dc);
    void OnLButtonUp(CPoint point, CDC* dc);
    void Draw(CDC* dc);
    // The frame Draw shows for the current value.
    int Frame() const;

private:
    void Invalidate();

    unsigned m_nID = 0;
    CKDXBitmap* m_pFilm = nullptr;
    CWnd* m_pParent = nullptr;
    float m_fMin = 0, m_fMax = 1, m_fValue = 0;
    CRect m_rcKnob;
    float m_fAngleMin = 0, m_fAngleMax = 360;
    int m_nExtra = 0; // kept, never read
    double m_dAngle = 0;
    float m_fLastValue = 0;
    float m_fValuePerFrame = 1;
    bool m_bLog = false, m_bDragging = false;
    KDXCALLBACK m_pCallback = nullptr;
    void* m_pUser = nullptr;
    CRect m_rcInvalidate;
};
