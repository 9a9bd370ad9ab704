#pragma once

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

// Polls until done() holds or seconds have passed; whether it holds. For what another process or
// thread makes true: the deadline is only there to end a test whose condition never comes.
inline bool WaitFor(const std::function<bool()>& done, int seconds = 20) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until)
            return done();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// A person at the test's private X server: moves the pointer, clicks and types through XTest on a
// connection of its own, and reads back what is on the screen.
class XSession {
public:
    XSession() : m_display(XOpenDisplay(nullptr)) {
        int a, b, c, d;
        if (!m_display || !XTestQueryExtension(m_display, &a, &b, &c, &d))
            throw std::runtime_error(
                "no X display with XTest (tests run under tests/support/with-xvfb.sh)");
        sDisplay = m_display;
        static const XErrorHandler previous = XSetErrorHandler(OnError); // once a process
        sPrevious = previous;
    }
    ~XSession() { XCloseDisplay(m_display); }
    XSession(const XSession&) = delete;
    XSession& operator=(const XSession&) = delete;

    Display* display() const { return m_display; }

    // Where a window's (x, y) is on the screen.
    void ToScreen(unsigned long window, int& x, int& y) {
        Window child;
        XTranslateCoordinates(m_display, window, DefaultRootWindow(m_display), x, y, &x, &y,
                              &child);
    }
    void MoveTo(unsigned long window, int x, int y) {
        ToScreen(window, x, y);
        XTestFakeMotionEvent(m_display, -1, x, y, CurrentTime);
        XSync(m_display, False);
    }
    void Button(bool down, unsigned button = 1) {
        XTestFakeButtonEvent(m_display, button, down, CurrentTime);
        XSync(m_display, False);
    }
    void Click(unsigned long window, int x, int y) {
        MoveTo(window, x, y);
        Button(true);
        Button(false);
    }
    void Key(KeySym sym, bool down) {
        XTestFakeKeyEvent(m_display, XKeysymToKeycode(m_display, sym), down, CurrentTime);
        XSync(m_display, False);
    }
    // A key pressed and let go, with no pause: what a key changes is waited for where it matters
    // (a new window: WaitForNewWindow; the focus: TabTo).
    void Tap(KeySym sym) {
        Key(sym, true);
        Key(sym, false);
    }
    // Tab, or Shift+Tab when back: the focus moves to the next control, and the person waits
    // until it has, as keys typed before then may go to the control it left.
    void TabTo(bool back = false) {
        const Window from = Focus();
        if (back)
            Key(XK_Shift_L, true);
        Tap(XK_Tab);
        if (back)
            Key(XK_Shift_L, false);
        WaitFor([&] { return Focus() != from; });
    }
    // Control+A: everything in the focused field, to be typed over.
    void SelectAll() {
        Key(XK_Control_L, true);
        Tap(XK_a);
        Key(XK_Control_L, false);
    }
    void Type(const char* text) {
        for (const char* p = text; *p; ++p) {
            const bool shift = *p == '_' || *p == ':' || (*p >= 'A' && *p <= 'Z');
            if (shift)
                Key(XK_Shift_L, true);
            Tap(static_cast<KeySym>(static_cast<unsigned char>(*p)));
            if (shift)
                Key(XK_Shift_L, false);
        }
    }
    // The windows on screen now (mapped children of the root).
    std::vector<Window> Shown() {
        std::vector<Window> shown;
        Window root, parent, *kids = nullptr;
        unsigned count = 0;
        XQueryTree(m_display, DefaultRootWindow(m_display), &root, &parent, &kids, &count);
        for (unsigned i = 0; i < count; ++i) {
            XWindowAttributes a;
            if (XGetWindowAttributes(m_display, kids[i], &a) && a.map_state == IsViewable)
                shown.push_back(kids[i]);
        }
        XFree(kids);
        return shown;
    }
    // Waits until a window that was not among 'before' is on screen and has the keyboard: the
    // focus is in it (a dialog), or a client holds the keyboard (a menu's grab). Watching never
    // grabs anything itself, which would take the keyboard from the window.
    // Returns it, or None.
    Window WaitForNewWindow(const std::vector<Window>& before) {
        Window opened = None;
        WaitFor([&] {
            opened = None;
            for (Window w : Shown())
                if (std::find(before.begin(), before.end(), w) == before.end()) {
                    opened = w;
                    break;
                }
            return opened != None && (Holds(opened, Focus()) || KeyboardTaken());
        });
        return opened;
    }
    // Runs modal, which opens a window and returns when it closes, while the person waits on
    // another thread for that window and plays steps on it (they receive it).
    template <class Modal> auto WithPerson(const std::function<void(Window)>& steps, Modal modal) {
        const std::vector<Window> before = Shown();
        std::thread t([&] {
            if (const Window opened = WaitForNewWindow(before); opened != None)
                steps(opened);
        });
        auto result = modal();
        t.join();
        return result;
    }
    Window Focus() {
        Window focus = None;
        int revert = 0;
        XGetInputFocus(m_display, &focus, &revert);
        return focus;
    }
    // The screen's pixels of a window's area as 0x00RRGGBB, row by row.
    std::vector<uint32_t> Grab(unsigned long window, int width, int height) {
        XSync(m_display, False);
        XImage* img = XGetImage(m_display, window, 0, 0, static_cast<unsigned>(width),
                                static_cast<unsigned>(height), AllPlanes, ZPixmap);
        std::vector<uint32_t> pixels;
        if (!img)
            return pixels;
        pixels.reserve(static_cast<size_t>(width) * height);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                pixels.push_back(static_cast<uint32_t>(XGetPixel(img, x, y)) & 0xFFFFFF);
        XDestroyImage(img);
        return pixels;
    }
    // The top-level window whose title holds text, waiting up to twenty seconds for one; 0 when
    // none came. title receives the whole title.
    Window WaitForTitle(const std::string& text, std::string* title = nullptr) {
        Window found = 0;
        WaitFor([&] {
            Window root, parent, *kids = nullptr;
            unsigned count = 0;
            XQueryTree(m_display, DefaultRootWindow(m_display), &root, &parent, &kids, &count);
            for (unsigned k = 0; k < count && !found; ++k) {
                char* name = nullptr;
                if (XFetchName(m_display, kids[k], &name) && name) {
                    if (std::string(name).find(text) != std::string::npos) {
                        found = kids[k];
                        if (title)
                            *title = name;
                    }
                    XFree(name);
                }
            }
            XFree(kids);
            return found != 0;
        });
        return found;
    }
    // Waits until the application on connection c (the window layer's) has handled all the person
    // did and the server has carried out all it did in answer: the layer's pump returns with what
    // it sent carried out, and says whether it handled anything.
    template <class Connection> void Settle(Connection& c) {
        XSync(m_display, False);
        XSync(c.Display(), False); // what the person caused is queued on c's connection now
        for (int i = 0; i < 1000 && c.PumpEvents(); ++i) {
        }
    }
    // Drags a text/uri-list from a window of the person's own onto target at (x, y) and drops
    // it, as a file manager does (XDND 5). True when the target took the drop.
    bool Drop(Window target, int x, int y, const std::string& uriList) {
        Display* d = m_display;
        const auto atom = [&](const char* name) { return XInternAtom(d, name, False); };
        const Window source = XCreateSimpleWindow(d, DefaultRootWindow(d), 0, 0, 1, 1, 0, 0, 0);
        XSetSelectionOwner(d, atom("XdndSelection"), source, CurrentTime);
        const auto send = [&](const char* type, long l1, long l2, long l3, long l4) {
            XEvent e{};
            e.xclient.type = ClientMessage;
            e.xclient.window = target;
            e.xclient.message_type = atom(type);
            e.xclient.format = 32;
            e.xclient.data.l[0] = static_cast<long>(source);
            e.xclient.data.l[1] = l1;
            e.xclient.data.l[2] = l2;
            e.xclient.data.l[3] = l3;
            e.xclient.data.l[4] = l4;
            XSendEvent(d, target, False, NoEventMask, &e);
            XSync(d, False);
        };
        // the target's answers come to the source window
        const auto answer = [&](const char* type, XEvent& e) {
            return WaitFor([&] {
                while (XCheckTypedWindowEvent(d, source, SelectionRequest, &e)) {
                    const XSelectionRequestEvent& r = e.xselectionrequest;
                    XChangeProperty(d, r.requestor, r.property, r.target, 8, PropModeReplace,
                                    reinterpret_cast<const unsigned char*>(uriList.data()),
                                    static_cast<int>(uriList.size()));
                    XEvent n{};
                    n.xselection.type = SelectionNotify;
                    n.xselection.requestor = r.requestor;
                    n.xselection.selection = r.selection;
                    n.xselection.target = r.target;
                    n.xselection.property = r.property;
                    n.xselection.time = r.time;
                    XSendEvent(d, r.requestor, False, NoEventMask, &n);
                    XSync(d, False);
                }
                return XCheckTypedWindowEvent(d, source, ClientMessage, &e) &&
                       e.xclient.message_type == atom(type);
            });
        };
        ToScreen(target, x, y);
        const long copy = static_cast<long>(atom("XdndActionCopy"));
        send("XdndEnter", 5L << 24, static_cast<long>(atom("text/uri-list")), 0, 0);
        send("XdndPosition", 0, (static_cast<long>(x) << 16) | y, CurrentTime, copy);
        XEvent e{};
        bool taken = answer("XdndStatus", e) && (e.xclient.data.l[1] & 1);
        if (taken) {
            send("XdndDrop", 0, CurrentTime, 0, 0);
            taken = answer("XdndFinished", e) && (e.xclient.data.l[1] & 1);
        } else {
            send("XdndLeave", 0, 0, 0, 0);
        }
        XDestroyWindow(d, source);
        XSync(d, False);
        return taken;
    }
    // Asks a top-level window to close, as a window manager's close button does.
    void Close(Window w) {
        XEvent close{};
        close.xclient.type = ClientMessage;
        close.xclient.window = w;
        close.xclient.message_type = XInternAtom(m_display, "WM_PROTOCOLS", False);
        close.xclient.format = 32;
        close.xclient.data.l[0] =
            static_cast<long>(XInternAtom(m_display, "WM_DELETE_WINDOW", False));
        XSendEvent(m_display, w, False, NoEventMask, &close);
        XSync(m_display, False);
    }

private:
    // The person looks at other clients' windows, which may go at any moment: a BadWindow on the
    // person's connection is one gone between two requests, and the request that met it just
    // fails. Other errors go to the handler that was there before.
    static inline std::atomic<Display*> sDisplay{nullptr};
    static inline XErrorHandler sPrevious = nullptr;
    static int OnError(Display* d, XErrorEvent* e) {
        if (d == sDisplay && e->error_code == BadWindow)
            return 0;
        return sPrevious ? sPrevious(d, e) : 0;
    }

