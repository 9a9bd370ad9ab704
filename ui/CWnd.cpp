#include "CWnd.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/cursorfont.h>
#include <cairo-xlib.h>
#include <cairo.h>

#include <cstring>
#include <map>
#include <mutex>

#include "CDropTarget.h"
#include "CFont.h"
#include "CXConnection.h"

namespace {

struct WndClass {
    UINT style;
    int cursor;
    const CBrush* brush;
};
std::mutex gClassLock;
std::map<std::string, WndClass> gClasses;

const CBrush kStockBrushes[] = {
    {RGB(255, 255, 255), false}, // WHITE_BRUSH
    {RGB(192, 192, 192), false}, // LTGRAY_BRUSH
    {RGB(128, 128, 128), false}, // GRAY_BRUSH
    {RGB(64, 64, 64), false},    // DKGRAY_BRUSH
    {RGB(0, 0, 0), false},       // BLACK_BRUSH
    {0, true},                   // HOLLOW_BRUSH
};

WndClass LookUpClass(const char* name) {
    std::lock_guard lock(gClassLock);
    auto it = name ? gClasses.find(name) : gClasses.end();
    if (it == gClasses.end())
        return {0, IDC_ARROW, &kStockBrushes[WHITE_BRUSH]};
    return it->second;
}

::Cursor MakeCursor(Display* d, int cursor) {
    return XCreateFontCursor(d, cursor == IDC_IBEAM ? XC_xterm : XC_left_ptr);
}

constexpr long kMouseEvents = ButtonPressMask | ButtonReleaseMask | PointerMotionMask;
constexpr long kBaseEvents = ExposureMask | StructureNotifyMask | FocusChangeMask | kMouseEvents;

} // namespace

const char* AfxRegisterWndClass(UINT classStyle, int cursor, const CBrush* brush) {
    char name[96];
    std::snprintf(name, sizeof(name), "Afx:%x:%d:%p", classStyle, cursor,
                  static_cast<const void*>(brush));
    std::lock_guard lock(gClassLock);
    auto [it, added] = gClasses.try_emplace(name, WndClass{classStyle, cursor, brush});
    return it->first.c_str();
}

const CBrush* GetStockObject(int stock) {
    if (stock < 0 || stock > HOLLOW_BRUSH)
        return &kStockBrushes[WHITE_BRUSH];
    return &kStockBrushes[stock];
}

int LoadCursor(void*, int cursor) {
    return cursor;
}

short GetKeyState(int virtualKey) {
    // As of the input being handled, like the framework's: not the keyboard of this instant.
    CXConnection* c = CXConnection::Current();
    return c && c->KeyHeld(virtualKey) ? static_cast<short>(0x8000) : 0;
}

int GetSystemMetrics(int index) {
    switch (index) {
    case SM_CXHSCROLL:
        return 16;
    case SM_CXEDGE:
        return 2;
    default:
        return 0;
    }
}

const AFX_MSGMAP* CWnd::GetThisMessageMap() {
    static const AFX_MSGMAP_ENTRY entries[] = {{0, 0, 0, 0, nullptr}};
    static const AFX_MSGMAP map = {nullptr, entries};
    return &map;
}

const AFX_MSGMAP* CWnd::GetMessageMap() const {
    return GetThisMessageMap();
}

CWnd::CWnd() = default;

CWnd::~CWnd() {
    if (m_hWnd)
        DestroyWindow();
    ReleaseSurfaces();
}

CWnd* CWnd::FromHandle(HWND hwnd) {
    CXConnection* c = CXConnection::Current();
    return c ? c->Find(hwnd) : nullptr;
}

