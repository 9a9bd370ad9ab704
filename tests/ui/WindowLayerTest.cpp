// The window and drawing layer on a private X server, driven through XTest as a person would.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "CBitmap.h"
#include "CButton.h"
#include "CComboBox.h"
#include "CDC.h"
#include "CDialog.h"
#include "CEdit.h"
#include "CFont.h"
#include "CMenu.h"
#include "CMessageBox.h"
#include "CResources.h"
#include "CSpinButtonCtrl.h"
#include "CStatic.h"
#include "CWnd.h"
#include "CXConnection.h"
#include "support/XSession.h"

namespace {

constexpr COLORREF kRed = RGB(220, 30, 40), kBlue = RGB(20, 60, 200);

uint32_t Rgb(COLORREF c) { // as the screen reads it back
    return static_cast<uint32_t>(GetRValue(c) << 16 | GetGValue(c) << 8 | GetBValue(c));
}

// A window that logs what reaches it and paints one colour.
class CBaseLogWnd : public CWnd {
public:
    std::vector<std::string> log;

protected:
    DECLARE_MESSAGE_MAP()
    LRESULT OnEscapeMessage(WPARAM w, LPARAM) {
        log.push_back("base 0A00 " + std::to_string(w));
        return 1;
    }
    LRESULT OnReturnMessage(WPARAM, LPARAM) {
        log.push_back("base 0A01");
        return 1;
    }
};
BEGIN_MESSAGE_MAP(CBaseLogWnd, CWnd)
ON_MESSAGE(0x0A00, OnEscapeMessage)
ON_MESSAGE(0x0A01, OnReturnMessage)
END_MESSAGE_MAP()

class CLogWnd : public CBaseLogWnd {
public:
    COLORREF fill = kRed;
    bool failCreate = false;
    short shiftAtPress = 0;
    std::vector<CPoint> moves;

protected:
    DECLARE_MESSAGE_MAP()
    int OnCreate(LPCREATESTRUCT cs) {
        log.push_back("create");
        return failCreate ? -1 : CWnd::OnCreate(cs);
    }
    void OnPaint() {
        CPaintDC dc(this);
        CRect c;
        GetClientRect(&c);
        dc.FillSolidRect(c, fill);
        log.push_back("paint");
    }
    LRESULT OnReturnMessage(WPARAM w, LPARAM) {
        log.push_back("0A01 " + std::to_string(w));
        return 2;
    }
    void OnCopy(UINT id) { log.push_back("command " + std::to_string(id)); }
    void OnLButtonDown(UINT, CPoint) {
        shiftAtPress = GetKeyState(VK_SHIFT);
        SetCapture();
        log.push_back("down");
    }
    void OnMouseMove(UINT, CPoint p) {
        if (GetCapture() == this)
            moves.push_back(p);
    }
    void OnLButtonUp(UINT, CPoint p) {
        ReleaseCapture();
        log.push_back("up " + std::to_string(p.x) + "," + std::to_string(p.y));
    }
};
BEGIN_MESSAGE_MAP(CLogWnd, CBaseLogWnd)
ON_WM_CREATE()
ON_WM_PAINT()
ON_MESSAGE(0x0A01, OnReturnMessage)
ON_COMMAND_RANGE(1010, 1110, OnCopy)
ON_WM_LBUTTONDOWN()
ON_WM_MOUSEMOVE()
ON_WM_LBUTTONUP()
END_MESSAGE_MAP()

struct WindowLayer : ::testing::Test {
    XSession person;
    CLogWnd wnd;
    void SetUp() override {
        RegisterBuiltInResources();
        ASSERT_TRUE(wnd.CreateEx(0, AfxRegisterWndClass(CS_DBLCLKS), "Test",
                                 WS_POPUP | WS_CAPTION | WS_VISIBLE, CRect(40, 40, 360, 280),
                                 nullptr, 0));
        Settle();
    }
    static void Pump() { CXConnection::Current()->PumpEvents(); }
    // the server and the layer have handled everything sent so far, on connection c
    void Settle(CXConnection* c = CXConnection::Current()) { person.Settle(*c); }
    bool Has(const std::string& entry) const {
        return std::find(wnd.log.begin(), wnd.log.end(), entry) != wnd.log.end();
    }
    // Runs a modal call on this thread while 'steps' plays the person on another, who starts
    // once the dialog or menu has taken the keyboard.
    template <class Modal> auto WithPerson(std::function<void()> steps, Modal modal) {
        return person.WithPerson([&](Window) { steps(); }, modal);
    }
};

TEST_F(WindowLayer, MessagesAreSentPostedAndMappedThroughTheClasses) {
    EXPECT_TRUE(Has("create"));
    wnd.log.clear();
    wnd.PostMessage(0x0A00, 7);
    EXPECT_EQ(2, wnd.SendMessage(0x0A01, 3)); // the derived map wins over the base's
    EXPECT_EQ(std::vector<std::string>{"0A01 3"}, wnd.log) << "posted messages wait for the pump";
    Pump();
    EXPECT_EQ((std::vector<std::string>{"0A01 3", "base 0A00 7"}), wnd.log);
    wnd.SendMessage(WM_COMMAND, MAKEWPARAM(1015, 0));
    wnd.SendMessage(WM_COMMAND, MAKEWPARAM(1200, 0)); // outside the range: default handling
    EXPECT_EQ("command 1015", wnd.log.back());

    CLogWnd failing;
    failing.failCreate = true;
    EXPECT_FALSE(failing.CreateEx(0, nullptr, "", WS_CHILD, CRect(0, 0, 10, 10), &wnd, 5));
    EXPECT_EQ(0u, failing.m_hWnd);
    // a message posted to a window destroyed before the pump is dropped
    CLogWnd gone;
    ASSERT_TRUE(gone.Create(nullptr, "", WS_CHILD, CRect(0, 0, 10, 10), &wnd, 6));
    EXPECT_EQ(&gone, wnd.GetDlgItem(6));
    gone.PostMessage(0x0A01);
    gone.DestroyWindow();
    Pump();
    EXPECT_EQ(1u, gone.log.size()); // only its creation
}

TEST_F(WindowLayer, RasterOperationsArePixelExact) {
    CBitmap a, b, mask;
    ASSERT_TRUE(a.CreateCompatibleBitmap(nullptr, 8, 8) &&
                b.CreateCompatibleBitmap(nullptr, 8, 8) &&
                mask.CreateCompatibleBitmap(nullptr, 8, 8));
    CDC da, db, dm;
    da.CreateCompatibleDC(nullptr), db.CreateCompatibleDC(nullptr), dm.CreateCompatibleDC(nullptr);
    da.SelectObject(&a), db.SelectObject(&b), dm.SelectObject(&mask);
    da.FillSolidRect(CRect(0, 0, 8, 8), RGB(0xF0, 0x0F, 0x33));
    db.FillSolidRect(CRect(0, 0, 8, 8), RGB(0x3C, 0xFF, 0x55));
    auto rgb = [](const CBitmap& bm, int x, int y) { return bm.GetPixel(x, y) & 0xFFFFFF; };

    db.BitBlt(0, 0, 2, 2, &da, 0, 0, SRCINVERT);
    EXPECT_EQ(0xF0u ^ 0x3C, rgb(b, 0, 0) >> 16);
    EXPECT_EQ((0x0Fu ^ 0xFF) << 8 | (0x33 ^ 0x55), rgb(b, 1, 1) & 0xFFFF);
    db.BitBlt(2, 0, 2, 2, &da, 0, 0, SRCAND);
    EXPECT_EQ(((0xF0u & 0x3C) << 16) | ((0x0F & 0xFF) << 8) | (0x33 & 0x55), rgb(b, 2, 0));
    db.BitBlt(4, 0, 2, 2, &da, 0, 0, SRCCOPY);
    EXPECT_EQ(rgb(a, 0, 0), rgb(b, 5, 1));
    EXPECT_EQ(0x3CFF55u, rgb(b, 6, 0)) << "nothing outside the block";

    // image xor, mask and, image xor: white mask pixels keep the destination
    dm.FillSolidRect(CRect(0, 0, 8, 8), RGB(0, 0, 0));
    dm.FillSolidRect(CRect(0, 0, 4, 8), RGB(255, 255, 255));
    db.FillSolidRect(CRect(0, 0, 8, 8), RGB(1, 2, 3));
    db.BitBlt(0, 0, 8, 8, &da, 0, 0, SRCINVERT);
    db.BitBlt(0, 0, 8, 8, &dm, 0, 0, SRCAND);
    db.BitBlt(0, 0, 8, 8, &da, 0, 0, SRCINVERT);
    EXPECT_EQ(0x010203u, rgb(b, 1, 5));
    EXPECT_EQ(0xF00F33u, rgb(b, 6, 5));

    // clipped at every edge, the source moving with the destination
    db.FillSolidRect(CRect(0, 0, 8, 8), RGB(0, 0, 0));
    da.FillSolidRect(CRect(0, 0, 1, 1), RGB(9, 9, 9));
    db.BitBlt(-1, -1, 20, 20, &da, 0, 0, SRCCOPY);
    EXPECT_EQ(rgb(a, 1, 1), rgb(b, 0, 0)) << "(-1,-1) takes the source's (1,1) to (0,0)";
    // stretched twice as large, nearest pixel; an overlapping copy inside one bitmap
    CBitmap big;
    big.CreateCompatibleBitmap(nullptr, 16, 16);
    CDC dbig;
    dbig.CreateCompatibleDC(nullptr);
    dbig.SelectObject(&big);
    dbig.StretchBlt(0, 0, 16, 16, &da, 0, 0, 8, 8, SRCCOPY);
    EXPECT_EQ(0x090909u, rgb(big, 1, 1));
    EXPECT_EQ(rgb(a, 5, 5), rgb(big, 11, 10));
    da.FillSolidRect(CRect(0, 0, 8, 8), RGB(0, 0, 0));
    for (int x = 0; x < 8; ++x)
        da.FillSolidRect(CRect(x, 0, x + 1, 1), RGB(x, 0, 0));
    da.BitBlt(1, 0, 7, 1, &da, 0, 0, SRCCOPY);
    EXPECT_EQ(0x000000u, rgb(a, 1, 0));
    EXPECT_EQ(0x060000u, rgb(a, 7, 0));
}

TEST_F(WindowLayer, TextIsMeasuredClippedAndJapanese) {
    CFont osaka;
    ASSERT_TRUE(osaka.CreatePointFont(90, "Osaka"));
    EXPECT_TRUE(osaka.HasGlyph(0x3042) && osaka.HasGlyph(0x30D4)) << osaka.ResolvedFamily();
    CBitmap bm;
    bm.CreateCompatibleBitmap(nullptr, 120, 40);
    CDC dc;
    dc.CreateCompatibleDC(nullptr);
    dc.SelectObject(&bm);
    dc.SelectObject(&osaka);
    dc.FillSolidRect(CRect(0, 0, 120, 40), RGB(255, 255, 255));
    const CSize size = dc.GetTextExtent("-1200.0");
    EXPECT_GT(size.cx, 25);
    EXPECT_LT(size.cx, 60);
    EXPECT_GE(size.cy, 10);
    EXPECT_LE(size.cy, 16);
    EXPECT_GT(dc.GetTextExtent("ピッチ").cx, dc.GetTextExtent("ab").cx);

    dc.SetBkMode(TRANSPARENT);
    dc.SetTextColor(RGB(0, 0, 0));
    const CRect clip(10, 10, 30, 20);
    dc.ExtTextOut(5, 5, ETO_CLIPPED, &clip, "8888888888", 10);
    int inside = 0, outside = 0;
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 120; ++x)
            if ((bm.GetPixel(x, y) & 0xFFFFFF) != 0xFFFFFF)
                ++(clip.PtInRect({x, y}) ? inside : outside);
    EXPECT_GT(inside, 10);
    EXPECT_EQ(0, outside);
    // opaque mode fills the text's cell with the background colour
    dc.SetBkMode(OPAQUE);
    dc.SetBkColor(RGB(0, 200, 0));
    dc.TextOut(60, 20, "i");
    EXPECT_EQ(0x00C800u, bm.GetPixel(60, 20) & 0xFFFFFF);
}

