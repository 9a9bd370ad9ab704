#pragma once

#include "CFormatEdit.h"

// Whole milliseconds.
class CMiliSecondEdit : public CFormatEdit {
public:
    CMiliSecondEdit() : CFormatEdit("%.0fms", 1.0) {}
    void SetLimitInputText(int digits) override {
        SetLimitText(static_cast<UINT>((m_bSign ? 1 : 0) + digits + 2));
    }
};