BOOL CWnd::CreateEx(DWORD, const char* className, const char* windowName, DWORD style,
                    const CRect& rect, CWnd* parent, UINT id) {
    if (m_hWnd)
        return FALSE;
    // a popup may name its connection (its owner's) before it is created
    m_pConn = parent ? parent->m_pConn : m_pConn ? m_pConn : CXConnection::ForThisThread();
    if (!m_pConn || (parent && !parent->m_hWnd))
        return FALSE;
    Display* d = m_pConn->Display();
    const WndClass cls = LookUpClass(className);
    m_nClassStyle = cls.style;
    m_pBrush = cls.brush;
    m_nCursor = cls.cursor;
    m_pParent = parent;
    m_dwStyle = style;
    m_nID = id;
    m_strText = windowName ? windowName : "";
    m_rcWindow = rect;

    const int screen = m_pConn->Screen();
    const bool child = parent && (style & WS_CHILD);
    XSetWindowAttributes a{};
    a.background_pixmap = None; // the backing image paints everything: no flash of background
    a.border_pixel = 0;
    a.colormap = DefaultColormap(d, screen);
    a.event_mask = kBaseEvents;
    a.bit_gravity = NorthWestGravity;
    a.override_redirect = !child && (style & WS_POPUP) && !(style & WS_CAPTION);
    a.cursor = MakeCursor(d, m_nCursor);
    const Window under = child ? parent->m_hWnd : RootWindow(d, screen);
    const int w = std::max(1, rect.Width()), h = std::max(1, rect.Height());
    const Window win = XCreateWindow(d, under, rect.left, rect.top, static_cast<unsigned>(w),
                                     static_cast<unsigned>(h), 0, DefaultDepth(d, screen),
                                     InputOutput, DefaultVisual(d, screen),
                                     CWBackPixmap | CWBorderPixel | CWColormap | CWEventMask |
                                         CWBitGravity | CWOverrideRedirect | CWCursor,
                                     &a);
    XFreeCursor(d, a.cursor);
    if (!win)
        return FALSE;
    m_hWnd = win;
    m_pConn->Register(win, this);
    if (!child) {
        ::Atom del = m_pConn->Atom("WM_DELETE_WINDOW");
        XSetWMProtocols(d, win, &del, 1);
        if (!ClassHint().second.empty()) {
            XClassHint hint{ClassHint().first.data(), ClassHint().second.data()};
            XSetClassHint(d, win, &hint);
        }
        if (parent) // owned top-levels (dialogs) stay above their owner's top-level window
            XSetTransientForHint(d, win, parent->GetTopLevelHwnd());
        if (style & WS_CAPTION) {
            // a fixed size: dialogs and the panel are not resizable
            XSizeHints hints{};
            hints.flags = PMinSize | PMaxSize;
            hints.min_width = hints.max_width = w;
            hints.min_height = hints.max_height = h;
            XSetWMNormalHints(d, win, &hints);
        }
        XStoreName(d, win, m_strText.c_str());
        XChangeProperty(d, win, m_pConn->Atom("_NET_WM_NAME"), m_pConn->Atom("UTF8_STRING"), 8,
                        PropModeReplace, reinterpret_cast<const unsigned char*>(m_strText.c_str()),
                        static_cast<int>(m_strText.size()));
    }
    CreateBacking(w, h);

    CREATESTRUCT cs{windowName, className, style, rect.left, rect.top, rect.Width(), rect.Height()};
    if (SendMessage(WM_CREATE, 0, reinterpret_cast<LPARAM>(&cs)) == -1) {
        DestroyWindow();
        return FALSE;
    }
    if (m_hWnd && (style & WS_VISIBLE))
        ShowWindow(SW_SHOW);
    return m_hWnd != 0;
}

void CWnd::CreateBacking(int width, int height) {
    cairo_surface_t* backing = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
    if (m_pBacking) { // keep what was drawn, top-left aligned
        cairo_t* cr = cairo_create(backing);
        cairo_set_source_surface(cr, m_pBacking, 0, 0);
        cairo_paint(cr);
        cairo_destroy(cr);
        cairo_surface_destroy(m_pBacking);
    }
    m_pBacking = backing;
    Display* d = m_pConn->Display();
    if (m_pScreen)
        cairo_xlib_surface_set_size(m_pScreen, width, height);
    else
        m_pScreen = cairo_xlib_surface_create(d, m_hWnd, DefaultVisual(d, m_pConn->Screen()), width,
                                              height);
}

void CWnd::ReleaseSurfaces() {
    if (m_pScreen)
        cairo_surface_destroy(m_pScreen);
    if (m_pBacking)
        cairo_surface_destroy(m_pBacking);
    m_pScreen = m_pBacking = nullptr;
}

