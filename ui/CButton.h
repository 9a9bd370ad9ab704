#pragma once

#include "CWnd.h"

// A push button: a click (press and release on it), Space or Return while focused sends
// BN_CLICKED to the parent. BS_DEFPUSHBUTTON draws it as the default.
class CButton : public CWnd {
public:
    BOOL Create(const char* caption, DWORD style, const CRect& rect, CWnd* parent, UINT id);
    void Click();
    bool WantsKeys() const override { return true; }

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    LRESULT DefWindowProc(UINT message, WPARAM wParam, LPARAM lParam) override;
    void OnPaint();
    void OnLButtonDown(UINT flags, CPoint point);
    void OnMouseMove(UINT flags, CPoint point);
    void OnLButtonUp(UINT flags, CPoint point);

private:
    bool m_bDown = false;
    bool m_bTracking = false;
};
