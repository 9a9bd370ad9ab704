#include "CMenu.h"

#include <memory>

#include "CFont.h"
#include "CPopupList.h"
#include "CWnd.h"

BOOL CMenu::CreatePopupMenu() {
    m_items.clear();
    return TRUE;
}

BOOL CMenu::AppendMenu(UINT flags, UINT id, const char* text) {
    m_items.push_back({flags, id, text ? text : ""});
    return TRUE;
}

UINT CMenu::GetMenuState(UINT id) const {
    for (const Entry& e : m_items)
        if (e.id == id && !(e.flags & MF_SEPARATOR))
            return e.flags;
    return 0xFFFFFFFF;
}

BOOL CMenu::DestroyMenu() {
    m_items.clear();
    return TRUE;
}

BOOL CMenu::TrackPopupMenu(UINT flags, int x, int y, CWnd* owner, const CRect*) {
    if (!owner || !owner->m_hWnd || m_items.empty())
        return FALSE;
    std::vector<CPopupList::Item> rows;
    for (const Entry& e : m_items)
        rows.push_back({e.text, (e.flags & MF_CHECKED) != 0,
                        (e.flags & (MF_GRAYED | MF_DISABLED)) != 0, (e.flags & MF_SEPARATOR) != 0});
    CPoint at(x, y);
    owner->ClientToScreen(&at);
    CFont fallback;
    CFont* font = m_pFont;
    if (!font) {
        fallback.CreatePointFont(90, "sans-serif");
        font = &fallback;
    }
    auto list = std::make_unique<CPopupList>();
    const int row = list->Track(owner, std::move(rows), at, 0, -1, 0, font);
    list.reset();
    if (row < 0)
        return 0;
    const UINT id = m_items[static_cast<size_t>(row)].id;
    if (flags & TPM_RETURNCMD)
        return static_cast<BOOL>(id);
    owner->PostMessage(WM_COMMAND, MAKEWPARAM(id, 0), 0);
    return TRUE;
}
