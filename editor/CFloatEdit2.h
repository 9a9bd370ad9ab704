#pragma once

#include "CFormatEdit.h"

// A plain value with one decimal that keeps the formatted text as what the owner reads, and tells
// its parent of every edit with message 0x0A01 (posted) instead of WM_COMMAND.
class CFloatEdit2 : public CFormatEdit {
public:
    CFloatEdit2() : CFormatEdit("%.1f", 1.0) {}
    void SetLimitInputText(int digits) override {
        SetLimitText(static_cast<UINT>((m_bSign ? 1 : 0) + digits + 2));
    }
    int GetWindowText(char* buffer, int size) const override;

protected:
    std::string IntegerForm(double value) const override { return Format(value); }
    void Committed() override;
    void AfterChar() override { Committed(); }
};
