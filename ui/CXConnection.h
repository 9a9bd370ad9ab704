#pragma once

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "CRect.h"
#include "WinDefs.h"

class CDropTarget;
class CWnd;
struct _XDisplay;
union _XEvent;

// One connection to the X display: the windows made on it, their queued messages, mouse capture,
// focus, double-click timing and the modal loops. An editor has its own connection, used only on
// the thread that calls the editor; windows made without a parent use the connection whose
// events are being handled on this thread, or a new one.
class CXConnection : public std::enable_shared_from_this<CXConnection> {
public:
    // The connection in use on this thread, or a new one; null without a display.
    static std::shared_ptr<CXConnection> ForThisThread();
    // A connection of its own (one per editor); null without a display.
    static std::shared_ptr<CXConnection> Open();
    // The connection in use on this thread, without opening one.
    static CXConnection* Current();
    ~CXConnection();

    _XDisplay* Display() const { return m_pDisplay; }
    int Screen() const { return m_nScreen; }

    void Register(HWND hwnd, CWnd* wnd);
    void Unregister(HWND hwnd);
    CWnd* Find(HWND hwnd) const;
    std::vector<CWnd*> ChildrenOf(const CWnd* parent) const;

    // Handles everything pending: X events, then posted messages, then paints, and returns once
    // the server has carried out all it sent, so that what was drawn is on the screen for any
    // other client to see. Does not wait for events. Returns whether there was anything.
    bool PumpEvents();
    // Waits until the server has carried out everything sent on this connection.
    void Sync();
    // Runs PumpEvents until keepRunning() is false, waiting for events in between.
    template <class F> void RunLoop(F keepRunning) {
        while (keepRunning()) {
            PumpEvents();
            if (keepRunning())
                Wait(15);
        }
    }
    void Wait(int milliseconds);
    // Thread-safe: queues a message for the window, handled by the next pump.
    void Post(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam);
    void NeedsPaint(HWND hwnd);

    CWnd* Capture() const { return m_pCapture; }
    void SetCapture(CWnd* wnd);
    CWnd* Focus() const { return m_pFocus; }
    // The window that last had a click or a key: where a dialog without an owner opens.
    CWnd* LastInputWindow() const { return Find(m_lastInput); }
    void SetFocusWnd(CWnd* wnd);
    // The window system's focus, saved before a popup takes it and given back before the popup
    // goes, so it never falls to the root window.
    unsigned long SaveFocus() const;
    void RestoreFocus(unsigned long window);
    // Shift or Control held as of the input event being handled (outside one: right now).
    bool KeyHeld(int virtualKey) const;
    unsigned long Atom(const char* name);
    // The current event's character, for a numeric field's pre-translation.
    UINT CurrentChar() const { return m_nCurrentChar; }
    // Set while a numeric field handles a key it translated itself.
    bool m_bCallCancel = false;
    // Count of X errors on this connection (they are reported, never fatal).
    int ErrorCount() const { return m_nErrors; }
    void CountError() { ++m_nErrors; }
    // Drag and drop of files onto this connection's windows.
    CDropTarget& Drops();

private:
    CXConnection() = default;
    void Dispatch(_XEvent& event);
    void DispatchEvent(_XEvent& event, CWnd* w);
    void DispatchKey(_XEvent& event);
    bool DispatchPosted();
    bool DispatchPaints();

    _XDisplay* m_pDisplay = nullptr;
    int m_nScreen = 0;
    std::map<HWND, CWnd*> m_windows;
    std::mutex m_postLock;
    std::deque<MSG> m_posted;
    std::vector<HWND> m_paints;
    CWnd* m_pCapture = nullptr;
    CWnd* m_pFocus = nullptr;
    std::map<std::string, unsigned long> m_atoms;
    HWND m_lastPressWindow = 0;
    HWND m_lastInput = 0;
    unsigned long m_lastPressTime = 0;
    CPoint m_lastPressPoint;
    UINT m_nCurrentChar = 0;
    int m_nEventState = -1; // the modifier state of the input event being handled
    int m_nErrors = 0;
    std::unique_ptr<CDropTarget> m_pDrop;
};
