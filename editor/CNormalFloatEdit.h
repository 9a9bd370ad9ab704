#pragma once

#include "CFormatEdit.h"

// A plain value with a chosen number of decimals (one until SetFloatPoint); Return (and keypad
// Enter) send 0x0A01 and Escape 0x0A00 to the parent, which is how the popup editor hears them.
class CNormalFloatEdit : public CFormatEdit {
public:
    CNormalFloatEdit() : CFormatEdit(m_szFormat, 10.0) {}
    BOOL MakeWindow(DWORD style, const CRect& rect, CWnd* parent, UINT id, bool signFlag);
    void SetFloatPoint(int decimals);
    void ProcRet();
    void ProcEsc();

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnChar(UINT ch, UINT repeat, UINT flags);
    void OnKeyDown(UINT key, UINT repeat, UINT flags);

private:
    char m_szFormat[16] = "%.1f";
};
