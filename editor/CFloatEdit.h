#pragma once

#include "CFormatEdit.h"

// Millimetres with one decimal; the integer form is in hundredths.
class CFloatEdit : public CFormatEdit {
public:
    CFloatEdit() : CFormatEdit("%.1fmm", 100.0) {}
    void SetLimitInputText(int digits) override {
        SetLimitText(static_cast<UINT>((m_bSign ? 1 : 0) + digits + 4));
    }
};
