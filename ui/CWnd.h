#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "CRect.h"
#include "CString.h"
#include "MessageMap.h"
#include "WinDefs.h"

class CFont;
class CXConnection;
struct CBrush;
struct _cairo_surface;

// Registers a window class (class style, cursor, background brush) and returns its name, as the
// framework's AfxRegisterWndClass does. The same arguments give the same name.
const char* AfxRegisterWndClass(UINT classStyle, int cursor = IDC_ARROW,
                                const CBrush* brush = nullptr);
const CBrush* GetStockObject(int stock);
int LoadCursor(void*, int cursor);

// A window: a child of another window, of a host's window (CHostFrame), or a top-level window.
// Messages arrive through WindowProc and the class's message map; each window keeps a backing
// image that paint and client device contexts draw into and that is copied to the screen, so a
// paint never flickers. Windows of one connection are used from one thread only.
class CWnd {
public:
    CWnd();
    virtual ~CWnd();
    CWnd(const CWnd&) = delete;
    CWnd& operator=(const CWnd&) = delete;

    // Creates the window; a null parent makes a top-level window (WS_POPUP without WS_CAPTION:
    // an override-redirect popup) on this thread's connection, opening one if there is none.
    virtual BOOL CreateEx(DWORD exStyle, const char* className, const char* windowName, DWORD style,
                          const CRect& rect, CWnd* parent, UINT id);
    BOOL Create(const char* className, const char* windowName, DWORD style, const CRect& rect,
                CWnd* parent, UINT id) {
        return CreateEx(0, className, windowName, style, rect, parent, id);
    }
    virtual BOOL DestroyWindow();
    HWND GetSafeHwnd() const { return m_hWnd; }
    static CWnd* FromHandle(HWND hwnd);

    CWnd* GetParent() const { return m_pParent; }
    UINT GetDlgCtrlID() const { return m_nID; }
    CWnd* GetDlgItem(int id) const;
    DWORD GetStyle() const { return m_dwStyle; }
    // The top-level window this one belongs to in the window system, through the host's
    // windows: the nearest ancestor that the window manager manages.
    HWND GetTopLevelHwnd() const;

    void MoveWindow(int x, int y, int width, int height, BOOL repaint = TRUE);
    void MoveWindow(const CRect& rect, BOOL repaint = TRUE) {
        MoveWindow(rect.left, rect.top, rect.Width(), rect.Height(), repaint);
    }
    BOOL SetWindowPos(const CWnd* insertAfter, int x, int y, int cx, int cy, UINT flags);
    BOOL ShowWindow(int command);
    BOOL IsWindowVisible() const { return m_hWnd && m_bVisible; }
    BOOL EnableWindow(BOOL enable = TRUE);
    BOOL IsWindowEnabled() const { return !(m_dwStyle & WS_DISABLED); }
    CWnd* SetFocus();
    static CWnd* GetFocus();
    CWnd* SetCapture();
    static CWnd* GetCapture();
    static BOOL ReleaseCapture();

    void GetClientRect(CRect* rect) const;
    void GetWindowRect(CRect* rect) const; // in screen coordinates
    void ClientToScreen(CPoint* point) const;
    void ClientToScreen(CRect* rect) const;
    void ScreenToClient(CPoint* point) const;

    void Invalidate(BOOL erase = TRUE);
    void InvalidateRect(const CRect* rect, BOOL erase = TRUE);
    void ValidateRect(const CRect* rect);
    BOOL GetUpdateRect(CRect* rect) const;
    void UpdateWindow(); // paints now when anything is invalid

    LRESULT SendMessage(UINT message, WPARAM wParam = 0, LPARAM lParam = 0);
    BOOL PostMessage(UINT message, WPARAM wParam = 0, LPARAM lParam = 0);

    virtual void SetWindowText(const char* text);
    virtual int GetWindowText(char* buffer, int size) const;
    void GetWindowText(CString& text) const;
    int GetWindowTextLength() const { return static_cast<int>(m_strText.size()); }
    void SetFont(CFont* font, BOOL redraw = TRUE);
    // The program's name and class for its top-level windows from now on, which a desktop
    // matches to the program's menu entry (StartupWMClass); unset, windows carry none, as a
    // plug-in's dialogs inside a host should.
    static void SetClassHint(const char* name, const char* cls);
    // A top-level window that accepts files dragged from a file manager; they arrive through
    // OnDropFiles as local paths.
    void DragAcceptFiles(BOOL accept = TRUE);
    virtual void OnDropFiles(const std::vector<std::string>& paths) { (void)paths; }
    CFont* GetFont() const { return m_pFont; }

