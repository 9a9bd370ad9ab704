#pragma once

#include "CKDXEditPopup.h"
#include "CKDXSpinEdit.h"

// The popup editor for a whole number (from 1 up).
class CKDXSpinEditWnd : public CKDXEditPopup {
public:
    void SetNewValue(int value, int minimum, int maximum) {
        m_edit.SetRange(minimum, maximum);
        ShowValue(value, minimum, maximum);
    }
    void SetSingnFlag(bool sign) override {
        CKDXEditPopup::SetSingnFlag(sign);
        m_edit.SetSingnFlag(sign);
    }
    CKDXSpinEdit& Edit() { return m_edit; }

protected:
    CEdit& Field() override { return m_edit; }
    BOOL CreateField(const CRect& rect) override {
        return m_edit.MakeWindow(WS_CHILD | WS_VISIBLE | WS_TABSTOP | ES_RIGHT, rect, this, kEditID,
                                 1, 0x7FFFFFFF, m_bSign);
    }

private:
    CKDXSpinEdit m_edit;
};
