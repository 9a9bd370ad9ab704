#pragma once

#include "CRect.h"
#include "WinDefs.h"

class CWnd;

// Message maps in the manner of the classic framework: each class lists the messages it handles
// between BEGIN_MESSAGE_MAP and END_MESSAGE_MAP, and dispatch walks from the most derived class
// to its bases. Each entry calls its handler through a small typed thunk, so handlers keep their
// framework signatures without casts between member-function types.

using AFX_THUNK = LRESULT (*)(CWnd* wnd, WPARAM wParam, LPARAM lParam);

struct AFX_MSGMAP_ENTRY {
    UINT nMessage; // 0 ends the table
    UINT nCode;    // WM_COMMAND: the notification code
    UINT nID;      // WM_COMMAND: first id
    UINT nLastID;  // WM_COMMAND: last id
    AFX_THUNK pfn;
};

struct AFX_MSGMAP {
    const AFX_MSGMAP* (*pfnGetBaseMap)();
    const AFX_MSGMAP_ENTRY* lpEntries;
};

namespace afx {

template <class M> struct MemberOf;
template <class C, class R, class... A> struct MemberOf<R (C::*)(A...)> { using type = C; };
template <auto F> using ClassOf = typename MemberOf<decltype(F)>::type;

inline CPoint PointOf(LPARAM l) {
    return {static_cast<short>(l & 0xFFFF), static_cast<short>((l >> 16) & 0xFFFF)};
}

template <auto F> LRESULT Void(CWnd* w, WPARAM, LPARAM) {
    (static_cast<ClassOf<F>*>(w)->*F)();
    return 0;
}
template <auto F> LRESULT Create(CWnd* w, WPARAM, LPARAM l) {
    return (static_cast<ClassOf<F>*>(w)->*F)(reinterpret_cast<LPCREATESTRUCT>(l));
}
template <auto F> LRESULT Size(CWnd* w, WPARAM wp, LPARAM l) {
    (static_cast<ClassOf<F>*>(w)->*F)(static_cast<UINT>(wp), static_cast<int>(l & 0xFFFF),
                                      static_cast<int>((l >> 16) & 0xFFFF));
    return 0;
}
template <auto F> LRESULT Mouse(CWnd* w, WPARAM wp, LPARAM l) {
    (static_cast<ClassOf<F>*>(w)->*F)(static_cast<UINT>(wp), PointOf(l));
    return 0;
}
template <auto F> LRESULT Key(CWnd* w, WPARAM wp, LPARAM l) {
    (static_cast<ClassOf<F>*>(w)->*F)(static_cast<UINT>(wp), static_cast<UINT>(l & 0xFFFF),
                                      static_cast<UINT>((l >> 16) & 0xFFFF));
    return 0;
}
template <auto F> LRESULT Focus(CWnd* w, WPARAM wp, LPARAM) {
    (static_cast<ClassOf<F>*>(w)->*F)(reinterpret_cast<CWnd*>(wp));
    return 0;
}
template <auto F> LRESULT Message(CWnd* w, WPARAM wp, LPARAM l) {
    return (static_cast<ClassOf<F>*>(w)->*F)(wp, l);
}
template <auto F> LRESULT Range(CWnd* w, WPARAM wp, LPARAM) {
    (static_cast<ClassOf<F>*>(w)->*F)(LOWORD(wp));
    return 0;
}

} // namespace afx

#define DECLARE_MESSAGE_MAP()                                                                      \
public:                                                                                            \
    static const AFX_MSGMAP* GetThisMessageMap();                                                  \
                                                                                                   \
protected:                                                                                         \
    const AFX_MSGMAP* GetMessageMap() const override;

#define BEGIN_MESSAGE_MAP(theClass, baseClass)                                                     \
    const AFX_MSGMAP* theClass::GetMessageMap() const {                                            \
        return GetThisMessageMap();                                                                \
    }                                                                                              \
    const AFX_MSGMAP* theClass::GetThisMessageMap() {                                              \
        using ThisClass = theClass;                                                                \
        using TheBaseClass = baseClass;                                                            \
        static const AFX_MSGMAP_ENTRY _messageEntries[] = {

#define END_MESSAGE_MAP()                                                                          \
    { 0, 0, 0, 0, nullptr }                                                                        \
    }                                                                                              \
    ;                                                                                              \
    static const AFX_MSGMAP messageMap = {&TheBaseClass::GetThisMessageMap, _messageEntries};      \
    return &messageMap;                                                                            \
    }

