#include "CXConnection.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/keysym.h>
#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <set>

#include "CDropTarget.h"
#include "CWnd.h"

namespace {

// Xlib's default error handler ends the process, and the handler is one for the whole process,
// which the host shares: errors on our connections are counted and reported, others go to the
// handler that was there before.
std::mutex gErrorLock;
std::map<Display*, CXConnection*> gConnections;
XErrorHandler gPreviousHandler = nullptr;
bool gHandlerInstalled = false;

int OnXError(::Display* display, XErrorEvent* error) {
    XErrorHandler previous = nullptr;
    {
        std::lock_guard lock(gErrorLock);
        auto it = gConnections.find(display);
        if (it != gConnections.end()) {
            it->second->CountError();
            char text[128] = {};
            XGetErrorText(display, error->error_code, text, sizeof(text));
            std::fprintf(stderr, "Morvane: X error ignored: %s (request %d)\n", text,
                         error->request_code);
            return 0;
        }
        previous = gPreviousHandler;
    }
    return previous ? previous(display, error) : 0;
}

// The handler is put back when the plug-in is unloaded, if nobody replaced it since.
struct HandlerGuard {
    ~HandlerGuard() {
        std::lock_guard lock(gErrorLock);
        if (!gHandlerInstalled)
            return;
        XErrorHandler current = XSetErrorHandler(gPreviousHandler);
        if (current != OnXError)
            XSetErrorHandler(current);
    }
} gHandlerGuard;

thread_local std::weak_ptr<CXConnection> tCurrent;

LPARAM PointParam(int x, int y) {
    return static_cast<LPARAM>((static_cast<uint32_t>(static_cast<uint16_t>(x))) |
                               (static_cast<uint32_t>(static_cast<uint16_t>(y)) << 16));
}

WPARAM MouseFlags(unsigned state) {
    WPARAM flags = 0;
    if (state & Button1Mask)
        flags |= MK_LBUTTON;
    if (state & ShiftMask)
        flags |= MK_SHIFT;
    if (state & ControlMask)
        flags |= MK_CONTROL;
    return flags;
}

// The platform's key-down code and character for an X key.
void Translate(KeySym sym, const char* text, int length, UINT* key, UINT* ch) {
    *ch = 0;
    switch (sym) {
    case XK_Return:
        *key = kKeyReturn, *ch = kCharReturn;
        return;
    case XK_KP_Enter:
        *key = kKeyEnter, *ch = kCharEnter;
        return;
    case XK_Escape:
        *key = kKeyEscape, *ch = kCharEscape;
        return;
    case XK_Tab:
    case XK_ISO_Left_Tab:
        *key = kKeyTab, *ch = kCharTab;
        return;
    case XK_BackSpace:
        *key = kKeyBackspace, *ch = kCharBackspace;
        return;
    case XK_Delete:
    case XK_KP_Delete:
        *key = kKeyDelete, *ch = kCharDelete;
        return;
    case XK_Home:
    case XK_KP_Home:
        *key = kKeyHome, *ch = kCharHome;
        return;
    case XK_End:
    case XK_KP_End:
        *key = kKeyEnd, *ch = kCharEnd;
        return;
    case XK_Left:
    case XK_KP_Left:
        *key = kKeyLeft, *ch = kCharLeft;
        return;
    case XK_Right:
    case XK_KP_Right:
        *key = kKeyRight, *ch = kCharRight;
        return;
    case XK_Up:
    case XK_KP_Up:
        *key = kKeyUp, *ch = kCharUp;
        return;
    case XK_Down:
    case XK_KP_Down:
        *key = kKeyDown, *ch = kCharDown;
        return;
    case XK_Page_Up:
        *key = kKeyPageUp;
        return;
    case XK_Page_Down:
        *key = kKeyPageDown;
        return;
    case XK_a:
    case XK_A:
        *key = kKeyA;
        break;
    case XK_o:
    case XK_O:
        *key = kKeyO;
        break;
    case XK_s:
    case XK_S:
        *key = kKeyS;
        break;
    default:
        *key = sym >= XK_F1 && sym <= XK_F12 ? kKeyF1 + static_cast<UINT>(sym - XK_F1) : kKeyOther;
        break;
    }
    if (length == 1 && static_cast<unsigned char>(text[0]) >= 32 && text[0] != 127)
        *ch = static_cast<unsigned char>(text[0]);
    else if (sym >= 0x20 && sym <= 0x7E)
        *ch = static_cast<UINT>(sym);
    else if (sym >= 0xA0 && sym <= 0xFF)
        *ch = static_cast<UINT>(sym); // Latin-1 keysyms are their code points
    else if ((sym & 0xFF000000) == 0x01000000)
        *ch = static_cast<UINT>(sym & 0x00FFFFFF); // Unicode keysyms
}

} // namespace

