// `morvane gui` as a person uses it: a real window on the test's private X server, driven
// through XTest and a file manager's drag and drop, playing to the test's private sound server
// (tests/support/with-pulse.sh), whose null sink's monitor is recorded, and choosing files through
// a stand-in for the desktop's portal on the test's private session bus (with-dbus.sh).
#include <gtest/gtest.h>

#include <signal.h>
#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/XSession.h"

namespace {

namespace fs = std::filesystem;

// The strip, the lanes of waves under it, the panel under them, and where their parts are.
constexpr int kProgramX = 100, kProgramY = 22;
constexpr int kLanesTop = 166, kRuler = 22, kLaneHeight = 104;
constexpr int kWavesLeft = 84, kWidth = 820; // the waves' columns, right of the lanes' names
constexpr int kPanelTop = 409, kPanelLeft = 170;
constexpr int kSourceLane = 0, kResultLane = 1;
// colours the lanes draw flat: the source's wave, a clipped column's mark, the box of a note
// ("reading...")
constexpr uint32_t kSourceWave = 0x408EC4, kClipMark = 0xFF3830, kNoteBox = 0x22252B;

int LaneTop(int lane) {
    return kLanesTop + kRuler + 1 + lane * (kLaneHeight + 1);
}
// where a share of the lane's width is, on the lane's middle row
int LaneX(double share) {
    return kWavesLeft + static_cast<int>(share * (kWidth - kWavesLeft));
}

std::vector<float> ReadFloats(const std::string& path) {
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<float> v;
    if (!f)
        return v;
    v.resize(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(f, v.data(), info.frames);
    sf_close(f);
    return v;
}

// seconds of stereo at 44.1 kHz in 16 bits, frame i being frame(t) at t = i / 44100
void WriteStereo(const std::string& path, int seconds,
                 const std::function<std::pair<double, double>(double)>& frame) {
    const int frames = seconds * 44100;
    SF_INFO info{0, 44100, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(nullptr, f);
    std::vector<float> v(2 * static_cast<size_t>(frames));
    for (int i = 0; i < frames; ++i) {
        const auto [left, right] = frame(i / 44100.0);
        v[2 * i] = static_cast<float>(left);
        v[2 * i + 1] = static_cast<float>(right);
    }
    sf_writef_float(f, v.data(), frames);
    sf_close(f);
}

// A tone gliding up from 200 Hz by rise Hz a second, sine on the left and cosine on the right,
// so that no stretch of it sounds like another and no frame is silent: its frequency tells the
// point of the music, and how fast it rises the time rate.
void WriteGlide(const std::string& path, int seconds, double rise) {
    WriteStereo(path, seconds, [rise](double t) {
        const double phase = 2 * M_PI * (200 * t + rise / 2 * t * t);
        return std::pair{0.5 * std::sin(phase), 0.5 * std::cos(phase)};
    });
}

// A chord with a click every quarter second.
void WriteInput(const std::string& path, int seconds) {
    WriteStereo(path, seconds, [](double t) {
        const double click = std::fmod(t, 0.25) < 40 / 44100.0 ? 0.5 : 0.0;
        return std::pair{0.2 * std::sin(2 * M_PI * 220 * t) + click,
                         0.2 * std::sin(2 * M_PI * 330 * t) + click};
    });
}

bool Silent(const float* frame) {
    return frame[0] == 0.0f && frame[1] == 0.0f;
}

// The frequency of a sine heard in the left channel of interleaved frames, at the middle of each
// run of eight periods between rising zero crossings. A sound server starved of the processor
// plays silence until the stream catches up, and what it plays about such a gap is not the
// window's: runs within 1024 frames of one are left out (the glide's own exact zeros last a
// frame), and each point says where it is both in the recording and in what sounded.
struct Point {
    double at, sounding, hz;
};
std::vector<Point> Track(const std::vector<float>& frames) {
    const size_t n = frames.size() / 2;
    // counts of frames before each: silent ones, ones in a gap, ones near a gap
    std::vector<size_t> silent(n + 1), gap(n + 1), near(n + 1);
    for (size_t i = 0, run = 0; i < n; ++i) {
        const bool quiet = Silent(&frames[2 * i]);
        run = quiet ? run + 1 : 0;
        silent[i + 1] = silent[i] + quiet;
        gap[i + 1] = gap[i] + (run >= 4);
    }
    for (size_t i = 0; i < n; ++i)
        near[i + 1] = near[i] + (gap[std::min(n, i + 1024)] > gap[i > 1027 ? i - 1027 : 0]);
    std::vector<double> rising;
    for (size_t i = 1; i < n; ++i)
        if (frames[2 * i - 2] < 0 && frames[2 * i] >= 0)
            rising.push_back(i - 1 + frames[2 * i - 2] / (frames[2 * i - 2] - frames[2 * i]));
    std::vector<Point> track;
    for (size_t k = 8; k < rising.size(); ++k) {
        const auto from = static_cast<size_t>(rising[k - 8]), to = static_cast<size_t>(rising[k]);
        if (near[to + 2] != near[from])
            continue;
        const double at = (rising[k] + rising[k - 8]) / 2;
        track.push_back({at, at - static_cast<double>(silent[static_cast<size_t>(at)]),
                         8 * 44100 / (rising[k] - rising[k - 8])});
    }
    return track;
}

// The frames of interleaved stereo that are not silent. A sound server starved of the processor on
// a loaded machine plays silence until the stream catches up, which is no fault of the window's:
// what was heard is compared without it.
template <class It> std::vector<float> SoundingFrames(It from, It to) {
    std::vector<float> frames;
    for (; from + 1 < to; from += 2)
        if (from[0] != 0.0f || from[1] != 0.0f)
            frames.insert(frames.end(), from, from + 2);
    return frames;
}

struct Studio : ::testing::Test {
    XSession person;
    std::string dir;
    std::thread run;

    void SetUp() override {
        dir = ::testing::TempDir() + "studio-" + std::to_string(getpid()) + "-" +
              ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::create_directories(dir);
    }
    void TearDown() override {
        // a test that failed half way leaves morvane open: it ends here, not at the time limit
        if (run.joinable() && !fs::exists(dir + "/code"))
            std::system(("kill $(cat '" + dir + "/pid') 2>/dev/null").c_str());
        if (run.joinable())
            run.join();
        fs::remove_all(dir);
    }
    // morvane gui with args, in the background; env goes before it
    void Start(const std::string& args, const std::string& env = "") {
        const std::string cmd = env + " " + MORVANE_CLI + " gui " + args + " 2>" + dir +
                                "/err & echo $! >" + dir + "/pid; wait $!; echo $? >" + dir +
                                "/code";
        run = std::thread([cmd] { std::system(cmd.c_str()); });
    }
    // the exit code, once morvane has ended
    int Code() {
        run.join();
        std::ifstream in(dir + "/code");
        int code = -1;
        in >> code;
        return code;
    }
    // closes the window as a window manager does; the exit code
    int Close(Window w) {
        person.Close(w);
        return Code();
    }
    // the names in the test's folder, sorted
    std::vector<std::string> Left() const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir))
            names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
    // morvane's process, once its test switch (MORVANE_TEST_STOP) has stopped it; 0 if it never
    // does
    pid_t Stopped() {
        for (int i = 0; i < 1000; ++i) {
            pid_t pid = 0;
            std::ifstream(dir + "/pid") >> pid;
            std::string line;
            for (std::ifstream status("/proc/" + std::to_string(pid) + "/status");
                 pid > 0 && std::getline(status, line);)
                if (line.rfind("State:", 0) == 0 && line.find('T') != std::string::npos)
                    return pid;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return 0;
    }
    void Keys(Window w, std::initializer_list<KeySym> keys) {
        XSetInputFocus(person.display(), w, RevertToParent, CurrentTime);
        for (KeySym k : keys)
            person.Tap(k);
    }
    // opens a menu, list or dialog, in which the person then plays steps once it has the keyboard
    void InModal(const std::function<void()>& open, const std::function<void()>& steps) {
        const std::vector<Window> before = person.Shown();
        open();
        const Window opened = person.WaitForNewWindow(before);
        EXPECT_NE(None, opened);
        if (opened != None)
            steps();
    }
    // Records what the test's sound server plays, as float stereo at 44.1 kHz, into the file
    // it returns, until StopRecording.
    std::string Record() {
        const std::string rec = dir + "/heard.raw";
        std::system(("parec --latency-msec=10 -d morvane_test.monitor --format=float32le "
                     "--rate=44100 --channels=2 --raw >'" +
                     rec + "' 2>/dev/null & echo $! >'" + dir + "/parec'")
                        .c_str());
        // The monitor sends nothing while nothing plays, and a recorder still setting up its
        // stream when playback starts can lose frames: silence is played until it is heard.
        EXPECT_TRUE(WaitFor([&] {
            std::system("head -c 8820 /dev/zero | pacat --raw --format=float32le --rate=44100 "
                        "--channels=2 -d morvane_test 2>/dev/null");
            return fs::file_size(rec) > 0;
        })) << "the recorder hears nothing";
        return rec;
    }
    void StopRecording() { std::system(("kill -INT $(cat '" + dir + "/parec')").c_str()); }
    // What was recorded so far, interleaved.
    static std::vector<float> Heard(const std::string& rec) {
        std::vector<float> heard(fs::file_size(rec) / sizeof(float) / 2 * 2);
        std::ifstream(rec, std::ios::binary)
            .read(reinterpret_cast<char*>(heard.data()),
                  static_cast<std::streamsize>(heard.size() * sizeof(float)));
        return heard;
    }
    // What was recorded so far, its silent frames left out.
    static std::vector<float> Sounding(const std::string& rec) {
        const std::vector<float> heard = Heard(rec);
        return SoundingFrames(heard.begin(), heard.end());
    }
    // How many pixels of a lane's waves are of colour rgb.
    int Pixels(Window w, int lane, uint32_t rgb) {
        const std::vector<uint32_t> shown = person.Grab(w, kWidth, LaneTop(lane) + kLaneHeight);
        int n = 0;
        for (int y = LaneTop(lane); y < LaneTop(lane) + kLaneHeight; ++y)
            for (int x = kWavesLeft; x < kWidth && !shown.empty(); ++x)
                n += shown[static_cast<size_t>(y) * kWidth + x] == rgb;
        return n;
    }
    std::string Title(const std::string& text) {
        std::string title;
        EXPECT_NE(0u, person.WaitForTitle(text, &title)) << "no title with \"" << text << "\"";
        return title;
    }
};

// gui IN OUT renders at once; then programs from the list and the panel's COPY, a value typed
// into the panel, files from the window's own file dialogs (there is no session bus, so no
// portal), Stop, and no sound server, as a person meets them.
TEST_F(Studio, ProgramsPanelFilesAndStopWithoutASoundServer) {
    const int noDisplay =
        std::system((std::string("DISPLAY= ") + MORVANE_CLI + " gui 2>/dev/null").c_str());
    EXPECT_EQ(2, WEXITSTATUS(noDisplay)) << "without a display it says so and stops";
    const std::string in = dir + "/in.wav", out = dir + "/out.wav";
    WriteInput(in, 30); // long enough to be stopped
    Start("--program 46 '" + in + "' '" + out + "'",
          "PULSE_SERVER=unix:" + dir + "/no-server DBUS_SESSION_BUS_ADDRESS=unix:path=" + dir +
              "/no-bus");
    const Window w = person.WaitForTitle("wrote out.wav with the splice engine");
    ASSERT_NE(0u, w);
    EXPECT_NE(std::string::npos, Title("wrote").find("\xE2\x80\x94 46: ")) << "names the program";
    const size_t inFrames = ReadFloats(in).size();
    EXPECT_NEAR(inFrames / 2.0, ReadFloats(out).size(), inFrames * 0.01) << "46: double speed";
    XClassHint hint{};
    ASSERT_TRUE(XGetClassHint(person.display(), w, &hint));
    EXPECT_STREQ("Morvane", hint.res_class) << "the menu entry's StartupWMClass";
    XFree(hint.res_name);
    XFree(hint.res_class);

    // program 47 chosen from the list (End goes to 64, then up 17), PgDn, and the panel's COPY
    // putting program 1 into 48: the strip follows
    InModal([&] { person.Click(w, kProgramX, kProgramY); },
            [&] {
                person.Tap(XK_End);
                for (int i = 0; i < 17; ++i)
                    person.Tap(XK_Up);
                person.Tap(XK_Return);
            });
    Title("\xE2\x80\x94 47: ");
    Keys(w, {XK_Next});
    Title("\xE2\x80\x94 48: ");
    InModal([&] { person.Click(w, kPanelLeft + 76, kPanelTop + 18); },
            [&] {
                person.Tap(XK_Down);
                person.Tap(XK_Return);
            });
    Title("\xE2\x80\x94 48: Original");

    // 150 % typed into the panel's time read-out applies to the next render (R); the person
    // waits for the field to take the keyboard, and to let it go
    auto focusLeaves = [&](Window from) {
        WaitFor([&] { return person.Focus() != from; });
        return person.Focus();
    };
    const auto typeInto = [&](int x, const char* value) {
        const Window before = person.Focus();
        person.Click(w, kPanelLeft + x, kPanelTop + 193);
        const Window field = focusLeaves(before);
        person.SelectAll();
        person.Type(value);
        person.Tap(XK_Return);
        focusLeaves(field);
    };
    typeInto(274, "150");
    fs::remove(out); // the render writes beside it and renames it when done
    Keys(w, {XK_r});
    WaitFor([&] { return fs::exists(out); });
    const std::vector<float> slower = ReadFloats(out);
    EXPECT_NEAR(inFrames * 1.5, slower.size(), inFrames * 0.01);
    // stretched to its end: not the last rate's output padded with silence
    EXPECT_GT(*std::max_element(slower.end() - slower.size() / 5, slower.end()), 0.1f);

    // files chosen in the file dialogs: a folder typed and entered, then a file in it; the
    // output's dialog starts beside the output, and takes a new name
    fs::create_directories(dir + "/takes");
    fs::copy_file(in, dir + "/takes/b.wav");
    const auto choose = [&](KeySym key, std::initializer_list<const char*> names) {
        InModal(
            [&] {
                XSetInputFocus(person.display(), w, RevertToParent, CurrentTime);
                person.Key(XK_Control_L, true);
                person.Tap(key);
                person.Key(XK_Control_L, false);
            },
            [&] {
                for (const char* name : names) {
                    person.SelectAll();
                    person.Type(name);
                    person.Tap(XK_Return);
                }
            });
    };
    choose(XK_o, {"takes", "b.wav"});
    Title("Ready: F5 renders b.wav");
    choose(XK_s, {"renamed.wav"});
    const std::string renamed = dir + "/renamed.wav";
    Keys(w, {XK_r});
    Title("wrote renamed.wav");
    EXPECT_NEAR(inFrames * 1.5, ReadFloats(renamed).size(), inFrames * 0.01);

    // Stop during a render: nothing is left under the output's name, nor beside it
    fs::remove(renamed);
    Keys(w, {XK_F9});
    Title("crisp engine renders next");
    for (KeySym k : {XK_F5, XK_Escape}) { // at once: the render is on its first blocks
        person.Key(k, true);
        person.Key(k, false);
    }
    Title("Stopped: nothing was written");
    EXPECT_EQ((std::vector<std::string>{"err", "in.wav", "out.wav", "pid", "takes"}), Left());

    // no sound server: said, and the rest works
    Keys(w, {XK_F6});
    Title("Cannot play: no sound server");
    // the Output read-out at +6 dB: the result clips, and F10 fits the level
    typeInto(420, "6");
    Keys(w, {XK_F3, XK_Return}); // Return in a file's field renders
    EXPECT_NE(std::string::npos, Title("wrote renamed.wav with the crisp engine").find("clips"));
    EXPECT_TRUE(WaitFor([&] { return Pixels(w, kResultLane, kClipMark) > 0; }))
        << "the result's lane marks where it clips";
    EXPECT_EQ(0, Pixels(w, kSourceLane, kClipMark)) << "the source does not clip";
    Keys(w, {XK_F10});
    Title("Output lowered by");
    Keys(w, {XK_F5});
    Title("wrote renamed.wav with the crisp engine: 0:");
    // the lane is read again: no marks once it is drawn whole (no note of reading left)
    EXPECT_TRUE(WaitFor([&] {
        return Pixels(w, kResultLane, kNoteBox) == 0 && Pixels(w, kResultLane, kClipMark) == 0;
    })) << "marks left on a result that does not clip";
    float peak = 0;
    for (float x : ReadFloats(renamed))
        peak = std::max(peak, std::fabs(x));
    EXPECT_LE(peak, 1.0f);
    EXPECT_GT(peak, 0.99f);
    EXPECT_EQ(0, Close(w));
}

// Files chosen in the desktop's own dialog through its portal: what the window asks, and what it
// does with each answer, the window answering the person while the dialog is up; a portal that
// goes away, or is not there, leaves the window's own dialog.
TEST_F(Studio, ChoosesFilesThroughTheDesktopsPortal) {
    ASSERT_NE(nullptr, std::getenv("DBUS_SESSION_BUS_ADDRESS")) << "runs under with-dbus.sh";
    const std::string in = dir + "/in.wav", record = dir + "/asked";
    WriteInput(in, 1);
    fs::create_directories(dir + "/takes");
    fs::copy_file(in, dir + "/takes/a take.wav");
    // the answers, in turn: the output; the input, while the window is used; a cancel; a place
    // that is not a file; and one the portal never gives, as it goes away
    const std::string file = "'file://" + dir;
    std::system((std::string(STAND_IN_PORTAL) + " '" + record + "' " + file +
                 "/out%20put.wav' 'held:" + file.substr(1) +
                 "/takes/a%20take.wav' cancel held:http://example.invalid/x.wav "
                 "held:cancel >'" +
                 dir + "/portal-log' 2>&1 & echo $! >'" + dir + "/portal'")
                    .c_str());
    ASSERT_TRUE(WaitFor([&] { return fs::exists(record); })) << "the stand-in did not start";
    pid_t portal = 0;
    std::ifstream(dir + "/portal") >> portal;
    ASSERT_GT(portal, 0);
    const auto asked = [&] {
        std::vector<std::string> lines;
        std::ifstream f(record);
        for (std::string line; std::getline(f, line);)
            lines.push_back(line);
        return lines;
    };
    Start("'" + in + "'", "PULSE_SERVER=unix:" + dir + "/no-server");
    const Window w = person.WaitForTitle("Ready: F5 renders in.wav");
    ASSERT_NE(0u, w);
    const auto control = [&](KeySym key) {
        XSetInputFocus(person.display(), w, RevertToParent, CurrentTime);
        person.Key(XK_Control_L, true);
        person.Tap(key);
        person.Key(XK_Control_L, false);
    };
    // Ctrl+key until the portal has had n questions: the window asks one at a time, and not
    // before it has taken the last answer
    const auto ask = [&](KeySym key, size_t n) {
        for (int i = 0; i < 20 && asked().size() < n; ++i) {
            control(key);
            WaitFor([&] { return asked().size() >= n; }, 2);
        }
        ASSERT_EQ(n, asked().size());
    };
    ask(XK_s, 1);
    ask(XK_o, 2);
    Keys(w, {XK_F9}); // while the portal's dialog is up
    Title("The crisp engine renders next");
    kill(portal, SIGUSR1);
    Title("Ready: F5 renders a take.wav");
    ask(XK_o, 3); // cancelled
    ask(XK_o, 4);
    kill(portal, SIGUSR1);
    Title("The file chooser answered http://example.invalid/x.wav, which is not a file on this "
          "computer");
    Keys(w, {XK_F5});
    Title("wrote out put.wav");
    EXPECT_TRUE(fs::is_regular_file(dir + "/out put.wav"));

    // the portal goes while its dialog is up, and then is not on the bus: the window's own
    // dialog, each time
    const auto ownDialog = [&](const std::function<void()>& open) {
        const std::vector<Window> before = person.Shown();
        open();
        const Window opened = person.WaitForNewWindow(before);
        ASSERT_NE(None, opened);
        person.Tap(XK_Escape);
        WaitFor([&] {
            const std::vector<Window> shown = person.Shown();
            return std::find(shown.begin(), shown.end(), opened) == shown.end();
        });
    };
    ask(XK_o, 5);
    ownDialog([&] { kill(portal, SIGTERM); });
    ownDialog([&] { control(XK_o); });
    EXPECT_EQ(0, Close(w));

    // what the window asked: its own window's id as the parent, the audio files' filter, and the
    // folder (and for a save, the name) the field points at; after the cancel, still the take's
    const std::vector<std::string> q = asked();
    ASSERT_EQ(5u, q.size());
    char parent[32];
    std::snprintf(parent, sizeof parent, "\tx11:%lx\t", w);
    const auto has = [&](size_t i, const std::string& text) {
        EXPECT_NE(std::string::npos, q[i].find(text)) << "question " << i << ": " << q[i];
    };
    for (size_t i = 0; i < q.size(); ++i) {
        has(i, i == 0 ? "SaveFile\t" : "OpenFile\t");
        has(i, parent);
        has(i, "'handle_token': <'morvane_");
        has(i, "'filters': <[('Audio files', [(uint32 0, '*.wav'), (0, '*.WAV'), ");
        has(i, "(0, '*.mp3'), (0, '*.MP3'), ");
        has(i, "('All files', [(0, '*')])]>");
        has(i, "'current_filter': <('Audio files', [(uint32 0, '*.wav'), ");
    }
    has(0, "'current_name': <'in-morvane.wav'>");
    has(0, "'current_folder': <b'" + dir + "'>");
    has(1, "'current_folder': <b'" + dir + "'>");
    for (size_t i : {2, 3, 4})
        has(i, "'current_folder': <b'" + dir + "/takes'>");
}

// Closing the window in the middle of a render ends morvane as Ctrl-C would, leaving nothing.
TEST_F(Studio, ClosedDuringARenderLeavesNoOutput) {
    const std::string in = dir + "/in.wav", out = dir + "/out.wav";
    WriteInput(in, 30);
    // stopped on its fifth block written, so the window is closed while the render runs
    Start("'" + in + "' '" + out + "'",
          "MORVANE_TEST_STOP=write:5 PULSE_SERVER=unix:" + dir + "/no-server");
    const pid_t pid = Stopped();
    ASSERT_NE(0, pid);
    const Window w = person.WaitForTitle("Rendering in.wav");
    ASSERT_NE(0u, w);
    person.Close(w);
    kill(pid, SIGCONT);
    EXPECT_EQ(130, Code());
    std::ifstream err(dir + "/err");
    const std::string said(std::istreambuf_iterator<char>(err), {});
    EXPECT_NE(std::string::npos, said.find("closed during the render")) << said;
    EXPECT_EQ((std::vector<std::string>{"code", "err", "in.wav", "pid"}), Left());
}

// Terminated in the middle of a render from the window: the render runs in morvane's own code, so
// its temporary file (named here, as on a filesystem that refuses unnamed files) is in the list
// morvane's signal handler clears.
TEST_F(Studio, TerminatedDuringARenderLeavesNoTemporaryFile) {
    const std::string in = dir + "/in.wav", out = dir + "/out.wav";
    WriteInput(in, 30);
    const std::string env =
        "MORVANE_TEST_NO_TMPFILE=1 MORVANE_TEST_STOP=write:5 PULSE_SERVER=unix:";
    Start("'" + in + "' '" + out + "'", env + dir + "/no-server");
    const pid_t pid = Stopped();
    ASSERT_NE(0, pid);
    const std::vector<std::string> during = Left();
    EXPECT_TRUE(std::any_of(during.begin(), during.end(), [](const std::string& name) {
        return name.rfind(".out.wav.morvane-", 0) == 0;
    })) << "the render writes under a hidden name";
    kill(pid, SIGTERM);
    kill(pid, SIGCONT);
    EXPECT_EQ(143, Code());
    EXPECT_EQ((std::vector<std::string>{"code", "err", "in.wav", "pid"}), Left());
}

TEST_F(Studio, TakesADroppedFilePlaysWhatItRenderedAndComparesAtTheSamePoint) {
    ASSERT_NE(nullptr, std::getenv("PULSE_SERVER")) << "runs under tests/support/with-pulse.sh";
    const std::string in = dir + "/my take.wav", out = dir + "/my take-morvane.wav";
    WriteInput(in, 4);
    // gui IN, as a file manager opens a file: it waits, proposing the output beside it
    fs::copy_file(in, dir + "/first.wav");
    Start("'" + dir + "/first.wav'");
    const Window w = person.WaitForTitle("Ready: F5 renders first.wav");
    ASSERT_NE(0u, w);
    Keys(w, {XK_F5});
    Title("wrote first-morvane.wav");
    // what a file manager offers: a percent-encoded URI, one a line
    std::string uri = "file://";
    for (char c : in)
        uri += c == ' ' ? std::string("%20") : std::string(1, c);
    EXPECT_FALSE(person.Drop(w, 200, 300, "http://example.invalid/x.wav\r\n"));
    ASSERT_TRUE(person.Drop(w, 200, 300, "# from a test\r\n" + uri + "\r\n"));
    // the dropped file is the input, and the proposed output follows it
    Keys(w, {XK_F5});
    Title("wrote my take-morvane.wav");
    const std::vector<float> rendered = ReadFloats(out);

    // the result, played to the end, is what the sink's monitor hears, to the bit (the sink
    // takes floats at the file's rate)
    const std::string rec = Record();
    Keys(w, {XK_F7});
    Title("Playing the result");
    Title("Stopped playing");
    // What the recorder heard from its first frame that is not silence (start), found in the
    // result within 0.1 s of its start (at); waited for until it reaches the result's end.
    std::vector<float> heard;
    size_t start = 0, at = 0;
    constexpr size_t kWindow = 2 * 512;
    const auto last =
        std::find_if(rendered.rbegin(), rendered.rend(), [](float x) { return x != 0.0f; }).base();
    WaitFor([&] {
        if (fs::file_size(rec) / sizeof(float) + 2 * 4410 < rendered.size())
            return false; // not yet worth reading
        heard = Heard(rec);
        for (start = 0; start < heard.size() && heard[start] == 0.0f; start += 2) {
        }
        if (start + kWindow >= heard.size())
            return false;
        for (at = 0;
             at < 2 * 4410 && !std::equal(heard.begin() + start, heard.begin() + start + kWindow,
                                          rendered.begin() + at);
             at += 2) {
        }
        // the result's last sound is in: everything played has reached the recording
        return at < 2 * 4410 &&
               std::search(heard.begin() + start, heard.end(), last - kWindow, last) != heard.end();
    });
    StopRecording();
    ASSERT_LT(start + kWindow, heard.size()) << "nothing was heard";
    ASSERT_LT(at, size_t{2 * 4410}) << "not heard from the start";
    EXPECT_GE(heard.size() - start, rendered.size() - at) << "not heard to the end";
    // Every sounding frame, in order and to the bit. A sound server starved of the processor
    // plays silence, and may then drop what it could not play in time, which is no fault of the
    // window's: each run heard between silences is found in the result after the one before.
    const std::vector<float> played(rendered.begin() + at, rendered.end());
    size_t next = 0, lost = 0;
    for (auto from = heard.begin() + start; from < heard.end();) {
        auto to = from;
        while (to + 1 < heard.end() && !Silent(&*to))
            to += 2;
        if (to - from >= 2 * 64) {
            const auto found = std::search(played.begin() + next, played.end(), from, to);
            ASSERT_NE(played.end(), found) << "heard what was not rendered, or out of order";
            lost += found - (played.begin() + next);
            next = found - played.begin() + (to - from);
        }
        from = to + 2;
    }
    EXPECT_GT(next + played.size() / 50, played.size()) << "not heard to the end";
    EXPECT_LT(lost, played.size() / 50) << "much of the result was never heard";

    // A/B: the other one, from the same point
    Keys(w, {XK_F7});
    Title("Playing the result 0:01");
    Keys(w, {XK_F8});
    const std::string source = Title("Playing the source");
    EXPECT_EQ(std::string::npos, source.find("source 0:00")) << source;
    Keys(w, {XK_Escape});
    Title("Stopped playing");
    EXPECT_EQ(0, Close(w));
}

// While the result plays, the Time fader moved as a person drags it is heard within a quarter of
// a second, from the same point of the music and without a click; the window goes on answering
// while the sound server is held still.
TEST_F(Studio, AChangeIsHeardAtOnceWhileTheResultPlays) {
    ASSERT_NE(nullptr, std::getenv("PULSE_SERVER")) << "runs under tests/support/with-pulse.sh";
    const std::string in = dir + "/glide.wav", out = dir + "/out.wav";
    WriteGlide(in, 10, 380);
    Start("'" + in + "' '" + out + "'");
    const Window w = person.WaitForTitle("wrote out.wav");
    ASSERT_NE(0u, w);
    const std::string rec = Record();
    Keys(w, {XK_F7});
    Title("Playing the result 0:01");
    // the Time fader's knob, from 100 % to 150 %: the splice engine's pieces put the waveform
    // at the same point out of step with the file's, so a switch without a crossfade clicks
    const size_t moved = fs::file_size(rec) / (2 * sizeof(float));
    person.MoveTo(w, kPanelLeft + 273, kPanelTop + 132);
    person.Button(true);
    person.MoveTo(w, kPanelLeft + 273, kPanelTop + 92);
    person.Button(false);
    Title("Previewing the result");
    WaitFor([&] { return fs::file_size(rec) / (2 * sizeof(float)) > moved + 2 * 44100; });
    StopRecording();
    const std::vector<float> heard = Heard(rec);
    ASSERT_GT(heard.size(), 2 * (moved + 2 * 44100)) << "nothing more was heard";

    // the glide as it rose before the move, its line, and where it leaves it
    const auto track = Track(heard);
    // the glide's line (Hz against seconds sounded) over the points in a stretch of the recording
    const auto fit = [&](double from, double to) {
        double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
        for (const Point& p : track)
            if (p.at >= from && p.at < to) {
                const double x = p.sounding / 44100, y = p.hz;
                n += 1, sx += x, sy += y, sxx += x * x, sxy += x * y;
            }
        const double slope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
        return std::pair{slope, (sy - slope * sx) / n};
    };
    const auto [before, at] = fit(moved - 0.6 * 44100, moved - 0.1 * 44100);
    EXPECT_NEAR(380, before, 20) << "the result at 100 % rises 380 Hz a second";
    const auto left = std::find_if(track.begin(), track.end(), [&](const Point& p) {
        return p.at > moved - 0.1 * 44100 &&
               std::fabs(p.hz - (before * p.sounding / 44100 + at)) > 4;
    });
    ASSERT_NE(track.end(), left) << "the change was never heard";
    EXPECT_LT((left->at - moved) / 44100, MORVANE_HEARD_WITHIN_MS / 1000.0) << "heard late";
    const auto [after, from] = fit(left->at + 0.05 * 44100, left->at + 1.0 * 44100);
    EXPECT_NEAR(before / 1.5, after, 20) << "then at 150 %";
    // The two lines meet where it changed: it goes on from the same point of the music, give or
    // take the splice engine's sway about it (8 Hz is 21 ms of the music).
    const double x = left->sounding / 44100;
    EXPECT_NEAR(before * x + at, after * x + from, 8) << "not from the same point of the music";
    // no sample-to-sample jump near the change beyond what the glide makes on its own
    const auto jump = [&](double from, double to) {
        float most = 0;
        for (size_t i = 2 * static_cast<size_t>(moved + from * 44100);
             i + 2 < 2 * static_cast<size_t>(moved + to * 44100); i += 2)
            if (!Silent(&heard[i]) && !Silent(&heard[i + 2]))
                most = std::max(most, std::fabs(heard[i + 2] - heard[i]));
        return most;
    };
    EXPECT_LE(jump(-0.1, 0.6), 1.2f * jump(0.6, 1.5)) << "a click at the change";

    // the sound server held still: the window still answers, and stops playing at once
    // (the pattern written so that it does not match the shell that runs pkill)
    const std::string server =
        "pkill -f 'socke[t]=" + std::string(std::getenv("PULSE_SERVER")).substr(5) + "'";
    ASSERT_EQ(0, std::system((server + " -STOP").c_str()));
    Keys(w, {XK_Next});
    Title("\xE2\x80\x94 2: ");
    Keys(w, {XK_Escape});
    Title("Stopped playing");
    std::system((server + " -CONT").c_str());
    EXPECT_EQ(0, Close(w));
}

// A click in the source's lane plays it from there; a drag across it loops what it covers, and
// playback goes round the loop until stopped.
TEST_F(Studio, AClickInALanePlaysFromThereAndADragLoops) {
    ASSERT_NE(nullptr, std::getenv("PULSE_SERVER")) << "runs under tests/support/with-pulse.sh";
    const std::string in = dir + "/glide.wav";
    WriteGlide(in, 4, 200);
    const std::vector<float> source = ReadFloats(in);
    Start("'" + in + "'");
    const Window w = person.WaitForTitle("Ready: F5 renders glide.wav");
    ASSERT_NE(0u, w);
    // nothing rendered yet: the source spans the lane
    ASSERT_TRUE(WaitFor([&] { return Pixels(w, kSourceLane, kSourceWave) > 0; }))
        << "the source's waves are not drawn";
    const std::string rec = Record();
    const int y = LaneTop(kSourceLane) + kLaneHeight / 2;
    person.Click(w, LaneX(0.5), y);
    Title("Playing the source");
    Title("Stopped playing");
    // from 25 % to 50 % of the lane
    person.MoveTo(w, LaneX(0.25), y);
    person.Button(true);
    for (double at : {0.3, 0.4, 0.5})
        person.MoveTo(w, LaneX(at), y);
    person.Button(false);
    Title("looping 0:01.0");

    // Where a stretch of 256 frames of the source at a share of it is heard, from the first
    // sounding frame recorded on.
    std::vector<float> heard;
    const auto times = [&](double share) {
        const auto from = source.begin() + static_cast<long>(share * source.size() / 2) * 2;
        int n = 0;
        for (auto at = heard.begin();
             (at = std::search(at, heard.end(), from, from + 2 * 256)) != heard.end(); at += 2)
            ++n;
        return n;
    };
    EXPECT_TRUE(WaitFor([&] {
        heard = Sounding(rec);
        return times(0.375) >= 3;
    })) << "the middle of the loop is not heard again and again";
    Keys(w, {XK_Escape});
    Title("Stopped playing");
    StopRecording();
    heard = Sounding(rec);
    const auto first = std::search(source.begin(), source.end(), heard.begin(),
                                   heard.begin() + std::min<size_t>(heard.size(), 2 * 256));
    ASSERT_NE(source.end(), first) << "what was heard first is not the source";
    EXPECT_NEAR(0.5, double(first - source.begin()) / source.size(), 0.01)
        << "the click plays from half way";
    EXPECT_EQ(1, times(0.75)) << "after the loop: heard once, from the click";
    EXPECT_EQ(0, times(0.2)) << "before the loop: never heard";
    EXPECT_EQ(0, Close(w));
}

} // namespace
