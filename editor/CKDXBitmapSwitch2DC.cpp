#include "CKDXBitmapSwitch2DC.h"

#include "CDC.h"

void CKDXBitmapSwitch2DC::Make(CRect& hit, CWnd* parent, CKDXBitmap* off, CKDXBitmap* on,
                               unsigned id, CRect& invalidate, bool stayOn, CKDXBitmap* mask,
                               KDXCALLBACK callback, void* user) {
    m_rcHit = hit;
    m_pParent = parent;
    m_pOff = off;
    m_pOn = on;
    m_nID = id;
    m_rcInvalidate = invalidate;
    m_bStayOn = stayOn;
    m_pMask = mask;
    m_pCallback = callback;
    m_pUser = user;
    m_pDisable = nullptr;
    m_bEnabled = true;
    m_nValue = 0;
    m_bSelected = false;
    m_bPressed = false;
}

void CKDXBitmapSwitch2DC::SetValue(int value, bool notify) {
    if (!m_bEnabled || Locked() || value == m_nValue)
        return;
    m_nValue = value;
    if (notify && m_pCallback)
        m_pCallback(static_cast<int>(m_nID), static_cast<float>(value), m_pUser, 0);
}

void CKDXBitmapSwitch2DC::LButtonDown(CDC* dc) {
    if (!m_bEnabled || Locked())
        return;
    m_bPressed = true;
    DrawSwitch(dc);
}

void CKDXBitmapSwitch2DC::LButtonUp(CDC* dc) {
    if (!m_bEnabled || Locked() || !m_bPressed)
        return;
    m_bPressed = false;
    DrawSwitch(dc);
}

void CKDXBitmapSwitch2DC::DrawSwitch(CDC* dc) {
    if (!dc || !m_pOff)
        return;
    // the picture to show and the row it starts at; through the mask, the mask's white pixels
    // keep what is beneath (image xor, mask and, image xor)
    CKDXBitmap* image = m_pOff;
    int row = 0, width = m_pOff->Width(), height = m_pOff->Height() / 2;
    if (m_bEnabled) {
        image = m_nValue && m_pOn ? m_pOn : m_pOff;
        row = m_bPressed ? m_pOff->Height() / 2 : 0;
        width = image->Width();
    } else if (m_pDisable) {
        image = m_pDisable;
        width = image->Width();
        height = image->Height();
    }
    CDC mem;
    mem.CreateCompatibleDC(dc);
    mem.SelectObject(image);
    const int x = m_rcHit.left, y = m_rcHit.top;
    if (!m_pMask) {
        dc->BitBlt(x, y, width, height, &mem, 0, row, SRCCOPY);
        return;
    }
    CDC mask;
    mask.CreateCompatibleDC(dc);
    mask.SelectObject(m_pMask);
    const int w = m_pOff->Width();
    dc->BitBlt(x, y, w, height, &mem, 0, row, SRCINVERT);
    dc->BitBlt(x, y, w, height, &mask, 0, row, SRCAND);
    dc->BitBlt(x, y, w, height, &mem, 0, row, SRCINVERT);
}
