// The panel's bitmap controls, numeric fields and popup editors, on the built-in pictures, in a
// test window on a private X server, driven as a person would through XTest.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "AMorvane.h"
#include "CDC.h"
#include "CFloatEdit.h"
#include "CFloatEdit2.h"
#include "CFont.h"
#include "CKDXBitmapSliderDC.h"
#include "CKDXBitmapSwitch2DC.h"
#include "CKDXFloatEditWnd.h"
#include "CKDXNewBitmapTumamiDC.h"
#include "CKDXSpinEditWnd.h"
#include "CMiliSecondEdit.h"
#include "CPointEdit.h"
#include "CPresetSaveDlg.h"
#include "CResources.h"
#include "CXConnection.h"
#include "support/XSession.h"

namespace {

struct Report {
    int id;
    float value;
    int flag;
};

// A window that carries a slider as the panel does: press, drag and release go to it.
class CHost : public CWnd {
public:
    CKDXBitmapSliderDC slider;
    std::vector<Report> reports;
    std::vector<std::string> messages;
    static bool Callback(int id, float value, void* user, int flag) {
        static_cast<CHost*>(user)->reports.push_back({id, value, flag});
        return true;
    }

protected:
    DECLARE_MESSAGE_MAP()
    void OnPaint() {
        CPaintDC dc(this);
        dc.FillSolidRect(CRect(0, 0, 400, 300), RGB(200, 200, 200));
        slider.DrawSlider(&dc);
    }
    void OnLButtonDown(UINT, CPoint p) {
        if (slider.PtInSwitch(p)) {
            CClientDC dc(this);
            slider.SetValueByPoint(p, 1);
            slider.DrawSlider(&dc);
        }
    }
    void OnMouseMove(UINT, CPoint p) {
        CClientDC dc(this);
        slider.OnMouseMove(p, &dc);
    }
    void OnLButtonUp(UINT, CPoint p) {
        CClientDC dc(this);
        slider.OnLButtonUp(p, &dc);
    }
    LRESULT OnNote(WPARAM w, LPARAM l) {
        messages.push_back("0A01 " + std::to_string(w) + " " + std::to_string(l));
        return 0;
    }
    LRESULT OnEscapeNote(WPARAM w, LPARAM) {
        messages.push_back("0A00 " + std::to_string(w));
        return 0;
    }
    void OnCommandFrom(UINT id) { messages.push_back("command " + std::to_string(id)); }
};
BEGIN_MESSAGE_MAP(CHost, CWnd)
ON_WM_PAINT()
ON_WM_LBUTTONDOWN()
ON_WM_MOUSEMOVE()
ON_WM_LBUTTONUP()
ON_MESSAGE(0x0A01, OnNote)
ON_MESSAGE(0x0A00, OnEscapeNote)
ON_COMMAND_RANGE(1, 100, OnCommandFrom)
END_MESSAGE_MAP()

struct Controls : ::testing::Test {
    XSession person;
    CHost host;
    CKDXBitmap track, knob;
    CRect none;
    void SetUp() override {
        RegisterBuiltInResources();
        ASSERT_TRUE(track.LoadResourceBitmap(5007) && knob.LoadResourceBitmap(5008));
        ASSERT_TRUE(host.CreateEx(0, AfxRegisterWndClass(CS_DBLCLKS), "Controls",
                                  WS_POPUP | WS_CAPTION | WS_VISIBLE, CRect(30, 30, 430, 330),
                                  nullptr, 0));
        Settle();
    }
    // What a field shows, whatever its own GetWindowText makes of it.
    static std::string text(CWnd& w) {
        std::string s(w.GetWindowTextLength(), '\0');
        w.CWnd::GetWindowText(s.data(), static_cast<int>(s.size()) + 1);
        return s;
    }
    void Settle() { person.Settle(*CXConnection::Current()); }
    // A vertical slider as the panel builds its pitch slider: the knob's centre travels from
    // (1, track height - knob height / 2) at the minimum to (1, knob height / 2) at the maximum.
    void MakeSlider(float min, float max, bool log = false, bool reversed = false,
                    bool two = false) {
        CRect hit(100, 40, 116, 40 + track.Height());
        const int h = knob.Height() / 2;
        host.slider.Make(hit, none, &host, &track, nullptr, &knob, min, max,
                         CPoint(1, track.Height() - h), CPoint(1, h), 100, 1, log, reversed, false,
                         two, &CHost::Callback, &host);
    }
    // The knob's top as drawn: the first row where the slider differs from its bare track.
    int DrawnKnobTop() {
        CBitmap canvas;
        canvas.CreateCompatibleBitmap(nullptr, 200, 200);
        CDC dc;
        dc.CreateCompatibleDC(nullptr);
        dc.SelectObject(&canvas);
        host.slider.DrawSlider(&dc);
        for (int y = 0; y < track.Height(); ++y)
            for (int x = 0; x < track.Width(); ++x)
                if ((canvas.GetPixel(100 + x, 40 + y) & 0xFFFFFF) !=
                    (track.GetPixel(x, y) & 0xFFFFFF))
                    return y;
        return -1;
    }
};

TEST_F(Controls, SliderDraggedByAPersonReportsEachPhaseAndEveryEnd) {
    MakeSlider(-1200, 1200);
    const int y0 = track.Height() - knob.Height() / 2, y1 = knob.Height() / 2;
    host.Invalidate();
    Settle();
    person.MoveTo(host.m_hWnd, 108, 40 + y0);
    person.Button(true);
    Settle();
    person.MoveTo(host.m_hWnd, 108, 40 + (y0 + y1) / 2);
    Settle();
    person.MoveTo(host.m_hWnd, 150, -20); // above the window: the maximum, still captured
    Settle();
    person.Button(false);
    Settle();
    ASSERT_GE(host.reports.size(), 3u);
    EXPECT_EQ(1, host.reports.front().flag);
    EXPECT_EQ(-1200.0f, host.reports.front().value) << "the minimum point is the minimum";
    EXPECT_EQ(255, host.reports[1].flag);
    EXPECT_NEAR(0.0f, host.reports[1].value, 1200.0f / (y0 - y1) + 0.01f);
    EXPECT_EQ(0, host.reports.back().flag);
    EXPECT_EQ(1200.0f, host.reports.back().value);
    EXPECT_EQ(100, host.reports.back().id);
    EXPECT_FALSE(host.slider.IsDragging());
    EXPECT_EQ(nullptr, CWnd::GetCapture());
    // the knob as the person now sees it: at the top of its travel
    EXPECT_EQ(y1 - knob.Height() / 2, DrawnKnobTop());

    // below the minimum point; reversed, the sides swap; two positions only
    host.slider.SetValueByPoint(CPoint(108, 40 + y0 + 30), 0);
    EXPECT_EQ(-1200.0f, host.slider.GetValue());
    MakeSlider(-1200, 1200, false, true);
    host.slider.SetValueByPoint(CPoint(108, 40 + y0 + 30), 0);
    EXPECT_EQ(1200.0f, host.slider.GetValue());
    host.slider.SetValueByPoint(CPoint(108, 40 + y1 - 3), 0);
    EXPECT_EQ(-1200.0f, host.slider.GetValue());
    MakeSlider(50, 200, false, false, true);
    host.slider.SetValueByPoint(CPoint(108, 40 + (y0 + y1) / 2 + 3), 0);
    EXPECT_EQ(50.0f, host.slider.GetValue());
    host.slider.SetValueByPoint(CPoint(108, 40 + (y0 + y1) / 2 - 3), 0);
    EXPECT_EQ(200.0f, host.slider.GetValue());
    // disabled: no value from a point, no drag, nothing drawn
    host.slider.Enable(false);
    EXPECT_FALSE(host.slider.SetValueByPoint(CPoint(108, 60), 0));
    EXPECT_FALSE(host.slider.PtInSwitch(CPoint(108, 60)));
}

TEST_F(Controls, LogarithmicSliderMapsAndDrawsOnItsCurve) {
    MakeSlider(0, 1, true);
    const int y0 = track.Height() - knob.Height() / 2, y1 = knob.Height() / 2;
    for (double f : {0.0, 0.25, 0.5, 0.8, 1.0}) {
        const int y = static_cast<int>(std::lround(y0 + f * (y1 - y0)));
        host.slider.SetValueByPoint(CPoint(108, 40 + y), 0);
        const double expect = (std::pow(10.0, static_cast<double>(y - y0) / (y1 - y0)) - 1) / 9;
        EXPECT_NEAR(expect, host.slider.GetValue(), 1e-6) << f;
        // and drawn where that value sits on the same curve
        const double v = host.slider.GetValue();
        const int top =
            static_cast<int>(y0 + (y1 - y0) * std::log10(v * 9 + 1) + 0.5) - knob.Height() / 2;
        EXPECT_EQ(top, DrawnKnobTop()) << f;
    }
    host.reports.clear();
    CBitmap canvas;
    canvas.CreateCompatibleBitmap(nullptr, 200, 200);
    CDC dc;
    dc.CreateCompatibleDC(nullptr);
    dc.SelectObject(&canvas);
    host.slider.SetValue(-5.0f, &dc, true); // clamped, and told
    ASSERT_EQ(1u, host.reports.size());
    EXPECT_EQ(0.0f, host.reports[0].value);
    host.slider.SetValue(0.0f, &dc, true); // unchanged: not told
    EXPECT_EQ(1u, host.reports.size());
}

TEST_F(Controls, SwitchShowsItsHalvesThroughItsMaskAndStaysOn) {
    CKDXBitmap off, on;
    ASSERT_TRUE(off.LoadResourceBitmap(5003) && on.LoadResourceBitmap(5002));
    CKDXBitmapSwitch2DC sw;
    CRect hit(10, 10, 10 + off.Width(), 10 + off.Height() / 2);
    sw.Make(hit, &host, &off, &on, 104, none, false, nullptr, &CHost::Callback, &host);
    CBitmap canvas;
    canvas.CreateCompatibleBitmap(nullptr, 80, 80);
    CDC dc;
    dc.CreateCompatibleDC(nullptr);
    dc.SelectObject(&canvas);
    auto shows = [&](const CKDXBitmap& picture, int row) {
        for (int y = 0; y < picture.Height() / 2; ++y)
            for (int x = 0; x < picture.Width(); ++x)
                if ((canvas.GetPixel(10 + x, 10 + y) & 0xFFFFFF) !=
                    (picture.GetPixel(x, row + y) & 0xFFFFFF))
                    return false;
        return true;
    };
    sw.DrawSwitch(&dc);
    EXPECT_TRUE(shows(off, 0));
    sw.LButtonDown(&dc);
    EXPECT_TRUE(sw.IsDown());
    EXPECT_TRUE(shows(off, off.Height() / 2)) << "pressed: the lower half";
    sw.LButtonUp(&dc);
    sw.SetValue(1, true);
    sw.DrawSwitch(&dc);
    EXPECT_TRUE(shows(on, 0));
    ASSERT_EQ(1u, host.reports.size());
    EXPECT_EQ(1.0f, host.reports[0].value);
    sw.SetValue(1, true); // unchanged: not told
    EXPECT_EQ(1u, host.reports.size());

    // through a mask: its white pixels keep what was there
    CKDXBitmap mask;
    mask.CreateCompatibleBitmap(nullptr, off.Width(), off.Height());
    {
        CDC m;
        m.CreateCompatibleDC(nullptr);
        m.SelectObject(&mask);
        m.FillSolidRect(CRect(0, 0, off.Width(), off.Height()), RGB(255, 255, 255));
        m.FillSolidRect(CRect(0, 0, 5, off.Height()), RGB(0, 0, 0));
    }
    CKDXBitmapSwitch2DC masked;
    masked.Make(hit, &host, &off, &on, 105, none, true, &mask, &CHost::Callback, &host);
    dc.FillSolidRect(CRect(0, 0, 80, 80), RGB(1, 2, 3));
    masked.DrawSwitch(&dc);
    EXPECT_EQ(off.GetPixel(2, 2) & 0xFFFFFF, canvas.GetPixel(12, 12) & 0xFFFFFF);
    EXPECT_EQ(0x010203u, canvas.GetPixel(20, 12) & 0xFFFFFF);
    // stay-on: once on, it refuses changes and presses
    masked.SetValue(1, false);
    masked.SetValue(0, true);
    masked.LButtonDown(&dc);
    EXPECT_TRUE(masked.GetValue());
    EXPECT_FALSE(masked.IsDown());
    // disabled: the disable picture, whole
    sw.Enable(false);
    sw.SetDisableBmp(&on);
    sw.SetValue(0, true);
    EXPECT_TRUE(sw.GetValue()) << "a disabled switch keeps its value";
}

TEST_F(Controls, KnobKeepsToItsEndUntilReleased) {
    CKDXBitmap film;
    ASSERT_TRUE(film.LoadResourceBitmap(5001));
    CKDXNewBitmapTumamiDC knob;
    CRect rect(0, 0, 32, 32);
    knob.Make(rect, none, &host, &film, 0, 30, 7, 31, 45, 315, 0, false, &CHost::Callback, &host);
    EXPECT_EQ(15.0f, knob.GetValue());
    EXPECT_EQ(15, knob.Frame());
    const CPoint below(16, 30), left(4, 16), up(16, 2), right(28, 16);
    ASSERT_TRUE(knob.PtInTumami(CPoint(16, 16)));
    knob.SetValue(left); // 90 degrees
    EXPECT_NEAR(30 * (90 - 45) / 270.0, knob.GetValue(), 1e-4);
    knob.SetValue(below); // 0 degrees, below the minimum angle: the minimum
    EXPECT_EQ(0.0f, knob.GetValue());
    knob.SetValue(CPoint(20, 30)); // just right of the gap: would be near 360; the guard holds
    EXPECT_EQ(0.0f, knob.GetValue());
    knob.SetValue(right); // still in the right half
    EXPECT_EQ(0.0f, knob.GetValue());
    knob.SetValue(up); // 180 on the line: from the minimum, the minimum angle
    EXPECT_EQ(0.0f, knob.GetValue());
    knob.OnLButtonUp(right, nullptr); // the release point still meets the guard
    EXPECT_EQ(0.0f, knob.GetValue());
    ASSERT_TRUE(knob.PtInTumami(CPoint(16, 16))); // released, the next drag is free
    knob.SetValue(right);
    EXPECT_NEAR(30 * (270 - 45) / 270.0, knob.GetValue(), 1e-4);
    knob.SetValue(CPoint(20, 30)); // right of the gap, past the maximum angle: the maximum
    EXPECT_EQ(30.0f, knob.GetValue());
    knob.SetValue(CPoint(12, 30)); // across the gap: at the maximum, the left half holds it
    EXPECT_EQ(30.0f, knob.GetValue());
    knob.SetValue(left);
    EXPECT_EQ(30.0f, knob.GetValue());
    knob.SetValue(CPoint(16, 16)); // the centre changes nothing
    EXPECT_EQ(30.0f, knob.GetValue());
    EXPECT_EQ(30, knob.Frame());
    host.reports.clear();
    knob.SetValue(30.0f, nullptr, true); // the value it has: nothing
    EXPECT_TRUE(host.reports.empty());
    knob.SetValue(7.5f, nullptr, true);
    EXPECT_EQ(1u, host.reports.size());
    EXPECT_EQ(8, knob.GetIndexValue());
}

TEST_F(Controls, NumericFieldsFilterTypingAndFixItUp) {
    CFont font;
    font.CreatePointFont(100, "Osaka");
    CFloatEdit mm;
    CPointEdit points;
    CMiliSecondEdit ms;
    CFloatEdit2 plain;
    int n = 0;
    for (CFormatEdit* e : std::initializer_list<CFormatEdit*>{&mm, &points, &ms, &plain}) {
        ++n;
        ASSERT_TRUE(
            e->Create(WS_CHILD | WS_VISIBLE, CRect(10, 10 + 30 * n, 150, 34 + 30 * n), &host, n));
        e->SetFont(&font);
    }
    auto value = [](CWnd& w) {
        char buf[64];
        w.GetWindowText(buf, sizeof(buf));
        return std::string(buf);
    };
    mm.SetWindowText("150");
    EXPECT_EQ("1.5mm", text(mm)) << "shown in its format";
    mm.CEdit::SetWindowText("1.25mm"); // as typed
    EXPECT_EQ("125", value(mm)) << "read back as hundredths";
    mm.SetWindowText("150");
    mm.SetSel(1, 3);
    mm.SetWindowText("150"); // the same value: untouched, the selection kept
    int from, to;
    mm.GetSel(from, to);
    EXPECT_EQ(1, from);
    EXPECT_EQ(3, to);

    points.SetInputMinMax(5, 5); // refused: not a range
    points.SetInputMinMax(0, 72);
    person.Click(points.m_hWnd, 60, 10);
    Settle();
    person.SelectAll();
    person.Type("12.5");
    Settle();
    EXPECT_EQ("12.5", text(points)) << "typed text stays as typed";
    EXPECT_EQ("125", points.IntegerText());
    person.Type("-"); // no sign allowed: rejected, and the text is fixed up
    Settle();
    EXPECT_EQ("12.5point", text(points));
    EXPECT_EQ("command 2", host.messages.back());
    person.Tap(XK_BackSpace);
    person.Type("00");
    person.Tap(XK_Return); // 12.5poin00 reads 12.5; past the maximum it would be clamped
    Settle();
    EXPECT_EQ("12.5point", text(points));
    person.SelectAll();
    person.Type("99");
    person.Tap(XK_Return);
    Settle();
    EXPECT_EQ("72.0point", text(points)) << "clamped to the field's range on commit";
    EXPECT_EQ("720", value(points));
    // the arrows move the caret through the pre-translation, without typing '%' or '\''
    person.Tap(XK_Left);
    person.Tap(XK_Left);
    person.Type("1");
    Settle();
    EXPECT_EQ("72.0poi1nt", text(points));

    // a field that may go negative; leaving it fixes it up too
    ms.SetSingnFlag(true);
    person.Click(ms.m_hWnd, 60, 10);
    Settle();
    person.Type("-40");
    Settle();
    person.Click(host.m_hWnd, 300, 280); // elsewhere: the field loses the focus
    host.SetFocus();
    Settle();
    EXPECT_EQ("-40ms", text(ms));

    // the plain field keeps its formatted text as its value and posts 0x0A01 after each edit
    host.messages.clear();
    person.Click(plain.m_hWnd, 60, 10);
    Settle();
    person.Type("3.25");
    Settle();
    ASSERT_FALSE(host.messages.empty());
    EXPECT_EQ("0A01 4 0", host.messages.back());
    EXPECT_EQ("3.2", value(plain));
}

TEST_F(Controls, PopupEditorsReturnEscapeAndClamp) {
    CFont font;
    font.CreatePointFont(120, "Osaka");
    CKDXFloatEditWnd popup;
    ASSERT_TRUE(popup.MakeWindow(&host, &host, "", 0, 6, &font, true));
    EXPECT_FALSE(popup.IsWindowVisible());
    popup.Edit().SetFloatPoint(1);
    popup.SetSingnFlag(true);
    popup.ChangeSize(6, true);
    popup.SetWindowPos(nullptr, 169, 186, 0, 0, SWP_NOSIZE | SWP_NOZORDER);
    popup.SetNewValue(-1300, -12000, 12000);
    popup.ShowWindow(SW_SHOW);
    popup.Edit().SetFocus();
    Settle();
    EXPECT_EQ("-130.0", text(popup.Edit()));
    person.Tap(XK_Up); // the spin steps by one in the integer form
    Settle();
    EXPECT_EQ("-129.9", text(popup.Edit()));
    person.SelectAll();
    person.Type("250");
    person.Tap(XK_Return);
    Settle();
    ASSERT_FALSE(host.messages.empty());
    EXPECT_EQ("0A01 0 0", host.messages.back());
    char buf[32];
    popup.Edit().GetWindowText(buf, sizeof(buf));
    EXPECT_STREQ("2500", buf) << "the owner reads the integer form";
    EXPECT_FALSE(popup.IsWindowVisible());

    popup.SetNewValue(100, 0, 1000);
    popup.ShowWindow(SW_SHOW);
    popup.Edit().SetFocus();
    Settle();
    person.Tap(XK_Escape);
    Settle();
    EXPECT_EQ("0A00 0", host.messages.back());
    EXPECT_FALSE(popup.IsWindowVisible());
    EXPECT_EQ(&host, CWnd::GetFocus()) << "the focus goes back to the panel";

    // the whole-number popup: a value past its range shows and reports the bound
    CKDXSpinEditWnd spin;
    ASSERT_TRUE(spin.MakeWindow(&host, &host, "", 0, 3, &font, true));
    for (auto [typed, shown] : {std::pair{"40", "16"}, std::pair{"-3", "1"}}) {
        spin.SetNewValue(8, 1, 16);
        spin.ShowWindow(SW_SHOW);
        spin.Edit().SetFocus();
        Settle();
        person.SelectAll();
        person.Type(typed);
        person.Tap(XK_Return);
        Settle();
        EXPECT_EQ(shown, text(spin.Edit()));
        EXPECT_EQ("0A01 0 0", host.messages.back()) << "the popup tells its owner";
        EXPECT_FALSE(spin.IsWindowVisible());
    }
    // the field itself reports the clamped value with its own id
    CKDXSpinEdit field;
    ASSERT_TRUE(
        field.MakeWindow(WS_CHILD | WS_VISIBLE, CRect(10, 250, 80, 274), &host, 7, 1, 16, false));
    field.SetFont(&font);
    person.Click(field.m_hWnd, 20, 10);
    Settle();
    person.Type("40");
    person.Tap(XK_KP_Enter);
    Settle();
    EXPECT_EQ("0A01 7 16", host.messages.back());
    person.Tap(XK_Escape);
    Settle();
    EXPECT_EQ("0A00 7", host.messages.back());
}

} // namespace

