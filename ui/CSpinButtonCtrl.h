#pragma once

#include <utility>

#include "CWnd.h"

// A spin button: two arrows that step a 32-bit position within its range. With UDS_SETBUDDYINT
// it writes the position into its buddy as a base-10 integer (read back from the buddy before
// each step); with UDS_ARROWKEYS the buddy's Up and Down keys step it. Its width is the
// SM_CXHSCROLL metric.
class CSpinButtonCtrl : public CWnd {
public:
    BOOL Create(DWORD style, const CRect& rect, CWnd* parent, UINT id);
    CWnd* SetBuddy(CWnd* buddy);
    CWnd* GetBuddy() const { return m_pBuddy; }
    void SetRange32(int lower, int upper);
    void GetRange32(int& lower, int& upper) const;
    int SetPos32(int pos);
    int GetPos32() const { return m_nPos; }
    int SetBase(int base) { return std::exchange(m_nBase, base == 16 ? 16 : 10); }
    // One step up (+1) or down (-1), as a click on an arrow.
    void Step(int direction);

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    const AFX_MSGMAP* GetMessageMap() const override;
    void OnPaint();
    void OnLButtonDown(UINT flags, CPoint point);
    void OnLButtonUp(UINT flags, CPoint point);

private:
    void WriteBuddy();
    int m_nLower = 0, m_nUpper = 100, m_nPos = 0, m_nBase = 10;
    int m_nPressed = 0; // +1 upper arrow held, -1 lower
    CWnd* m_pBuddy = nullptr;
};