TEST_F(WindowLayer, PaintsReachTheScreenAndOnlyWhatWasInvalid) {
    auto grab = [&] { return person.Grab(wnd.m_hWnd, 320, 240); };
    std::vector<uint32_t> px = grab();
    ASSERT_EQ(320u * 240, px.size());
    EXPECT_EQ(Rgb(kRed), px[0]);
    EXPECT_EQ(Rgb(kRed), px[239 * 320 + 319]);

    wnd.fill = kBlue;
    const CRect part(100, 50, 150, 80);
    wnd.InvalidateRect(&part);
    wnd.UpdateWindow();
    px = grab();
    EXPECT_EQ(Rgb(kBlue), px[50 * 320 + 100]);
    EXPECT_EQ(Rgb(kBlue), px[79 * 320 + 149]);
    EXPECT_EQ(Rgb(kRed), px[80 * 320 + 149]);
    EXPECT_EQ(Rgb(kRed), px[50 * 320 + 99]);
    {
        CClientDC dc(&wnd); // outside a paint, straight to the screen
        dc.FillSolidRect(CRect(0, 0, 10, 10), RGB(0, 255, 0));
    }
    EXPECT_EQ(0x00FF00u, grab()[5 * 320 + 5]);
    // covered and uncovered: the backing image answers, the owner is not asked to paint
    wnd.log.clear();
    CLogWnd cover;
    cover.CreateEx(0, nullptr, "", WS_POPUP | WS_VISIBLE, CRect(60, 60, 160, 160), nullptr, 0);
    Settle();
    cover.DestroyWindow();
    Settle();
    EXPECT_EQ(0x00FF00u, grab()[5 * 320 + 5]);
    EXPECT_FALSE(Has("paint"));
}

