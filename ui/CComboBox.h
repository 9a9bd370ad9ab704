#pragma once

#include <string>
#include <vector>

#include "CWnd.h"

// A drop-down list combo box (CBS_DROPDOWNLIST): shows the selected entry; a click, or Alt+Down,
// opens the list (up to 12 rows, scrolling). Up and Down change the selection in place. A change
// made by the user sends CBN_SELCHANGE to the parent.
class CComboBox : public CWnd {
public:
    BOOL Create(DWORD style, const CRect& rect, CWnd* parent, UINT id);
    int AddString(const char* text);
    void ResetContent();
    int GetCount() const { return static_cast<int>(m_items.size()); }
    int GetCurSel() const { return m_nSel; }
    int SetCurSel(int index); // -1 clears; returns the selection or -1 (CB_ERR)
    void GetLBText(int index, CString& text) const;
    // Opens the list as a click does; returns when it closes.
    void ShowDropDown();
    bool WantsKeys() const override { return true; }

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnPaint();
    void OnLButtonDown(UINT flags, CPoint point);
    void OnKeyDown(UINT key, UINT repeat, UINT flags);

private:
    void UserSelects(int index);
    std::vector<std::string> m_items;
    int m_nSel = -1;
};
