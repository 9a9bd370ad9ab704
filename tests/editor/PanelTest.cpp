// The panel as a host shows it: the real plug-in loaded through its entry point, its editor
// opened inside a window of the test's own, idled as hosts idle it, and used by a person through
// XTest. Values are checked where the host reads them.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "MorvaneParameters.h"
#include "support/PluginHost.h"
#include "support/XSession.h"

using namespace MorvaneParameters;

namespace {

constexpr int kW = 480, kH = 214;

struct Panel : ::testing::Test {
    XSession person;
    PluginHost host{MORVANE_PLUGIN};
    Window window = 0;

    void SetUp() override {
        host.Dispatch(effOpen);
        window = MakeHostWindow(40, 40);
        ASSERT_EQ(1, host.Dispatch(effEditOpen, 0, 0, reinterpret_cast<void*>(window)));
        Idle(20);
    }
    void TearDown() override { host.Dispatch(effEditClose); }
    Window MakeHostWindow(int x, int y) {
        Display* d = person.display();
        const Window w = XCreateSimpleWindow(d, DefaultRootWindow(d), x, y, kW, kH, 0, 0, 0);
        XMapWindow(d, w);
        XSync(d, False);
        return w;
    }
    // A host's idle calls, where the person's input is handled: each returns with what the panel
    // drew and asked for carried out by the server, and sees what the person did before it (the
    // first may miss input still on its way, which the second has).
    void Idle(int calls = 10) {
        XSync(person.display(), False);
        for (int i = 0; i < calls; ++i)
            host.Dispatch(effEditIdle);
    }
    std::vector<uint32_t> Screen() { return person.Grab(window, kW, kH); }
    std::string Shown(int index) { return host.Text(effGetParamDisplay, index); }
    // A person's steps played while the panel is in the modal menu or dialog that open() brings
    // up (in an idle call, which returns when it closes); the menu or dialog's window is in
    // modal meanwhile, and None when none opened. The person's connection is the other thread's
    // alone until it is done.
    Window modal = None;
    void WhileModal(const std::function<void()>& open, const std::function<void()>& steps) {
        const std::vector<Window> before = person.Shown();
        open();
        modal = None;
        std::atomic<bool> done{false};
        std::thread t([&] {
            modal = person.WaitForNewWindow(before);
            if (modal != None)
                steps();
            done = true;
        });
        while (!done) // idle calls at a host's pace until the person is done
            host.Dispatch(effEditIdle), std::this_thread::sleep_for(std::chrono::milliseconds(5));
        t.join();
        EXPECT_NE(None, modal);
        Idle(5);
    }
    void Type(int x, int y, const char* text) {
        person.Click(window, x, y);
        Idle();
        person.SelectAll();
        person.Type(text);
        person.Tap(XK_Return);
        Idle();
    }
};

TEST_F(Panel, OpensPaintsClosesAndReopensInsideTheHostsWindow) {
    const std::vector<uint32_t> shown = Screen();
    // the header is dark, the body light: the background picture reached the screen
    EXPECT_LT(shown[20 * kW + 300] & 0xFF, 0x50u);
    EXPECT_GT(shown[120 * kW + 330] & 0xFF, 0xB0u);
    // the read-outs show what the host reads
    EXPECT_EQ("0.0", Shown(2));
    Window root, parent, *kids = nullptr;
    unsigned count = 0;
    XQueryTree(person.display(), window, &root, &parent, &kids, &count);
    XFree(kids);
    EXPECT_EQ(1u, count) << "one panel inside the host's window";

    host.Dispatch(effEditClose);
    host.Dispatch(effEditIdle); // after close: nothing happens
    XSync(person.display(), False);
    XQueryTree(person.display(), window, &root, &parent, &kids, &count);
    XFree(kids);
    EXPECT_EQ(0u, count);
    ASSERT_EQ(1, host.Dispatch(effEditOpen, 0, 0, reinterpret_cast<void*>(window)));
    Idle(20);
    EXPECT_EQ(shown, Screen()) << "reopened, the same panel";

    // a second instance open at the same time, in its own window
    PluginHost other(MORVANE_PLUGIN);
    other.Dispatch(effOpen);
    const Window second = MakeHostWindow(560, 40);
    ASSERT_EQ(1, other.Dispatch(effEditOpen, 0, 0, reinterpret_cast<void*>(second)));
    for (int i = 0; i < 20; ++i)
        other.Dispatch(effEditIdle), Idle(1);
    EXPECT_EQ(shown, person.Grab(second, kW, kH));
    other.Dispatch(effEditClose);
    XDestroyWindow(person.display(), second);

    // closed in the middle of a drag: the pointer is let go, and the panel opens again
    person.MoveTo(window, 192, 47 + 65);
    person.Button(true);
    Idle();
    host.Dispatch(effEditClose);
    person.MoveTo(window, 192, 60);
    person.Button(false);
    host.Dispatch(effEditIdle);
    ASSERT_EQ(1, host.Dispatch(effEditOpen, 0, 0, reinterpret_cast<void*>(window)));
    Idle(20);
    person.Click(window, 192, 193); // it answers the mouse: the pitch read-out's editor opens
    Idle();
    Window focus = person.Focus();
    EXPECT_NE(window, focus);
    EXPECT_NE(static_cast<Window>(PointerRoot), focus);
}

TEST_F(Panel, SlidersDraggedChangeWhatTheHostReads) {
    // a press on a fader's knob, a drag to y (past an end of its track), a release
    auto drag = [&](int x, int from, int to) {
        person.MoveTo(window, x, from);
        person.Button(true);
        Idle();
        person.MoveTo(window, x, to);
        Idle();
        person.Button(false);
        Idle();
    };
    drag(192, 47 + 65, 30); // pitch, from 0 cents up past the top
    EXPECT_EQ(2.0f, host.Get(kPitch));
    EXPECT_EQ("1200.0", Shown(2));
    drag(274, 47 + 65, 200); // time, down past the bottom
    EXPECT_EQ(0.5f, host.Get(kTime));
    EXPECT_EQ("50.00", Shown(3));
    drag(411, 45 + 70, 46); // output, to the top of its logarithmic travel: +6 dB
    EXPECT_EQ(1.0f, host.Get(kOutput));
    EXPECT_EQ("6.0", Shown(1));
    // a host's own change moves the control: the pitch knob leaves the top
    const std::vector<uint32_t> before = Screen();
    host.Set(kPitch, 1.0f);
    Idle();
    const std::vector<uint32_t> after = Screen();
    int moved = 0;
    for (int y = 47; y < 178; ++y)
        for (int x = 184; x < 200; ++x)
            moved += before[y * kW + x] != after[y * kW + x];
    EXPECT_GT(moved, 100);
}

TEST_F(Panel, TypedValuesArriveInTheUnitsTheReadOutsShow) {
    Type(192, 193, "-130");
    EXPECT_EQ("-130.0", Shown(2));
    EXPECT_NEAR(std::pow(2.0, -130 / 1200.0), host.Get(kPitch), 1e-5);
    Type(274, 193, "250"); // past the field's range: 200 % is stored
    EXPECT_EQ(2.0f, host.Get(kTime));
    EXPECT_EQ("200.00", Shown(3));
    Type(421, 193, "-0.5");
    EXPECT_EQ("-0.5", Shown(1));
    // -1300 cents becomes +1200, which with 200 % breaks the bound: the panel says so
    testing::internal::CaptureStdout();
    person.Click(window, 192, 193);
    Idle();
    person.SelectAll();
    person.Type("-1300");
    Idle();
    WhileModal([&] { person.Tap(XK_Return); }, [&] { person.Tap(XK_Return); });
    EXPECT_EQ("error0\n", testing::internal::GetCapturedStdout());
    EXPECT_FLOAT_EQ(1.0f, host.Get(kPitch)) << "lowered to 2 / 2.0";
    EXPECT_EQ(2.0f, host.Get(kTime));
}

TEST_F(Panel, CopyMenuLampRevertAndSave) {
    const std::string first = host.Text(effGetProgramName);
    char second[64] = {};
    host.Dispatch(effGetProgramNameIndexed, 1, 0, second);
    ASSERT_NE(first, second);
    // the copy menu: the current program is greyed, so the first Down lands on program 2
    WhileModal([&] { person.Click(window, 76, 18); },
               [&] {
                   person.Tap(XK_Down);
                   person.Tap(XK_Return);
               });
    EXPECT_EQ(second, host.Text(effGetProgramName));
    // the lamp reverts to what was loaded
    person.Click(window, 127, 18);
    Idle();
    EXPECT_EQ(first, host.Text(effGetProgramName));

    // save: the next slot, a new name, into the user's bank in the private preferences folder
    Type(274, 193, "125");
    WhileModal([&] { person.Click(window, 181, 18); },
               [&] {
                   person.Tap(XK_Down);
                   person.TabTo();
                   person.SelectAll();
                   person.Type("Slower");
                   person.Tap(XK_Return);
               });
    EXPECT_EQ(1, host.Dispatch(effGetProgram));
    EXPECT_EQ("Slower", host.Text(effGetProgramName));
    EXPECT_EQ(1.25f, host.Get(kTime));
    const std::string bank = std::string(std::getenv("XDG_CONFIG_HOME")) + "/Morvane.fxb";
    std::ifstream in(bank, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    EXPECT_NE(std::string::npos, bytes.find("Slower"));
    std::filesystem::remove(bank);
}

// ON/OFF and LowSound flip with a click. Shift-click sets the program back to its factory
// settings; Control-click is offered for all programs and, deliberately, changes none.
TEST_F(Panel, SwitchesAndTheirShiftAndControlClicks) {
    const auto click = [&](int x, int y, KeySym held = NoSymbol) {
        if (held != NoSymbol)
            person.Key(held, true);
        person.Click(window, x, y);
        if (held != NoSymbol)
            person.Key(held, false);
        Idle();
    };
    constexpr int kOnX = 37, kOnY = 17, kLowX = 106, kLowY = 124;
    click(kOnX, kOnY);
    EXPECT_EQ(0.0f, host.Get(kOnOff));
    EXPECT_EQ("OFF", Shown(kOnOff));
    click(kOnX, kOnY);
    EXPECT_EQ(1.0f, host.Get(kOnOff));
    click(kLowX, kLowY);
    EXPECT_EQ(0.0f, host.Get(kLowSound)); // which the engine still takes as on: only -1 is off
    EXPECT_EQ("OFF", Shown(kLowSound));
    click(kLowX, kLowY);
    EXPECT_EQ(1.0f, host.Get(kLowSound));

    host.Dispatch(effSetProgram, 0, 1);
    Type(274, 193, "123");
    host.Dispatch(effSetProgram, 0, 0);
    Idle();
    const float factory = host.Get(kTime);
    Type(274, 193, "77");
    click(kOnX, kOnY, XK_Control_L);
    EXPECT_EQ(0.0f, host.Get(kOnOff)) << "the click itself still switches";
    EXPECT_EQ(0.77f, host.Get(kTime));
    click(kOnX, kOnY, XK_Shift_L);
    EXPECT_EQ(factory, host.Get(kTime));
    EXPECT_EQ(1.0f, host.Get(kOnOff)) << "the factory program is on";
    host.Dispatch(effSetProgram, 0, 1);
    EXPECT_EQ(1.23f, host.Get(kTime)) << "only the current program went back";
}

// The save button acts on release, wherever the press was; a press on it released elsewhere
// does nothing. Cancel stores nothing; choosing a slot in the list replaces the typed name.
TEST_F(Panel, SaveActsOnReleaseCancelsAndTakesTheListedName) {
    const std::string bank = std::string(std::getenv("XDG_CONFIG_HOME")) + "/Morvane.fxb";
    std::filesystem::remove(bank);
    const std::string name = host.Text(effGetProgramName);
    const auto pressMoveRelease = [&](int x0, int y0, int x1, int y1) {
        person.MoveTo(window, x0, y0);
        person.Button(true);
        person.MoveTo(window, x1, y1);
        person.Button(false);
    };
    constexpr int kSaveX = 181, kSaveY = 18, kAwayX = 330, kAwayY = 120;
    Type(274, 193, "125");
    WhileModal([&] { pressMoveRelease(kAwayX, kAwayY, kSaveX, kSaveY); },
               [&] { person.Click(modal, 182 + 41, 104 + 14); }); // the dialog's Cancel
    EXPECT_FALSE(std::filesystem::exists(bank));
    EXPECT_EQ(name, host.Text(effGetProgramName));
    EXPECT_EQ(0, host.Dispatch(effGetProgram));

    const std::vector<Window> before = person.Shown();
    pressMoveRelease(kSaveX, kSaveY, kAwayX, kAwayY);
    Idle(30);
    EXPECT_EQ(before, person.Shown()) << "no dialog";

    char second[64] = {};
    host.Dispatch(effGetProgramNameIndexed, 1, 0, second);
    WhileModal([&] { person.Click(window, kSaveX, kSaveY); },
               [&] {
                   person.TabTo();
                   person.SelectAll();
                   person.Type("Typed");
                   person.TabTo(true);
                   person.Tap(XK_Down);
                   person.Tap(XK_Return);
               });
    EXPECT_EQ(1, host.Dispatch(effGetProgram));
    EXPECT_EQ(second, host.Text(effGetProgramName));
    EXPECT_EQ(1.25f, host.Get(kTime));
    EXPECT_TRUE(std::filesystem::exists(bank));
    std::filesystem::remove(bank);
}

TEST_F(Panel, MeterRisesDuringAJobAndFallsToItsFloorAfter) {
    auto lit = [&] {
        const std::vector<uint32_t> s = Screen();
        int bright = 0;
        for (int y = 45; y < 179; ++y)
            bright += (s[y * kW + 425] >> 8 & 0xFF) > 0x90; // green, amber or red lit
        return bright;
    };
    EXPECT_EQ(0, lit());
    host.Dispatch(effSetSampleRate, 0, 0, nullptr, 44100);
    host.Dispatch(effStartProcess);
    host.Dispatch(effSetTotalSampleToProcess, 0, 88200);
    std::vector<float> in(4410), out0(4410), out1(4410);
    int peak = 0;
    for (int i = 0; i < 20; ++i) {
        for (size_t k = 0; k < in.size(); ++k)
            in[k] = 0.7f * static_cast<float>(std::sin(0.05 * static_cast<double>(i * 4410 + k)));
        host.Process(in.data(), in.data(), 4410, out0.data(), out1.data(), 4410);
        Idle(1);
        peak = std::max(peak, lit());
    }
    EXPECT_GT(peak, 20) << "the meter rose during the job";
    Idle(180); // 44 dB at 0.25 dB an idle call
    EXPECT_EQ(0, lit());
    const std::vector<uint32_t> still = Screen();
    Idle(10);
    EXPECT_EQ(still, Screen());
}

} // namespace
