#include "CKDXSpinEdit.h"

#include <cstdio>
#include <cstdlib>

BEGIN_MESSAGE_MAP(CKDXSpinEdit, CEdit)
ON_WM_KEYDOWN()
END_MESSAGE_MAP()

BOOL CKDXSpinEdit::MakeWindow(DWORD style, const CRect& rect, CWnd* parent, UINT id, int minimum,
                              int maximum, bool signFlag) {
    m_nNotifyID = id;
    m_nMin = minimum;
    m_nMax = maximum;
    m_bSign = signFlag;
    return Create(style, rect, parent, id);
}

void CKDXSpinEdit::SetValue(int value) {
    char text[16];
    std::snprintf(text, sizeof(text), "%d", value);
    SetWindowText(text);
}

void CKDXSpinEdit::SetNewValue(int value, int minimum, int maximum) {
    SetRange(minimum, maximum);
    SetValue(value);
}

void CKDXSpinEdit::OnKeyDown(UINT key, UINT, UINT) {
    if (key == kKeyEnter || key == kKeyReturn) {
        char text[101];
        GetWindowText(text, sizeof(text));
        int v = std::atoi(text);
        if (v > m_nMax)
            SetValue(v = m_nMax);
        if (v < m_nMin)
            SetValue(v = m_nMin);
        if (m_pParent)
            m_pParent->SendMessage(0x0A01, m_nNotifyID,
                                   static_cast<LPARAM>(static_cast<uint16_t>(v)));
    } else if (key == kKeyEscape) {
        if (m_pParent)
            m_pParent->SendMessage(0x0A00, m_nNotifyID, 0);
    } else {
        Default();
    }
}
