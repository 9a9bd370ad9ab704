#pragma once

#include "CEdit.h"
#include "CSpinButtonCtrl.h"
#include "CWnd.h"

class CFont;

// What the two popup editors share: a child window, hidden until shown over a control, holding a
// field and a spin button side by side and sized to the field's digits in its font. Return sends
// 0x0A01 and Escape 0x0A00 to the window to notify, which then reads the field.
class CKDXEditPopup : public CWnd {
public:
    static constexpr UINT kEditID = 18001, kSpinID = 18000;

    BOOL MakeWindow(CWnd* parent, CWnd* notify, const char* title, DWORD attributes, int digits,
                    CFont* font, bool signFlag);
    void ChangeSize(int digits, bool signFlag);
    virtual void SetSingnFlag(bool sign) { m_bSign = sign; }
    void OnReturn();
    void OnEscape();
    CSpinButtonCtrl& Spin() { return m_spin; }

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    virtual CEdit& Field() = 0;
    virtual BOOL CreateField(const CRect& rect) = 0;
    int OnCreate(LPCREATESTRUCT cs);
    LRESULT OnInputReturn(WPARAM, LPARAM);
    LRESULT OnInputEscape(WPARAM, LPARAM);
    // The spin's range and position, the focus, the field's text and a whole selection.
    void ShowValue(int value, int minimum, int maximum);

    CSpinButtonCtrl m_spin;
    CWnd* m_pNotify = nullptr;
    int m_nLimit = 0;
    bool m_bSign = false;
    CFont* m_pEditFont = nullptr;
    int m_nCharWidth = 0, m_nCharHeight = 0, m_nSpinWidth = 0;

private:
    CSize Layout() const;
};