std::shared_ptr<CXConnection> CXConnection::Open() {
    ::Display* display = XOpenDisplay(nullptr);
    if (!display)
        return nullptr;
    std::shared_ptr<CXConnection> c(new CXConnection);
    c->m_pDisplay = display;
    c->m_nScreen = DefaultScreen(display);
    {
        std::lock_guard lock(gErrorLock);
        gConnections[display] = c.get();
        if (!gHandlerInstalled) {
            gPreviousHandler = XSetErrorHandler(OnXError);
            gHandlerInstalled = true;
        }
    }
    tCurrent = c;
    return c;
}

std::shared_ptr<CXConnection> CXConnection::ForThisThread() {
    if (auto c = tCurrent.lock())
        return c;
    return Open();
}

CXConnection* CXConnection::Current() {
    return tCurrent.lock().get();
}

CXConnection::~CXConnection() {
    {
        std::lock_guard lock(gErrorLock);
        gConnections.erase(m_pDisplay);
    }
    XCloseDisplay(m_pDisplay);
}

void CXConnection::Register(HWND hwnd, CWnd* wnd) {
    m_windows[hwnd] = wnd;
}

void CXConnection::Unregister(HWND hwnd) {
    m_windows.erase(hwnd);
    CWnd* gone = nullptr;
    if (m_pCapture && m_pCapture->m_hWnd == hwnd)
        gone = m_pCapture, m_pCapture = nullptr;
    if (m_pFocus && m_pFocus->m_hWnd == hwnd)
        m_pFocus = nullptr;
    if (gone)
        XUngrabPointer(m_pDisplay, CurrentTime);
    std::erase(m_paints, hwnd);
}

CWnd* CXConnection::Find(HWND hwnd) const {
    auto it = m_windows.find(hwnd);
    return it == m_windows.end() ? nullptr : it->second;
}

std::vector<CWnd*> CXConnection::ChildrenOf(const CWnd* parent) const {
    std::vector<CWnd*> children;
    for (const auto& [h, w] : m_windows)
        if (w->GetParent() == parent && w != parent)
            children.push_back(w);
    return children;
}

unsigned long CXConnection::Atom(const char* name) {
    auto it = m_atoms.find(name);
    if (it != m_atoms.end())
        return it->second;
    const ::Atom atom = XInternAtom(m_pDisplay, name, False);
    m_atoms[name] = atom;
    return atom;
}

void CXConnection::Post(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    std::lock_guard lock(m_postLock);
    m_posted.push_back({hwnd, message, wParam, lParam});
}

void CXConnection::NeedsPaint(HWND hwnd) {
    if (std::find(m_paints.begin(), m_paints.end(), hwnd) == m_paints.end())
        m_paints.push_back(hwnd);
}

void CXConnection::SetCapture(CWnd* wnd) {
    if (m_pCapture && m_pCapture != wnd)
        m_pCapture->SendMessage(WM_CAPTURECHANGED, 0, 0);
    m_pCapture = wnd;
    if (wnd)
        XGrabPointer(m_pDisplay, wnd->m_hWnd, False,
                     ButtonPressMask | ButtonReleaseMask | PointerMotionMask, GrabModeAsync,
                     GrabModeAsync, None, None, CurrentTime);
    else
        XUngrabPointer(m_pDisplay, CurrentTime);
    XFlush(m_pDisplay);
}

void CXConnection::SetFocusWnd(CWnd* wnd) {
    m_pFocus = wnd;
}

unsigned long CXConnection::SaveFocus() const {
    Window focus = None;
    int revert = 0;
    XGetInputFocus(m_pDisplay, &focus, &revert);
    return focus;
}

void CXConnection::RestoreFocus(unsigned long window) {
    if (window == None || window == PointerRoot)
        return;
    XWindowAttributes a;
    if (XGetWindowAttributes(m_pDisplay, window, &a) && a.map_state == IsViewable)
        XSetInputFocus(m_pDisplay, window, RevertToParent, CurrentTime);
}