#define AFX_ENTRY(msg, thunk) {msg, 0, 0, 0, thunk},
#define ON_WM_CREATE() AFX_ENTRY(WM_CREATE, &afx::Create<&ThisClass::OnCreate>)
#define ON_WM_DESTROY() AFX_ENTRY(WM_DESTROY, &afx::Void<&ThisClass::OnDestroy>)
#define ON_WM_PAINT() AFX_ENTRY(WM_PAINT, &afx::Void<&ThisClass::OnPaint>)
#define ON_WM_SIZE() AFX_ENTRY(WM_SIZE, &afx::Size<&ThisClass::OnSize>)
#define ON_WM_CLOSE() AFX_ENTRY(WM_CLOSE, &afx::Void<&ThisClass::OnClose>)
#define ON_WM_LBUTTONDOWN() AFX_ENTRY(WM_LBUTTONDOWN, &afx::Mouse<&ThisClass::OnLButtonDown>)
#define ON_WM_LBUTTONUP() AFX_ENTRY(WM_LBUTTONUP, &afx::Mouse<&ThisClass::OnLButtonUp>)
#define ON_WM_LBUTTONDBLCLK() AFX_ENTRY(WM_LBUTTONDBLCLK, &afx::Mouse<&ThisClass::OnLButtonDblClk>)
#define ON_WM_RBUTTONDOWN() AFX_ENTRY(WM_RBUTTONDOWN, &afx::Mouse<&ThisClass::OnRButtonDown>)
#define ON_WM_MOUSEMOVE() AFX_ENTRY(WM_MOUSEMOVE, &afx::Mouse<&ThisClass::OnMouseMove>)
#define ON_WM_MOUSEWHEEL() AFX_ENTRY(WM_MOUSEWHEEL, &afx::Mouse<&ThisClass::OnMouseWheel>)
#define ON_WM_KEYDOWN() AFX_ENTRY(WM_KEYDOWN, &afx::Key<&ThisClass::OnKeyDown>)
#define ON_WM_CHAR() AFX_ENTRY(WM_CHAR, &afx::Key<&ThisClass::OnChar>)
#define ON_WM_SETFOCUS() AFX_ENTRY(WM_SETFOCUS, &afx::Focus<&ThisClass::OnSetFocus>)
#define ON_WM_KILLFOCUS() AFX_ENTRY(WM_KILLFOCUS, &afx::Focus<&ThisClass::OnKillFocus>)
#define ON_MESSAGE(msg, memberFxn) AFX_ENTRY(msg, &afx::Message<&ThisClass::memberFxn>)
#define ON_COMMAND(id, memberFxn) {WM_COMMAND, 0, id, id, &afx::Void<&ThisClass::memberFxn>},
#define ON_COMMAND_RANGE(id, idLast, memberFxn)                                                    \
    {WM_COMMAND, 0, id, idLast, &afx::Range<&ThisClass::memberFxn>},
#define ON_BN_CLICKED(id, memberFxn) ON_COMMAND(id, memberFxn)
#define ON_CBN_SELCHANGE(id, memberFxn)                                                            \
    {WM_COMMAND, CBN_SELCHANGE, id, id, &afx::Void<&ThisClass::memberFxn>},
#define ON_LBN_SELCHANGE(id, memberFxn)                                                            \
    {WM_COMMAND, LBN_SELCHANGE, id, id, &afx::Void<&ThisClass::memberFxn>},
#define ON_LBN_DBLCLK(id, memberFxn)                                                               \
    {WM_COMMAND, LBN_DBLCLK, id, id, &afx::Void<&ThisClass::memberFxn>},
#define ON_EN_CHANGE(id, memberFxn)                                                                \
    {WM_COMMAND, EN_CHANGE, id, id, &afx::Void<&ThisClass::memberFxn>},