BOOL CWnd::DestroyWindow() {
    if (!m_hWnd)
        return FALSE;
    const HWND hwnd = m_hWnd;
    auto conn = m_pConn; // the connection outlives this call
    if (m_bInModal)
        EndModalLoop(IDCANCEL);
    SendMessage(WM_DESTROY, 0, 0);
    // children first: the window system destroys them with their parent
    for (CWnd* child : conn->ChildrenOf(this))
        child->DestroyWindow();
    if (m_hWnd == hwnd) {
        conn->Unregister(hwnd);
        ReleaseSurfaces();
        XDestroyWindow(conn->Display(), hwnd);
        XFlush(conn->Display());
        m_hWnd = 0;
    }
    ReleaseSurfaces();
    m_bVisible = false;
    m_bKeys = false;
    m_pConn.reset();
    PostNcDestroy();
    return TRUE;
}

void CWnd::OnWindowGone() {
    // Destroyed from outside (the host closed its window): nothing of it may be used again.
    if (!m_hWnd)
        return;
    auto conn = m_pConn;
    for (CWnd* child : conn->ChildrenOf(this))
        child->OnWindowGone();
    conn->Unregister(m_hWnd);
    m_hWnd = 0;
    if (m_bInModal)
        EndModalLoop(IDCANCEL);
    ReleaseSurfaces();
    m_bVisible = false;
}

CWnd* CWnd::GetDlgItem(int id) const {
    if (!m_pConn)
        return nullptr;
    for (CWnd* child : m_pConn->ChildrenOf(this))
        if (static_cast<int>(child->m_nID) == id)
            return child;
    return nullptr;
}

HWND CWnd::GetTopLevelHwnd() const {
    if (!m_hWnd)
        return 0;
    Display* d = m_pConn->Display();
    const ::Atom wmState = m_pConn->Atom("WM_STATE");
    Window w = m_hWnd, root = 0, parent = 0, *kids = nullptr;
    unsigned count = 0;
    Window last = w;
    for (;;) {
        Atom type = None;
        int format = 0;
        unsigned long items = 0, after = 0;
        unsigned char* data = nullptr;
        if (XGetWindowProperty(d, w, wmState, 0, 0, False, AnyPropertyType, &type, &format, &items,
                               &after, &data) == Success &&
            data)
            XFree(data);
        if (type != None)
            return w;
        if (!XQueryTree(d, w, &root, &parent, &kids, &count))
            return last;
        if (kids)
            XFree(kids);
        if (parent == root || parent == 0)
            return w; // no window manager: the window just below the root
        last = w;
        w = parent;
    }
}

void CWnd::MoveWindow(int x, int y, int width, int height, BOOL repaint) {
    SetWindowPos(nullptr, x, y, width, height, SWP_NOZORDER);
    if (repaint)
        Invalidate();
}

BOOL CWnd::SetWindowPos(const CWnd*, int x, int y, int cx, int cy, UINT flags) {
    if (!m_hWnd)
        return FALSE;
    Display* d = m_pConn->Display();
    const int w = (flags & SWP_NOSIZE) ? m_rcWindow.Width() : std::max(1, cx);
    const int h = (flags & SWP_NOSIZE) ? m_rcWindow.Height() : std::max(1, cy);
    if (!(flags & SWP_NOMOVE))
        m_rcWindow = CRect(x, y, x + w, y + h);
    else
        m_rcWindow =
            CRect(m_rcWindow.left, m_rcWindow.top, m_rcWindow.left + w, m_rcWindow.top + h);
    XMoveResizeWindow(d, m_hWnd, m_rcWindow.left, m_rcWindow.top, static_cast<unsigned>(w),
                      static_cast<unsigned>(h));
    OnConfigured(m_rcWindow.left, m_rcWindow.top, w, h);
    return TRUE;
}

void CWnd::OnConfigured(int x, int y, int width, int height) {
    if (!m_hWnd)
        return;
    if (!m_pParent || !(m_dwStyle & WS_CHILD))
        m_rcWindow = CRect(x, y, x + width, y + height); // top-levels: where the manager put it
    const int oldW = cairo_image_surface_get_width(m_pBacking);
    const int oldH = cairo_image_surface_get_height(m_pBacking);
    if (width == oldW && height == oldH)
        return;
    CreateBacking(width, height);
    SendMessage(WM_SIZE, 0, static_cast<LPARAM>((width & 0xFFFF) | ((height & 0xFFFF) << 16)));
}

