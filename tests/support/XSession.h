#pragma once

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

// A person at the test's private X server: moves the pointer, clicks and types through XTest on a
// connection of its own, and reads back what is on the screen.
class XSession {
public:
    XSession() : m_display(XOpenDisplay(nullptr)) {
        int a, b, c, d;
        if (!m_display || !XTestQueryExtension(m_display, &a, &b, &c, &d))
            throw std::runtime_error(
                "no X display with XTest (tests run under tests/support/with-xvfb.sh)");
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
    // A key pressed and let go, at a brisk typist's pace: what a key changes (the focus, a list)
    // has happened before the next one comes.
    void Tap(KeySym sym) {
        Key(sym, true);
        Key(sym, false);
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
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
    // Waits, up to a few seconds, until a window that was not among 'before' is on screen and
    // has had time to take the keyboard (a dialog takes the focus, a menu a grab); watching never
    // grabs anything itself, which would take the keyboard from the window.
    // Returns it, or None.
    Window WaitForNewWindow(const std::vector<Window>& before) {
        for (int i = 0; i < 600; ++i) {
            for (Window w : Shown())
                if (std::find(before.begin(), before.end(), w) == before.end()) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(150));
                    return w;
                }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return None;
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

private:
    Display* m_display;
};

// Runs the application's side (a pump) until done() or about two seconds have passed.
inline bool PumpUntil(const std::function<void()>& pump, const std::function<bool()>& done,
                      int milliseconds = 2000) {
    for (int i = 0; i < milliseconds / 5; ++i) {
        pump();
        if (done())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pump();
    return done();
}