bool CXConnection::KeyHeld(int virtualKey) const {
    if (m_nEventState >= 0 && (virtualKey == VK_SHIFT || virtualKey == VK_CONTROL))
        return m_nEventState & (virtualKey == VK_SHIFT ? ShiftMask : ControlMask);
    KeySym syms[2];
    if (virtualKey == VK_SHIFT)
        syms[0] = XK_Shift_L, syms[1] = XK_Shift_R;
    else if (virtualKey == VK_CONTROL)
        syms[0] = XK_Control_L, syms[1] = XK_Control_R;
    else
        return false;
    char keys[32];
    XQueryKeymap(m_pDisplay, keys);
    for (KeySym s : syms) {
        const KeyCode code = XKeysymToKeycode(m_pDisplay, s);
        if (code && (keys[code / 8] & (1 << (code % 8))))
            return true;
    }
    return false;
}

void CXConnection::Wait(int milliseconds) {
    XFlush(m_pDisplay);
    if (XPending(m_pDisplay))
        return;
    pollfd p{ConnectionNumber(m_pDisplay), POLLIN, 0};
    poll(&p, 1, milliseconds);
}

bool CXConnection::PumpEvents() {
    // Events are handled with this connection as the thread's current one, so dialogs and
    // message boxes opened from a handler land on the same display.
    auto self = shared_from_this();
    auto previous = tCurrent;
    tCurrent = self;
    bool handled = false;
    while (XPending(m_pDisplay)) {
        XEvent event;
        XNextEvent(m_pDisplay, &event);
        Dispatch(event);
        handled = true;
    }
    handled |= DispatchPosted();
    handled |= DispatchPaints();
    Sync();
    tCurrent = previous.expired() ? self : previous;
    return handled;
}

void CXConnection::Sync() {
    XSync(m_pDisplay, False);
}

bool CXConnection::DispatchPosted() {
    std::deque<MSG> batch;
    {
        std::lock_guard lock(m_postLock);
        batch.swap(m_posted);
    }
    for (const MSG& m : batch)
        if (CWnd* w = Find(m.hwnd)) // a window destroyed since drops its messages
            w->SendMessage(m.message, m.wParam, m.lParam);
    return !batch.empty();
}

bool CXConnection::DispatchPaints() {
    std::vector<HWND> paints;
    paints.swap(m_paints);
    for (HWND h : paints) {
        // painted here rather than through UpdateWindow: the pump waits for the server once
        CWnd* w = Find(h);
        if (w && w->GetUpdateRect(nullptr))
            w->SendMessage(WM_PAINT, 0, 0);
    }
    return !paints.empty();
}

void CXConnection::Dispatch(XEvent& event) {
    CWnd* w = Find(event.xany.window);
    if (!w)
        return;
    const int saved = m_nEventState;
    if (event.type == KeyPress || event.type == KeyRelease)
        m_nEventState = static_cast<int>(event.xkey.state);
    else if (event.type == ButtonPress || event.type == ButtonRelease)
        m_nEventState = static_cast<int>(event.xbutton.state);
    else if (event.type == MotionNotify)
        m_nEventState = static_cast<int>(event.xmotion.state);
    DispatchEvent(event, w);
    m_nEventState = saved;
}

CDropTarget& CXConnection::Drops() {
    if (!m_pDrop)
        m_pDrop = std::make_unique<CDropTarget>(*this);
    return *m_pDrop;
}

