#pragma once

#include "CEdit.h"

// An integer field for the spin popup: Return (and keypad Enter) clamp the typed number to the
// range, show it, and send 0x0A01 with the value; Escape sends 0x0A00.
class CKDXSpinEdit : public CEdit {
public:
    BOOL MakeWindow(DWORD style, const CRect& rect, CWnd* parent, UINT id, int minimum, int maximum,
                    bool signFlag);
    void SetValue(int value);
    void SetNewValue(int value, int minimum, int maximum);
    void SetRange(int minimum, int maximum) {
        m_nMin = minimum;
        m_nMax = maximum;
    }
    void SetSingnFlag(bool sign) { m_bSign = sign; }

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnKeyDown(UINT key, UINT repeat, UINT flags);

private:
    int32_t m_nMin = 0, m_nMax = 0;
    uint8_t m_bSign = 0;
    UINT m_nNotifyID = 0;
};
