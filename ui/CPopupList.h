#pragma once

#include <string>
#include <vector>

#include "CWnd.h"

class CFont;

// The list that a popup menu and a drop-down combo box show: an override-redirect window that
// holds the pointer and the keyboard while it is open, tracked modally. Rows can be checked,
// disabled or separators. A list taller than the screen wraps into columns (menus) or scrolls
// (combo boxes, maxRows > 0).
class CPopupList : public CWnd {
public:
    struct Item {
        std::string text;
        bool checked = false;
        bool disabled = false;
        bool separator = false;
    };
    // Shows the list with its top-left at the screen point and returns the chosen row, or -1.
    int Track(CWnd* owner, std::vector<Item> items, CPoint screen, int minWidth, int current,
              int maxRows, CFont* font);
    bool WantsKeys() const override { return true; }

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnPaint();
    void OnMouseMove(UINT flags, CPoint point);
    void OnLButtonDown(UINT flags, CPoint point);
    void OnLButtonUp(UINT flags, CPoint point);
    void OnMouseWheel(UINT flags, CPoint point);
    void OnKeyDown(UINT key, UINT repeat, UINT flags);

private:
    int RowAt(CPoint point) const;
    CRect RowRect(int row) const;
    void Highlight(int row);
    void Finish(int chosen);
    bool Enabled(int row) const;

    std::vector<Item> m_items;
    int m_nRowHeight = 20, m_nColumnWidth = 100, m_nRowsPerColumn = 1, m_nScroll = 0;
    int m_nVisibleRows = 0; // scrolling lists
    bool m_bScrolls = false;
    int m_nHot = -1;
    int m_nChosen = -1;
    bool m_bDone = false;
    bool m_bPressedInside = false;
    unsigned long m_nOpenedAt = 0;
    CPoint m_ptOpened;
};