void CXConnection::DispatchEvent(XEvent& event, CWnd* w) {
    if ((event.type == ClientMessage || event.type == SelectionNotify) && m_pDrop &&
        m_pDrop->Handle(event, w))
        return;
    switch (event.type) {
    case Expose:
        w->OnExpose(CRect(event.xexpose.x, event.xexpose.y, event.xexpose.x + event.xexpose.width,
                          event.xexpose.y + event.xexpose.height));
        break;
    case ConfigureNotify:
        w->OnConfigured(event.xconfigure.x, event.xconfigure.y, event.xconfigure.width,
                        event.xconfigure.height);
        break;
    case DestroyNotify:
        if (event.xdestroywindow.window == w->m_hWnd)
            w->OnWindowGone();
        break;
    case ButtonPress: {
        const auto& b = event.xbutton;
        m_lastInput = w->m_hWnd;
        const LPARAM at = PointParam(b.x, b.y);
        if (b.button == Button1) {
            // a second press soon and near on the same window is a double click, for classes
            // that ask for it
            const unsigned long now = b.time;
            const bool dbl = (w->ClassStyle() & CS_DBLCLKS) && m_lastPressWindow == w->m_hWnd &&
                             now - m_lastPressTime < 500 &&
                             std::abs(b.x - m_lastPressPoint.x) < 4 &&
                             std::abs(b.y - m_lastPressPoint.y) < 4;
            m_lastPressWindow = dbl ? 0 : w->m_hWnd;
            m_lastPressTime = now;
            m_lastPressPoint = {b.x, b.y};
            w->SendMessage(dbl ? WM_LBUTTONDBLCLK : WM_LBUTTONDOWN,
                           MouseFlags(b.state) | MK_LBUTTON, at);
        } else if (b.button == Button3) {
            w->SendMessage(WM_RBUTTONDOWN, MouseFlags(b.state), at);
        } else if (b.button == Button4 || b.button == Button5) {
            const int delta = b.button == Button4 ? 120 : -120;
            w->SendMessage(WM_MOUSEWHEEL,
                           MAKEWPARAM(MouseFlags(b.state), static_cast<unsigned>(delta)), at);
        }
        break;
    }
    case ButtonRelease: {
        const auto& b = event.xbutton;
        if (b.button == Button1)
            w->SendMessage(WM_LBUTTONUP, MouseFlags(b.state) & ~MK_LBUTTON, PointParam(b.x, b.y));
        else if (b.button == Button3)
            w->SendMessage(WM_RBUTTONUP, MouseFlags(b.state), PointParam(b.x, b.y));
        break;
    }
    case MotionNotify: {
        // only the latest position of a run of moves matters; a move after a button's press or
        // release is another run, so a quick drag still starts where the button went down
        XEvent next;
        while (XEventsQueued(m_pDisplay, QueuedAlready) > 0) {
            XPeekEvent(m_pDisplay, &next);
            if (next.type != MotionNotify || next.xmotion.window != event.xmotion.window)
                break;
            XNextEvent(m_pDisplay, &event);
        }
        w->SendMessage(WM_MOUSEMOVE, MouseFlags(event.xmotion.state),
                       PointParam(event.xmotion.x, event.xmotion.y));
        break;
    }
    case KeyPress:
        DispatchKey(event);
        break;
    case FocusIn:
        if (event.xfocus.detail != NotifyPointer && event.xfocus.detail != NotifyInferior) {
            m_pFocus = w;
            w->SendMessage(WM_SETFOCUS, 0, 0);
        }
        break;
    case FocusOut:
        if (event.xfocus.detail != NotifyPointer && event.xfocus.detail != NotifyInferior) {
            if (m_pFocus == w)
                m_pFocus = nullptr;
            w->SendMessage(WM_KILLFOCUS, 0, 0);
        }
        break;
    case ClientMessage:
        if (static_cast<unsigned long>(event.xclient.data.l[0]) == Atom("WM_DELETE_WINDOW"))
            w->SendMessage(WM_CLOSE, 0, 0);
        break;
    default:
        break;
    }
}

void CXConnection::DispatchKey(XEvent& event) {
    char text[16] = {};
    KeySym sym = NoSymbol;
    const int length = XLookupString(&event.xkey, text, sizeof(text) - 1, &sym, nullptr);
    UINT key = 0, ch = 0;
    Translate(sym, text, length, &key, &ch);
    if (event.xkey.state & ControlMask && key != kKeyA && ch >= 32)
        ch = 0; // control chords are commands, not text
    if (event.xkey.state & ControlMask && key == kKeyA)
        ch = 0;
    CWnd* target = Find(event.xkey.window);
    if (!target)
        return;
    // Keys typed ahead of a focus change were routed by the server to the old window: they
    // belong to the window that has the focus now, as in a desktop framework's queue.
    if (m_pFocus && m_pFocus != target && m_pFocus->WantsKeys())
        target = m_pFocus;
    m_lastInput = target->m_hWnd;
    const HWND hwnd = target->m_hWnd;
    m_nCurrentChar = ch;
    MSG msg{hwnd, WM_KEYDOWN, key, 1};
    for (CWnd* w = target; w; w = w->GetParent())
        if (w->PreTranslateMessage(&msg))
            return;
    if (!Find(hwnd))
        return;
    target->SendMessage(WM_KEYDOWN, key, 1);
    if (ch && Find(hwnd))
        target->SendMessage(WM_CHAR, ch, 1);
}