TEST_F(WindowLayer, EditControlTakesKeysOnlyWhileFocused) {
    CFont font;
    font.CreatePointFont(100, "Osaka");
    CEdit edit;
    ASSERT_TRUE(edit.Create(WS_CHILD | WS_VISIBLE, CRect(10, 10, 210, 36), &wnd, 18001));
    edit.SetFont(&font);
    Settle();
    XWindowAttributes a;
    XGetWindowAttributes(person.display(), edit.m_hWnd, &a);
    EXPECT_FALSE(a.all_event_masks & KeyPressMask)
        << "keys belong to the host until a field is edited";
    XGetWindowAttributes(person.display(), wnd.m_hWnd, &a);
    EXPECT_FALSE(a.all_event_masks & KeyPressMask);

    person.Click(edit.m_hWnd, 20, 12); // a person waits for the field before typing
    Settle();
    EXPECT_EQ(&edit, CWnd::GetFocus());
    XGetWindowAttributes(person.display(), edit.m_hWnd, &a);
    EXPECT_TRUE(a.all_event_masks & KeyPressMask);
    auto text = [&] {
        char buf[64];
        edit.GetWindowText(buf, sizeof(buf));
        return std::string(buf);
    };
    auto keys = [&](std::initializer_list<KeySym> syms) {
        for (KeySym s : syms)
            person.Tap(s);
        Settle();
    };
    person.Type("12.5x");
    Settle();
    EXPECT_EQ("12.5x", text());
    keys({XK_BackSpace, XK_Home, XK_Delete});
    EXPECT_EQ("2.5", text());
    keys({XK_Right, XK_Right});
    person.Type("0");
    Settle();
    EXPECT_EQ("2.05", text());
    keys({XK_End});
    person.Key(XK_Shift_L, true);
    keys({XK_Home});
    person.Key(XK_Shift_L, false);
    person.Type("7");
    Settle();
    EXPECT_EQ("7", text()) << "a typed character replaces the selection";
    person.Key(XK_Control_L, true);
    keys({XK_a});
    person.Key(XK_Control_L, false);
    edit.SetLimitText(3);
    person.Type("4567");
    Settle();
    EXPECT_EQ("456", text());
    int s, e;
    edit.GetSel(s, e);
    EXPECT_EQ(3, s);
    // focus elsewhere: the field lets go of the keys
    wnd.SetFocus();
    Settle();
    XGetWindowAttributes(person.display(), edit.m_hWnd, &a);
    EXPECT_FALSE(a.all_event_masks & KeyPressMask);
}

