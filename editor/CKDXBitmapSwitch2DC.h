#pragma once

#include "CKDXBitmap.h"
#include "CRect.h"
#include "KDXCallback.h"

class CDC;
class CWnd;

// A two-state picture switch. The off and on pictures each hold the released image above the
// pressed one. A stay-on switch, once on, refuses every change. The mouse only shows the press;
// the owner changes the value with SetValue.
class CKDXBitmapSwitch2DC {
public:
    void Make(CRect& hit, CWnd* parent, CKDXBitmap* off, CKDXBitmap* on, unsigned id,
              CRect& invalidate, bool stayOn, CKDXBitmap* mask, KDXCALLBACK callback, void* user);
    void SetNewRect(CRect& hit, CRect& invalidate) {
        m_rcHit = hit;
        m_rcInvalidate = invalidate;
    }
    void SetDisableBmp(CKDXBitmap* bitmap) { m_pDisable = bitmap; }
    void Enable(bool enable) { m_bEnabled = enable; }
    void SetSelect(bool select) { m_bSelected = select; }
    bool IsEnabled() const { return m_bEnabled; }
    bool IsStayOn() const { return m_bStayOn; }

    void SetValue(int value, bool notify);
    bool GetValue() const { return m_nValue != 0; }
    bool IsDown() const { return m_bPressed; }
    bool PtInSwitch(CPoint point) const { return m_rcHit.PtInRect(point); }

    void LButtonDown(CDC* dc);
    void LButtonUp(CDC* dc);
    void LButtonDblClk(CDC* dc) { LButtonDown(dc); }
    void RButtonDown(CDC* dc) { LButtonDown(dc); }
    void RButtonUp(CDC* dc) { LButtonUp(dc); }
    void RButtonDblClk(CDC* dc) { LButtonDown(dc); }
    void DrawSwitch(CDC* dc);

private:
    bool Locked() const { return m_bStayOn && m_nValue != 0; }

    unsigned m_nID = 0;
    bool m_bPressed = false;
    bool m_bStayOn = false;
    CKDXBitmap* m_pOff = nullptr;
    CKDXBitmap* m_pOn = nullptr;
    CKDXBitmap* m_pMask = nullptr;
    CKDXBitmap* m_pDisable = nullptr;
    int m_nValue = 0;
    bool m_bSelected = false;
    bool m_bEnabled = true;
    CRect m_rcInvalidate;
    CRect m_rcHit;
    CWnd* m_pParent = nullptr;
    KDXCALLBACK m_pCallback = nullptr;
    void* m_pUser = nullptr;
};
