#pragma once

#include <string>
#include <vector>

#include "CRect.h"
#include "WinDefs.h"

class CFont;
class CWnd;

// A popup menu: entries with an id and checked, disabled or greyed flags, tracked modally at a
// point in the owner window's coordinates. The chosen entry arrives at the owner as WM_COMMAND
// (posted), or is returned with TPM_RETURNCMD.
class CMenu {
public:
    BOOL CreatePopupMenu();
    BOOL AppendMenu(UINT flags, UINT id = 0, const char* text = nullptr);
    int GetMenuItemCount() const { return static_cast<int>(m_items.size()); }
    UINT GetMenuState(UINT id) const; // the flags of the entry with this id; 0xFFFFFFFF if none
    BOOL DestroyMenu();
    // x and y are in owner's client coordinates. Returns the id with TPM_RETURNCMD (0 when
    // nothing was chosen), else whether an entry was chosen.
    BOOL TrackPopupMenu(UINT flags, int x, int y, CWnd* owner, const CRect* = nullptr);
    // The font entries are drawn in (the layer's default when not set).
    void SetFont(CFont* font) { m_pFont = font; }

private:
    struct Entry {
        UINT flags;
        UINT id;
        std::string text;
    };
    std::vector<Entry> m_items;
    CFont* m_pFont = nullptr;
};