TEST_F(WindowLayer, CaptureFollowsADragOutOfTheWindowAndShiftIsSeen) {
    person.MoveTo(wnd.m_hWnd, 50, 50);
    person.Key(XK_Shift_L, true);
    person.Button(true);
    Settle();
    person.Key(XK_Shift_L, false);
    person.MoveTo(wnd.m_hWnd, 400, 300); // beyond the window's right and bottom
    person.MoveTo(wnd.m_hWnd, -30, 500);
    person.Button(false);
    Settle();
    EXPECT_LT(wnd.shiftAtPress, 0);
    ASSERT_FALSE(wnd.moves.empty());
    EXPECT_EQ(CPoint(-30, 500), wnd.moves.back());
    EXPECT_TRUE(Has("up -30,500"));
    EXPECT_EQ(nullptr, CWnd::GetCapture());
}

TEST_F(WindowLayer, PopupMenusChooseCancelAndRefuseGreyedEntries) {
    CMenu menu;
    menu.CreatePopupMenu();
    menu.AppendMenu(MF_STRING, 1010, "1:Semitone up");
    menu.AppendMenu(MF_CHECKED | MF_DISABLED | MF_GRAYED, 1011, "2:Current");
    menu.AppendMenu(MF_STRING, 1012, "3:ピッチ");
    // keys: Down lands on the first entry, the next Down skips the greyed one
    const BOOL id =
        WithPerson([&] { person.Tap(XK_Down), person.Tap(XK_Down), person.Tap(XK_Return); },
                   [&] { return menu.TrackPopupMenu(TPM_RETURNCMD, 89, 13, &wnd); });
    EXPECT_EQ(1012, id);
    EXPECT_EQ(FALSE, WithPerson([&] { person.Tap(XK_Escape); },
                                [&] { return menu.TrackPopupMenu(TPM_LEFTALIGN, 89, 13, &wnd); }));
    // a click on an entry: the command arrives at the owner, posted
    EXPECT_EQ(TRUE, WithPerson([&] { person.Click(wnd.m_hWnd, 89 + 30, 13 + 8); },
                               [&] { return menu.TrackPopupMenu(TPM_LEFTALIGN, 89, 13, &wnd); }));
    Settle();
    EXPECT_EQ("command 1010", wnd.log.back());
    // a click on the greyed entry chooses nothing; a click elsewhere closes the menu
    EXPECT_EQ(FALSE, WithPerson(
                         [&] {
                             person.Click(wnd.m_hWnd, 89 + 30, 13 + 30);
                             person.Click(wnd.m_hWnd, 300, 230);
                         },
                         [&] { return menu.TrackPopupMenu(TPM_RETURNCMD, 89, 13, &wnd); }));
    EXPECT_EQ(&wnd, CWnd::FromHandle(wnd.m_hWnd));
}

