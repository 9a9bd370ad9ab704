#pragma once

#include "CWnd.h"

// A text label, left-aligned and vertically centred.
class CStatic : public CWnd {
public:
    BOOL Create(const char* text, DWORD style, const CRect& rect, CWnd* parent, UINT id = 0xFFFF);

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnPaint();
};
