#pragma once

#include "CWnd.h"

class CSpinButtonCtrl;

// A single-line edit control: caret, selection, select-all (Control+A, double click),
// Backspace, Delete, Home, End and the arrows (Shift extends the selection), a text limit and
// right alignment (ES_RIGHT). Its default character and key handling is what subclasses reach
// through Default(); keys reach it only while it has the focus.
class CEdit : public CWnd {
public:
    BOOL Create(DWORD style, const CRect& rect, CWnd* parent, UINT id);
    void SetWindowText(const char* text) override;
    void SetSel(int start, int end, BOOL noScroll = FALSE); // (0, -1) selects all
    void GetSel(int& start, int& end) const;
    void ReplaceSel(const char* text);
    void SetLimitText(UINT chars) { m_nLimit = chars; }
    UINT GetLimitText() const { return m_nLimit; }
    int GetCaret() const { return m_nCaret; }
    // The spin button whose buddy this is gets Up and Down.
    void AttachSpin(CSpinButtonCtrl* spin) { m_pSpin = spin; }
    CSpinButtonCtrl* GetSpin() const { return m_pSpin; }
    bool WantsKeys() const override { return true; }

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    LRESULT DefWindowProc(UINT message, WPARAM wParam, LPARAM lParam) override;
    void OnPaint();
    void OnLButtonDown(UINT flags, CPoint point);
    void OnLButtonDblClk(UINT flags, CPoint point);
    void OnMouseMove(UINT flags, CPoint point);
    void OnLButtonUp(UINT flags, CPoint point);

private:
    void DefaultChar(UINT ch);
    void DefaultKeyDown(UINT key);
    void Move(int to, bool extend);
    int HitChar(CPoint point);
    int TextX(); // where the text starts in the window
    void Changed();

    int m_nCaret = 0;  // byte offsets, always at character boundaries
    int m_nAnchor = 0; // the other end of the selection
    UINT m_nLimit = 30000;
    int m_nScroll = 0;
    bool m_bSelecting = false;
    CSpinButtonCtrl* m_pSpin = nullptr;
};