BOOL CWnd::ShowWindow(int command) {
    if (!m_hWnd)
        return FALSE;
    const bool was = m_bVisible;
    Display* d = m_pConn->Display();
    if (command == SW_HIDE) {
        if (m_pConn->Capture() == this)
            ReleaseCapture();
        XUnmapWindow(d, m_hWnd);
        m_bVisible = false;
        m_dwStyle &= ~WS_VISIBLE;
    } else {
        XMapRaised(d, m_hWnd);
        m_bVisible = true;
        m_dwStyle |= WS_VISIBLE;
        if (!m_bEverPainted)
            Invalidate();
    }
    XFlush(d);
    return was;
}

BOOL CWnd::EnableWindow(BOOL enable) {
    const BOOL wasDisabled = !IsWindowEnabled();
    if (enable)
        m_dwStyle &= ~WS_DISABLED;
    else
        m_dwStyle |= WS_DISABLED;
    if (wasDisabled == !enable)
        return wasDisabled;
    SendMessage(WM_ENABLE, enable, 0);
    Invalidate();
    return wasDisabled;
}

CWnd* CWnd::SetFocus() {
    if (!m_hWnd)
        return nullptr;
    CWnd* old = m_pConn->Focus();
    Display* d = m_pConn->Display();
    XWindowAttributes a;
    // Focusing a window that is not on screen is an error in X; then only the bookkeeping
    // changes, and a later SetFocus, once it is shown, gives it the keyboard.
    if (XGetWindowAttributes(d, m_hWnd, &a) && a.map_state == IsViewable)
        XSetInputFocus(d, m_hWnd, RevertToParent, CurrentTime);
    if (old == this)
        return old;
    m_pConn->SetFocusWnd(this);
    if (old && old->m_hWnd)
        old->SendMessage(WM_KILLFOCUS, reinterpret_cast<WPARAM>(this), 0);
    if (m_hWnd)
        SendMessage(WM_SETFOCUS, reinterpret_cast<WPARAM>(old), 0);
    return old;
}

CWnd* CWnd::GetFocus() {
    CXConnection* c = CXConnection::Current();
    return c ? c->Focus() : nullptr;
}

CWnd* CWnd::SetCapture() {
    if (!m_hWnd)
        return nullptr;
    CWnd* old = m_pConn->Capture();
    m_pConn->SetCapture(this);
    return old;
}

CWnd* CWnd::GetCapture() {
    CXConnection* c = CXConnection::Current();
    return c ? c->Capture() : nullptr;
}

BOOL CWnd::ReleaseCapture() {
    CXConnection* c = CXConnection::Current();
    if (!c || !c->Capture())
        return FALSE;
    c->SetCapture(nullptr);
    return TRUE;
}

void CWnd::GetClientRect(CRect* rect) const {
    *rect = CRect(0, 0, m_rcWindow.Width(), m_rcWindow.Height());
}

void CWnd::ClientToScreen(CPoint* point) const {
    if (!m_hWnd)
        return;
    Display* d = m_pConn->Display();
    Window child = 0;
    int x = 0, y = 0;
    XTranslateCoordinates(d, m_hWnd, RootWindow(d, m_pConn->Screen()), point->x, point->y, &x, &y,
                          &child);
    *point = {x, y};
}

void CWnd::ClientToScreen(CRect* rect) const {
    CPoint p = rect->TopLeft();
    ClientToScreen(&p);
    rect->OffsetRect(p.x - rect->left, p.y - rect->top);
}

void CWnd::ScreenToClient(CPoint* point) const {
    CPoint origin;
    ClientToScreen(&origin);
    point->x -= origin.x;
    point->y -= origin.y;
}

void CWnd::GetWindowRect(CRect* rect) const {
    GetClientRect(rect);
    ClientToScreen(rect);
}

void CWnd::Invalidate(BOOL erase) {
    CRect all;
    GetClientRect(&all);
    InvalidateRect(&all, erase);
}

void CWnd::InvalidateRect(const CRect* rect, BOOL) {
    if (!m_hWnd)
        return;
    CRect client, r;
    GetClientRect(&client);
    if (!r.IntersectRect(rect ? *rect : client, client))
        return;
    m_rcInvalid.UnionRect(m_rcInvalid, r);
    m_pConn->NeedsPaint(m_hWnd);
}

