#pragma once

#include <string>
#include <vector>

#include "CWnd.h"

// A single-selection list box: rows of text in a sunken frame, scrolled by the wheel and kept
// around the selection. A click selects (LBN_SELCHANGE to the parent), a double click or Return
// opens the row (LBN_DBLCLK); Up, Down, Page Up, Page Down, Home and End move the selection.
class CListBox : public CWnd {
public:
    BOOL Create(DWORD style, const CRect& rect, CWnd* parent, UINT id);
    int AddString(const char* text);
    void ResetContent();
    int GetCount() const { return static_cast<int>(m_items.size()); }
    int GetCurSel() const { return m_nSel; }
    int SetCurSel(int index); // -1 clears; returns the selection or -1
    void GetText(int index, CString& text) const;
    bool WantsKeys() const override { return true; }

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnPaint();
    void OnLButtonDown(UINT flags, CPoint point);
    void OnLButtonDblClk(UINT flags, CPoint point);
    void OnMouseWheel(UINT flags, CPoint point);
    void OnKeyDown(UINT key, UINT repeat, UINT flags);

private:
    int RowHeight() const;
    int VisibleRows() const;
    void Select(int index, bool notify);

    std::vector<std::string> m_items;
    int m_nSel = -1;
    int m_nTop = 0; // the first row shown
};
