#include "CFormatEdit.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "CSpinButtonCtrl.h"
#include "CXConnection.h"

BEGIN_MESSAGE_MAP(CFormatEdit, CEdit)
ON_WM_CHAR()
ON_WM_KILLFOCUS()
END_MESSAGE_MAP()

double CFormatEdit::atof(const char* text) {
    const double v = std::atof(text ? text : "");
    if (v != v)
        return 0;
    return std::clamp(v, -kMaxDouble, kMaxDouble);
}

double CFormatEdit::atof_and_limitchk(const char* text) const {
    return std::clamp(atof(text), m_dMin, m_dMax);
}

std::string CFormatEdit::Format(double value) const {
    char buf[400];
    std::snprintf(buf, sizeof(buf), m_pszFormat, value);
    return buf;
}

std::string CFormatEdit::IntegerOf(double value, double scale) {
    // "%d" of the truncated product, held to what an int can say
    const double v = std::trunc(value * scale);
    const int i = v != v               ? 0
                  : v >= 2147483647.0  ? 2147483647
                  : v <= -2147483648.0 ? INT32_MIN
                                       : static_cast<int>(v);
    return std::to_string(i);
}

std::string CFormatEdit::Text() const {
    char buf[319];
    CEdit::GetWindowText(buf, sizeof(buf));
    return buf;
}

void CFormatEdit::ShowValue(double value) {
    SetText(Format(value));
    m_strInt = IntegerForm(value);
}

void CFormatEdit::SetWindowText(const char* text) {
    const double value = atof(text) / m_dScale;
    const std::string shown = Format(value);
    if (shown == m_strText)
        return; // no change, no notification loop
    SetText(shown);
    m_strInt = IntegerForm(value);
}

int CFormatEdit::GetWindowText(char* buffer, int size) const {
    if (!buffer || size <= 0)
        return 0;
    const std::string v = IntegerForm(atof(m_strText.c_str()));
    std::snprintf(buffer, static_cast<size_t>(size), "%s", v.c_str());
    return static_cast<int>(std::min(v.size(), static_cast<size_t>(size - 1)));
}

void CFormatEdit::GetWindowText(CString& text) const {
    char buf[32];
    GetWindowText(buf, sizeof(buf));
    text = CString(buf);
}

void CFormatEdit::SetTextForSpin(const char* text) {
    ShowValue(std::atoi(text ? text : "") / m_dScale);
}

void CFormatEdit::NotifySpinButton() {
    CSpinButtonCtrl* spin = GetSpin();
    if (!spin)
        return;
    const char* p = m_strInt.c_str();
    const bool negative = *p == '-';
    if (negative)
        ++p;
    if (!*p || std::strspn(p, "0123456789") != std::strlen(p))
        return; // not a plain integer: the spin keeps its place
    spin->SetPos32(std::atoi(m_strInt.c_str()));
}

void CFormatEdit::SetInputMinMax(double minimum, double maximum) {
    if (maximum > minimum) {
        m_dMax = maximum;
        m_dMin = minimum;
    }
}

bool CFormatEdit::Accepted(UINT ch, bool sign) {
    return (ch >= '0' && ch <= '9') || ch == kCharBackspace || ch == kCharMappedLeft ||
           ch == kCharMappedRight || ch == '.' || (ch == '-' && sign);
}

void CFormatEdit::Committed() {
    NotifyParent(0);
}

void CFormatEdit::FixInputText() {
    ShowValue(atof_and_limitchk(Text().c_str()));
    Committed();
}

void CFormatEdit::OnChar(UINT ch, UINT, UINT) {
    if (!Accepted(ch, m_bSign)) {
        FixInputText(); // Return and Escape included
        return;
    }
    Default();
    // the integer form follows the typing; the shown text is left as typed
    m_strInt = IntegerForm(atof(Text().c_str()));
    AfterChar();
}

void CFormatEdit::OnKillFocus(CWnd* next) {
    CEdit::OnKillFocus(next);
    FixInputText();
}

BOOL CFormatEdit::PreTranslateMessage(MSG* msg) {
    if (msg->message != WM_KEYDOWN || msg->wParam == kKeyTab)
        return CEdit::PreTranslateMessage(msg);
    // Handled here: the key-down, then the key's character translated (Enter to Return, the arrow
    // characters to the codes the filter takes), with the layer's call-cancel flag set meanwhile.
    auto keep = Connection() ? Connection()->shared_from_this() : nullptr;
    CXConnection* conn = keep.get();
    UINT ch = conn ? conn->CurrentChar() : 0;
    if (ch == kCharEnter)
        ch = kCharReturn;
    else if (ch == kCharLeft)
        ch = kCharMappedLeft;
    else if (ch == kCharRight)
        ch = kCharMappedRight;
    const HWND self = m_hWnd;
    if (conn)
        conn->m_bCallCancel = true;
    SendMessage(WM_KEYDOWN, msg->wParam, msg->lParam);
    if (ch && m_hWnd == self)
        SendMessage(WM_CHAR, ch, msg->lParam);
    if (conn)
        conn->m_bCallCancel = false;
    msg->message = 0;
    return TRUE;
}