    // Key-down messages reach this before they are dispatched, from the focus window up through
    // its parents; true means handled.
    virtual BOOL PreTranslateMessage(MSG* msg);
    virtual LRESULT WindowProc(UINT message, WPARAM wParam, LPARAM lParam);
    virtual LRESULT DefWindowProc(UINT message, WPARAM wParam, LPARAM lParam);
    // Runs the default handling of the message being dispatched.
    LRESULT Default();
    // Handles what is pending on this window's connection: a host's idle call drives the panel
    // with this.
    void PumpMessages();
    // Runs a modal loop until EndModalLoop; returns its result.
    int RunModalLoop();
    void EndModalLoop(int result);
    BOOL ContinueModal() const { return m_bInModal; }

    HWND m_hWnd = 0;

    // for the layer's own classes
    CXConnection* Connection() const { return m_pConn.get(); }
    _cairo_surface* Backing() const { return m_pBacking; }
    void FlushToScreen(const CRect& rect);
    void OnExpose(const CRect& rect);
    void OnConfigured(int x, int y, int width, int height);
    void OnWindowGone();
    void MarkPainted() { m_bEverPainted = true; }
    UINT ClassStyle() const { return m_nClassStyle; }
    // Keys are selected only while a window that edits text has the focus, so that a host's
    // shortcuts keep working while the pointer is over the panel.
    void SelectKeys(bool on);
    virtual bool WantsKeys() const { return false; }

    static const AFX_MSGMAP* GetThisMessageMap();

protected:
    virtual const AFX_MSGMAP* GetMessageMap() const;
    virtual void PostNcDestroy() {}
    // The default handlers that derived classes call as their "base handling".
    int OnCreate(LPCREATESTRUCT) { return static_cast<int>(Default()); }
    void OnSize(UINT, int, int) { Default(); }
    void OnMouseMove(UINT, CPoint) { Default(); }
    void OnKillFocus(CWnd*) { Default(); }
    void OnSetFocus(CWnd*) { Default(); }
    void OnKeyDown(UINT, UINT, UINT) { Default(); }
    void OnChar(UINT, UINT, UINT) { Default(); }
    void OnLButtonDown(UINT, CPoint) { Default(); }
    void OnLButtonUp(UINT, CPoint) { Default(); }
    void OnClose() { Default(); }
    // Sends WM_COMMAND with (id, code) to the parent.
    void NotifyParent(UINT code);

    CWnd* m_pParent = nullptr;
    std::shared_ptr<CXConnection> m_pConn;
    DWORD m_dwStyle = 0;
    UINT m_nID = 0;
    std::string m_strText;
    CFont* m_pFont = nullptr;
    CRect m_rcWindow; // in the parent's client coordinates (top-level: the screen's)
    CRect m_rcInvalid;
    bool m_bVisible = false;
    bool m_bEverPainted = false;

private:
    friend class CXConnection;
    static std::pair<std::string, std::string>& ClassHint();
    void CreateBacking(int width, int height);
    void ReleaseSurfaces();

    _cairo_surface* m_pBacking = nullptr;
    _cairo_surface* m_pScreen = nullptr;
    UINT m_nClassStyle = 0;
    const CBrush* m_pBrush = nullptr;
    int m_nCursor = IDC_ARROW;
    bool m_bKeys = false;
    bool m_bInModal = false;
    int m_nModalResult = 0;
    MSG m_current{};
};

// A brush: a colour, or nothing (hollow).
struct CBrush {
    COLORREF color;
    bool hollow;
};

// The host's window, which the panel is created inside. Attaching opens the editor's own
// connection to the display; the wrapper never destroys the host's window.
class CHostFrame : public CWnd {
public:
    // False when there is no display or the window does not exist.
    BOOL Attach(HWND hostWindow);
    void SetBounds(const CRect& rect) { m_rcWindow = rect; }
    BOOL DestroyWindow() override;
    ~CHostFrame() override;
};