namespace {

// The save dialog lists the 64 programs numbered from 1, names in UTF-8 from their Shift-JIS
// bytes; choosing one puts its name in the name field, and OK returns the slot and the name.
class CSaveDlgRead : public CPresetSaveDlg {
public:
    using CPresetSaveDlg::CPresetSaveDlg;
    std::vector<std::string> entries; // the list as it stood at OK

protected:
    void OnOK() override {
        for (int i = 0; i < m_ctlProgram.GetCount(); ++i) {
            CString entry;
            m_ctlProgram.GetLBText(i, entry);
            entries.emplace_back(static_cast<const char*>(entry));
        }
        CPresetSaveDlg::OnOK();
    }
};

TEST_F(Controls, SaveDialogListsNumberedProgramsAndTakesTheChosenName) {
    AMorvane effect([](AEffect*, VstInt32 opcode, VstInt32, VstIntPtr, void*, float) -> VstIntPtr {
        return opcode == audioMasterVersion ? 2400 : 0;
    });
    char fifth[] = "Fifth", piano[] = "\x83\x73\x83\x41\x83\x6d"; // ピアノ in Shift-JIS
    effect.setProgram(1);
    effect.setProgramName(fifth);
    effect.setProgram(2);
    effect.setProgramName(piano);
    effect.setProgram(0);
    CSaveDlgRead dlg(&host, &effect);
    const intptr_t ok = person.WithPerson(
        [&](Window) {
            person.Tap(XK_Down); // the list has the focus first
            person.TabTo();
            person.Type(" Mine");
            person.Tap(XK_Return);
        },
        [&] { return dlg.DoModal(); });
    EXPECT_EQ(IDOK, ok);
    EXPECT_EQ(1, dlg.m_nSelected);
    EXPECT_STREQ("Fifth Mine", dlg.m_szName);
    ASSERT_EQ(64u, dlg.entries.size());
    EXPECT_EQ("1:Empty", dlg.entries[0]);
    EXPECT_EQ("3:\u30d4\u30a2\u30ce", dlg.entries[2]);
    EXPECT_EQ("64:Empty", dlg.entries[63]);
    EXPECT_EQ(0u, dlg.m_ctlProgram.m_hWnd) << "the dialog's controls went with it";
}

// A program name is stored in 23 bytes; a double-byte character starting at byte 22 is left out
// whole rather than split.
TEST(PresetName, CutAt23BytesNeverSplittingACharacterAtByte22) {
    char out[24];
    CPresetSaveDlg::CutName("abcdefghijklmnopqrstuvw", out);
    EXPECT_STREQ("abcdefghijklmnopqrstuvw", out) << "23 single bytes are kept whole";
    CPresetSaveDlg::CutName("abcdefghijklmnopqrstuvwxyz0123", out);
    EXPECT_STREQ("abcdefghijklmnopqrstuvw", out);
    CPresetSaveDlg::CutName("abcdefghijklmnopqrstuv\x83\x73x", out); // "ピ" at byte 22
    EXPECT_STREQ("abcdefghijklmnopqrstuv", out);
    CPresetSaveDlg::CutName("", out);
    EXPECT_STREQ("", out);
}

} // namespace
