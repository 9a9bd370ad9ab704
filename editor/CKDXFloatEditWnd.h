#pragma once

#include "CKDXEditPopup.h"
#include "CNormalFloatEdit.h"

// The popup editor for a value with decimals (the panel's read-outs).
class CKDXFloatEditWnd : public CKDXEditPopup {
public:
    // value, minimum and maximum in integer form (value x scale)
    void SetNewValue(int value, int minimum, int maximum) { ShowValue(value, minimum, maximum); }
    void SetSingnFlag(bool sign) override {
        CKDXEditPopup::SetSingnFlag(sign);
        m_edit.SetSingnFlag(sign);
    }
    CNormalFloatEdit& Edit() { return m_edit; }

protected:
    CEdit& Field() override { return m_edit; }
    BOOL CreateField(const CRect& rect) override {
        return m_edit.MakeWindow(WS_CHILD | WS_VISIBLE | WS_TABSTOP | ES_RIGHT, rect, this, kEditID,
                                 m_bSign);
    }

private:
    CNormalFloatEdit m_edit;
};