TEST_F(WindowLayer, MessageBoxOverTheWindowClosesWithReturn) {
    EXPECT_EQ(IDOK,
              WithPerson([&] { person.Tap(XK_Return); }, [&] { return AfxMessageBox(20200); }));
}

TEST_F(WindowLayer, SpinButtonStepsItsBuddyWithinItsRange) {
    CEdit buddy;
    CSpinButtonCtrl spin;
    ASSERT_TRUE(buddy.Create(WS_CHILD | WS_VISIBLE, CRect(10, 10, 80, 34), &wnd, 18001));
    ASSERT_TRUE(
        spin.Create(WS_CHILD | WS_VISIBLE | UDS_SETBUDDYINT | UDS_ARROWKEYS | UDS_NOTHOUSANDS,
                    CRect(80, 10, 80 + GetSystemMetrics(SM_CXHSCROLL), 34), &wnd, 18000));
    spin.SetBuddy(&buddy);
    spin.SetRange32(1, 16);
    spin.SetPos32(1);
    Settle();
    auto text = [&] {
        char buf[32];
        buddy.GetWindowText(buf, sizeof(buf));
        return std::string(buf);
    };
    EXPECT_EQ("1", text());
    person.Click(spin.m_hWnd, 8, 4); // the upper arrow
    Settle();
    EXPECT_EQ("2", text());
    buddy.SetWindowText("40"); // typed past the range: the next step starts from the bound
    person.Click(spin.m_hWnd, 8, 4);
    Settle();
    EXPECT_EQ("16", text());
    person.Click(buddy.m_hWnd, 10, 10);
    Settle();
    person.Tap(XK_Down);
    Settle();
    EXPECT_EQ("15", text());
    EXPECT_EQ(15, spin.GetPos32());
}