void CWnd::ValidateRect(const CRect* rect) {
    if (!rect)
        m_rcInvalid.SetRectEmpty();
    else if (rect->left <= m_rcInvalid.left && rect->top <= m_rcInvalid.top &&
             rect->right >= m_rcInvalid.right && rect->bottom >= m_rcInvalid.bottom)
        m_rcInvalid.SetRectEmpty();
}

BOOL CWnd::GetUpdateRect(CRect* rect) const {
    if (rect)
        *rect = m_rcInvalid;
    return !m_rcInvalid.IsRectEmpty();
}

void CWnd::UpdateWindow() {
    if (!m_hWnd || m_rcInvalid.IsRectEmpty())
        return;
    auto conn = m_pConn; // the paint may close the window
    SendMessage(WM_PAINT, 0, 0);
    conn->Sync(); // on the screen when this returns, as any other client sees it
}

void CWnd::OnExpose(const CRect& rect) {
    // What was painted is in the backing image; only a window never painted needs its owner.
    if (m_bEverPainted)
        FlushToScreen(rect);
    else
        InvalidateRect(&rect);
}

void CWnd::FlushToScreen(const CRect& rect) {
    if (!m_hWnd || !m_pScreen || rect.IsRectEmpty())
        return;
    cairo_surface_flush(m_pBacking);
    cairo_t* cr = cairo_create(m_pScreen);
    cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
    cairo_set_source_surface(cr, m_pBacking, 0, 0);
    cairo_rectangle(cr, rect.left, rect.top, rect.Width(), rect.Height());
    cairo_fill(cr);
    cairo_destroy(cr);
    cairo_surface_flush(m_pScreen);
    XFlush(m_pConn->Display());
}

LRESULT CWnd::SendMessage(UINT message, WPARAM wParam, LPARAM lParam) {
    if (!m_hWnd && message != WM_DESTROY)
        return 0;
    const MSG saved = m_current;
    m_current = {m_hWnd, message, wParam, lParam};
    const LRESULT r = WindowProc(message, wParam, lParam);
    m_current = saved;
    return r;
}

BOOL CWnd::PostMessage(UINT message, WPARAM wParam, LPARAM lParam) {
    if (!m_hWnd || !m_pConn)
        return FALSE;
    m_pConn->Post(m_hWnd, message, wParam, lParam);
    return TRUE;
}

LRESULT CWnd::WindowProc(UINT message, WPARAM wParam, LPARAM lParam) {
    for (const AFX_MSGMAP* map = GetMessageMap(); map;
         map = map->pfnGetBaseMap ? map->pfnGetBaseMap() : nullptr) {
        for (const AFX_MSGMAP_ENTRY* e = map->lpEntries; e->nMessage; ++e) {
            if (e->nMessage != message)
                continue;
            if (message == WM_COMMAND && (e->nCode != HIWORD(wParam) || LOWORD(wParam) < e->nID ||
                                          LOWORD(wParam) > e->nLastID))
                continue;
            return e->pfn(this, wParam, lParam);
        }
    }
    return DefWindowProc(message, wParam, lParam);
}

LRESULT CWnd::Default() {
    return DefWindowProc(m_current.message, m_current.wParam, m_current.lParam);
}

LRESULT CWnd::DefWindowProc(UINT message, WPARAM, LPARAM) {
    switch (message) {
    case WM_PAINT: {
        // no painter of its own: the class brush, unless hollow
        m_bEverPainted = true;
        const CRect r = m_rcInvalid;
        m_rcInvalid.SetRectEmpty();
        if (m_pBrush && !m_pBrush->hollow && m_pBacking) {
            cairo_t* cr = cairo_create(m_pBacking);
            cairo_set_source_rgb(cr, GetRValue(m_pBrush->color) / 255.0,
                                 GetGValue(m_pBrush->color) / 255.0,
                                 GetBValue(m_pBrush->color) / 255.0);
            cairo_rectangle(cr, r.left, r.top, r.Width(), r.Height());
            cairo_fill(cr);
            cairo_destroy(cr);
        }
        FlushToScreen(r);
        return 0;
    }
    case WM_CLOSE:
        DestroyWindow();
        return 0;
    case WM_SETFOCUS:
    case WM_KILLFOCUS:
        // Controls that take keys hold them only while focused, and show the focus.
        if (WantsKeys() && (m_dwStyle & WS_CHILD)) {
            SelectKeys(message == WM_SETFOCUS);
            Invalidate();
        }
        return 0;
    default:
        return 0;
    }
}

