#include "CFloatEdit2.h"

#include <algorithm>
#include <cstdio>

int CFloatEdit2::GetWindowText(char* buffer, int size) const {
    if (!buffer || size <= 0)
        return 0;
    std::snprintf(buffer, static_cast<size_t>(size), "%s", m_strInt.c_str());
    return static_cast<int>(std::min(m_strInt.size(), static_cast<size_t>(size - 1)));
}

void CFloatEdit2::Committed() {
    if (m_pParent)
        m_pParent->PostMessage(0x0A01, GetDlgCtrlID(), 0);
}