    // Whether window is ancestor or inside it.
    bool Holds(Window ancestor, Window window) {
        while (window != None && window != PointerRoot) {
            if (window == ancestor)
                return true;
            Window root, parent, *kids = nullptr;
            unsigned count = 0;
            if (!XQueryTree(m_display, window, &root, &parent, &kids, &count))
                return false;
            XFree(kids);
            window = parent == root ? None : parent;
        }
        return false;
    }
    // Whether another client holds the keyboard. A grab stamped later than the server's time can
    // only fail: AlreadyGrabbed when the keyboard is held, GrabInvalidTime, grabbing nothing,
    // when it is not.
    bool KeyboardTaken() {
        return XGrabKeyboard(m_display, DefaultRootWindow(m_display), False, GrabModeAsync,
                             GrabModeAsync, ServerTime() + 60000) == AlreadyGrabbed;
    }
    // The server's time now, from the event a zero-length append to a property brings.
    Time ServerTime() {
        if (m_clock == None) {
            m_clock =
                XCreateSimpleWindow(m_display, DefaultRootWindow(m_display), 0, 0, 1, 1, 0, 0, 0);
            XSelectInput(m_display, m_clock, PropertyChangeMask);
        }
        const Atom name = XInternAtom(m_display, "MORVANE_TEST_CLOCK", False);
        XChangeProperty(m_display, m_clock, name, XA_STRING, 8, PropModeAppend, nullptr, 0);
        XEvent e;
        XWindowEvent(m_display, m_clock, PropertyChangeMask, &e);
        return e.xproperty.time;
    }

    Display* m_display;
    Window m_clock = None; // a window of the person's own, for the server's time
};