TEST_F(WindowLayer, PicturesFromTheSkinFolderBuiltInOrMissing) {
    // a built-in picture, and a skin folder that overrides it
    CBitmap made;
    made.CreateCompatibleBitmap(nullptr, 3, 2);
    const std::string dir = ::testing::TempDir() + "skin-" + std::to_string(getpid()) + "/";
    std::filesystem::create_directories(dir);
    ASSERT_TRUE(made.WritePNG((dir + "7000.png").c_str()));
    static std::string png;
    {
        std::ifstream in(dir + "7000.png", std::ios::binary);
        png.assign(std::istreambuf_iterator<char>(in), {});
    }
    static const ResourceEntry entry{"7000.png", reinterpret_cast<const unsigned char*>(png.data()),
                                     png.size()};
    CResources::Register(&entry, 1);
    CResources::SetSkinFolder((dir + "none").c_str());
    CBitmap builtIn;
    EXPECT_TRUE(builtIn.LoadBitmap(7000));
    EXPECT_EQ(3, builtIn.GetWidth());

    CBitmap wide;
    wide.CreateCompatibleBitmap(nullptr, 5, 4);
    wide.WritePNG((dir + "bmp07000.png").c_str());
    CResources::SetSkinFolder(dir.c_str());
    EXPECT_EQ(CString((dir + "bmp07000.png").c_str()),
              getResourcePath(7000, CResources::kBundleIdentifier));
    EXPECT_TRUE(getResourcePath(7000, "com.example.other").IsEmpty());
    EXPECT_TRUE(getResourcePath(7001, CResources::kBundleIdentifier).IsEmpty());
    CBitmap skinned;
    EXPECT_TRUE(skinned.LoadBitmap(7000));
    EXPECT_EQ(5, skinned.GetWidth()) << "the skin folder wins";

    testing::internal::CaptureStderr();
    CBitmap missing;
    EXPECT_FALSE(missing.LoadBitmap(7999));
    EXPECT_EQ("Can't load bitmap 7999;G\n", testing::internal::GetCapturedStderr());
    CDC dc; // drawing with it draws nothing and does not fail the caller
    dc.CreateCompatibleDC(nullptr);
    dc.SelectObject(&made);
    CDC src;
    src.CreateCompatibleDC(nullptr);
    src.SelectObject(&missing);
    EXPECT_FALSE(dc.BitBlt(0, 0, 3, 2, &src, 0, 0, SRCCOPY));
    CResources::SetSkinFolder(nullptr);
    std::filesystem::remove_all(dir);
}

TEST_F(WindowLayer, InsideAHostWindowAndThroughXErrors) {
    // the host: a managed top-level (it carries WM_STATE) with a view inside it
    Display* d = person.display();
    const Window top = XCreateSimpleWindow(d, DefaultRootWindow(d), 0, 0, 500, 300, 0, 0, 0);
    const Atom wmState = XInternAtom(d, "WM_STATE", False);
    const long state[2] = {1, 0};
    XChangeProperty(d, top, wmState, wmState, 32, PropModeReplace,
                    reinterpret_cast<const unsigned char*>(state), 2);
    const Window view = XCreateSimpleWindow(d, top, 10, 10, 460, 260, 0, 0, 0);
    XMapWindow(d, view);
    XMapWindow(d, top);
    XSync(d, False);

    CHostFrame frame;
    ASSERT_TRUE(frame.Attach(view));
    CLogWnd panel;
    ASSERT_TRUE(
        panel.Create(nullptr, "UIWindow", WS_CHILD | WS_VISIBLE, CRect(0, 0, 200, 100), &frame, 0));
    EXPECT_EQ(top, panel.GetTopLevelHwnd());
    CXConnection* editor = panel.Connection();
    EXPECT_NE(wnd.Connection(), editor) << "an editor has its own connection";
    Settle(editor);
    EXPECT_EQ(Rgb(kRed), person.Grab(panel.m_hWnd, 10, 10)[0]);

    // errors on the plug-in's connection are reported, never the end of the process
    CHostFrame bogus;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(bogus.Attach(0x7FFFF1));
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("X error ignored"));
    panel.ShowWindow(SW_HIDE);
    EXPECT_EQ(nullptr, panel.SetFocus()) << "focusing a window off screen is only bookkeeping";

    // the host destroys its window under the panel: the panel learns it and nothing breaks
    XDestroyWindow(d, top);
    Settle(editor);
    EXPECT_EQ(0u, panel.m_hWnd);
    panel.InvalidateRect(nullptr);
    panel.DestroyWindow();
    frame.DestroyWindow();
}

} // namespace
