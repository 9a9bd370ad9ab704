#pragma once

#include "CFormatEdit.h"

// Points with one decimal; the integer form is in tenths.
class CPointEdit : public CFormatEdit {
public:
    CPointEdit() : CFormatEdit("%.1fpoint", 10.0) {}
    void SetLimitInputText(int digits) override {
        SetLimitText(static_cast<UINT>((m_bSign ? 1 : 0) + digits + 7));
    }
};
