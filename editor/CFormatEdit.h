#pragma once

#include <string>

#include "CEdit.h"

// A numeric edit field: accepts only digits, '.', Backspace, the mapped arrows and (when signed)
// '-'; shows its value in a fixed format with a unit; keeps an integer form of the value (value
// x scale, truncated) that the owner reads with GetWindowText. Any other key fixes the text up:
// the value is clamped to the field's range and shown again in its format.
class CFormatEdit : public CEdit {
public:
    static constexpr double kMaxDouble = 1.7976931348623157e308;

    CFormatEdit(const char* format, double scale) : m_pszFormat(format), m_dScale(scale) {}

    // Shows atof(text) / scale in the format; nothing when that is what is shown already.
    void SetWindowText(const char* text) override;
    // The integer form: "%d" of trunc(atof(text) x scale).
    int GetWindowText(char* buffer, int size) const override;
    void GetWindowText(CString& text) const;
    // The spin button's integer position shown as a value.
    void SetTextForSpin(const char* text);
    void NotifySpinButton();
    void SetSingnFlag(bool sign) { m_bSign = sign; }
    bool GetSingnFlag() const { return m_bSign; }
    void SetInputMinMax(double minimum, double maximum);
    virtual void SetLimitInputText(int digits) {
        SetLimitText(static_cast<UINT>((m_bSign ? 1 : 0) + digits));
    }
    virtual void FixInputText();
    static double atof(const char* text);
    double atof_and_limitchk(const char* text) const;
    const std::string& IntegerText() const { return m_strInt; }
    BOOL PreTranslateMessage(MSG* msg) override;

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnChar(UINT ch, UINT repeat, UINT flags);
    void OnKillFocus(CWnd* next);
    static bool Accepted(UINT ch, bool sign);
    std::string Format(double value) const;
    static std::string IntegerOf(double value, double scale);
    // What the owner reads for a value: the integer form ("%d" of value x scale).
    virtual std::string IntegerForm(double value) const { return IntegerOf(value, m_dScale); }
    virtual void AfterChar() {}   // after an accepted character was handled
    void ShowValue(double value); // the text in the format, and the integer form with it
    void SetText(const std::string& text) { CEdit::SetWindowText(text.c_str()); }
    std::string Text() const; // the shown text, at most 318 characters
    virtual void Committed(); // after a fix-up: WM_COMMAND to the parent

    std::string m_strInt = "0";
    const char* m_pszFormat;
    double m_dScale;
    bool m_bSign = false;
    double m_dMax = kMaxDouble;
    double m_dMin = -kMaxDouble;
};
