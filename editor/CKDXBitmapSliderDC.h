#pragma once

#include "CKDXBitmap.h"
#include "CRect.h"
#include "KDXCallback.h"

class CDC;
class CWnd;

// A picture slider: a track, an optional fill (horizontal) and a knob, vertical or horizontal,
// linear or logarithmic (vertical only), reversed, two-position or with its knob hidden. The
// knob's centre sits at the minimum point for the minimum and at the maximum point for the
// maximum (points relative to the hit rectangle).
class CKDXBitmapSliderDC {
public:
    void Make(CRect& hit, CRect& invalidate, CWnd* parent, CKDXBitmap* track, CKDXBitmap* fill,
              CKDXBitmap* knob, float min, float max, CPoint minPoint, CPoint maxPoint, unsigned id,
              int vertical, bool logarithmic, bool reversed, bool hideKnob, bool twoPosition,
              KDXCALLBACK callback, void* user);
    void Enable(bool enable) { m_bEnabled = enable; }
    void GetRect(CRect* rect) const { *rect = m_rcHit; }
    void SetNewRect(CRect& hit, CRect& invalidate) {
        m_rcHit = hit;
        m_rcInvalidate = invalidate;
    }
    float GetValue() const { return m_fValue; }
    bool IsDragging() const { return m_bDragging; }

    void SetValue(float value, CDC* dc, bool notify);
    // Starts a drag when the point hits an enabled slider (the mouse is captured).
    bool PtInSwitch(CPoint point);
    bool SetValueByPoint(CPoint point, int flag);
    void OnMouseMove(CPoint point, CDC* dc);
    void OnLButtonUp(CPoint point, CDC* dc);
    void DrawSlider(CDC* dc);

private:
    void Invalidate();

    float m_fMin = 0, m_fMax = 1;
    CPoint m_ptMin, m_ptMax;
    unsigned m_nID = 0;
    int m_nVertical = 1;
    CKDXBitmap* m_pTrack = nullptr;
    CKDXBitmap* m_pFill = nullptr;
    CKDXBitmap* m_pKnob = nullptr;
    bool m_bDragging = false;
    float m_fValue = 0;
    bool m_bHideKnob = false, m_bLog = false, m_bReversed = false, m_bTwoPosition = false;
    double m_dDecades = 0, m_dPixelsPerDecade = 0; // kept for the logarithmic case, unused
    int m_nTrackWidth = 0, m_nTrackHeight = 0;
    CRect m_rcHit, m_rcInvalidate;
    CWnd* m_pParent = nullptr;
    KDXCALLBACK m_pCallback = nullptr;
    void* m_pUser = nullptr;
    bool m_bEnabled = true;
};