BOOL CWnd::PreTranslateMessage(MSG*) {
    return FALSE;
}

std::pair<std::string, std::string>& CWnd::ClassHint() {
    static std::pair<std::string, std::string> hint;
    return hint;
}

void CWnd::SetClassHint(const char* name, const char* cls) {
    ClassHint() = {name, cls};
}

void CWnd::DragAcceptFiles(BOOL accept) {
    if (m_hWnd && m_pConn)
        m_pConn->Drops().Accept(this, accept);
}

void CWnd::SetWindowText(const char* text) {
    m_strText = text ? text : "";
    if (m_hWnd && (!m_pParent || !(m_dwStyle & WS_CHILD))) {
        Display* d = m_pConn->Display();
        XStoreName(d, m_hWnd, m_strText.c_str());
        XChangeProperty(d, m_hWnd, m_pConn->Atom("_NET_WM_NAME"), m_pConn->Atom("UTF8_STRING"), 8,
                        PropModeReplace, reinterpret_cast<const unsigned char*>(m_strText.c_str()),
                        static_cast<int>(m_strText.size()));
        XFlush(d);
    }
    Invalidate();
}

int CWnd::GetWindowText(char* buffer, int size) const {
    if (!buffer || size <= 0)
        return 0;
    const size_t n = std::min(m_strText.size(), static_cast<size_t>(size - 1));
    std::memcpy(buffer, m_strText.data(), n);
    buffer[n] = 0;
    return static_cast<int>(n);
}

void CWnd::GetWindowText(CString& text) const {
    text = CString(m_strText.c_str());
}

void CWnd::SetFont(CFont* font, BOOL redraw) {
    m_pFont = font;
    if (redraw)
        Invalidate();
}

void CWnd::SelectKeys(bool on) {
    if (!m_hWnd || on == m_bKeys)
        return;
    m_bKeys = on;
    XSelectInput(m_pConn->Display(), m_hWnd,
                 kBaseEvents | (on ? KeyPressMask | KeyReleaseMask : 0));
}

void CWnd::NotifyParent(UINT code) {
    if (m_pParent)
        m_pParent->SendMessage(WM_COMMAND, MAKEWPARAM(m_nID, code), static_cast<LPARAM>(m_hWnd));
}

void CWnd::PumpMessages() {
    if (auto conn = m_pConn) // kept alive while a handler closes the window
        conn->PumpEvents();
}

int CWnd::RunModalLoop() {
    if (!m_hWnd)
        return IDCANCEL;
    auto conn = m_pConn;
    m_bInModal = true;
    m_nModalResult = IDCANCEL;
    conn->RunLoop([this] { return m_bInModal; });
    return m_nModalResult;
}

void CWnd::EndModalLoop(int result) {
    m_nModalResult = result;
    m_bInModal = false;
}

BOOL CHostFrame::Attach(HWND hostWindow) {
    if (m_hWnd || !hostWindow)
        return FALSE;
    m_pConn = CXConnection::Open();
    if (!m_pConn)
        return FALSE;
    XWindowAttributes a;
    if (!XGetWindowAttributes(m_pConn->Display(), hostWindow, &a)) {
        m_pConn.reset();
        return FALSE;
    }
    m_hWnd = hostWindow;
    m_rcWindow = CRect(0, 0, a.width, a.height);
    m_dwStyle = WS_CHILD | WS_VISIBLE;
    m_bVisible = true;
    m_pConn->Register(hostWindow, this);
    return TRUE;
}

BOOL CHostFrame::DestroyWindow() {
    // The host's window is the host's: only ours inside it go.
    if (!m_hWnd)
        return FALSE;
    auto conn = m_pConn;
    for (CWnd* child : conn->ChildrenOf(this))
        child->DestroyWindow();
    conn->Unregister(m_hWnd);
    m_hWnd = 0;
    m_pConn.reset();
    return TRUE;
}

CHostFrame::~CHostFrame() {
    DestroyWindow();
}
