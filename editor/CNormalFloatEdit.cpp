#include "CNormalFloatEdit.h"

#include <cmath>
#include <cstdio>

BEGIN_MESSAGE_MAP(CNormalFloatEdit, CFormatEdit)
ON_WM_CHAR()
ON_WM_KEYDOWN()
END_MESSAGE_MAP()

BOOL CNormalFloatEdit::MakeWindow(DWORD style, const CRect& rect, CWnd* parent, UINT id,
                                  bool signFlag) {
    m_bSign = signFlag;
    return Create(style, rect, parent, id);
}

void CNormalFloatEdit::SetFloatPoint(int decimals) {
    m_dScale = std::pow(10.0, decimals);
    std::snprintf(m_szFormat, sizeof(m_szFormat), "%%.%df", decimals);
}

void CNormalFloatEdit::OnChar(UINT ch, UINT, UINT) {
    if (Accepted(ch, m_bSign)) {
        Default();
        m_strInt = IntegerForm(atof(Text().c_str()));
        NotifyParent(0);
        return;
    }
    if (ch == kCharReturn || ch == kCharEscape)
        return; // the key-down handler reports these
    // anything else puts the text back in shape (held to the double range, not to the field's)
    ShowValue(atof(Text().c_str()));
    NotifyParent(0);
}

void CNormalFloatEdit::OnKeyDown(UINT key, UINT, UINT) {
    if (key == kKeyEnter || key == kKeyReturn)
        ProcRet();
    else if (key == kKeyEscape)
        ProcEsc();
    else
        Default();
}

void CNormalFloatEdit::ProcRet() {
    if (m_pParent)
        m_pParent->SendMessage(0x0A01, GetDlgCtrlID(), 0);
}

void CNormalFloatEdit::ProcEsc() {
    if (m_pParent)
        m_pParent->SendMessage(0x0A00, GetDlgCtrlID(), 0);
}
