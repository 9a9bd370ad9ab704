// `morvane gui` as a person uses it: a real window on the test's private X server, driven
// through XTest and a file manager's drag and drop, playing to the test's private sound server
// (tests/support/with-pulse.sh), whose null sink's monitor is recorded.
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

// A tone gliding up from 200 Hz, sine on the left and cosine on the right, so that no stretch of
// it sounds like another and no frame is silent: stereo, 44.1 kHz, 16 bits.
void WriteGlide(const std::string& path, int seconds) {
    const int frames = seconds * 44100;
    SF_INFO info{0, 44100, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(nullptr, f);
    std::vector<float> v(2 * static_cast<size_t>(frames));
    for (int i = 0; i < frames; ++i) {
        const double t = i / 44100.0, phase = 2 * M_PI * (200 * t + 100 * t * t);
        v[2 * i] = static_cast<float>(0.5 * std::sin(phase));
        v[2 * i + 1] = static_cast<float>(0.5 * std::cos(phase));
    }
    sf_writef_float(f, v.data(), frames);
    sf_close(f);
}

// A chord with a click every quarter second: stereo, 44.1 kHz, 16 bits.
void WriteInput(const std::string& path, int seconds) {
    const int frames = seconds * 44100;
    SF_INFO info{0, 44100, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(nullptr, f);
    std::vector<float> v(2 * static_cast<size_t>(frames));
    for (int i = 0; i < frames; ++i) {
        const double t = i / 44100.0;
        const float click = i % 11025 < 40 ? 0.5f : 0.0f;
        v[2 * i] = static_cast<float>(0.2 * std::sin(2 * M_PI * 220 * t)) + click;
        v[2 * i + 1] = static_cast<float>(0.2 * std::sin(2 * M_PI * 330 * t)) + click;
    }
    sf_writef_float(f, v.data(), frames);
    sf_close(f);
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
    // What was recorded so far, its silent frames left out.
    std::vector<float> Sounding(const std::string& rec) {
        std::vector<float> heard(fs::file_size(rec) / sizeof(float) / 2 * 2);
        std::ifstream(rec, std::ios::binary)
            .read(reinterpret_cast<char*>(heard.data()),
                  static_cast<std::streamsize>(heard.size() * sizeof(float)));
        std::vector<float> frames;
        for (size_t i = 0; i + 1 < heard.size(); i += 2)
            if (heard[i] != 0.0f || heard[i + 1] != 0.0f)
                frames.insert(frames.end(), {heard[i], heard[i + 1]});
        return frames;
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
// into the panel, files from the file dialogs, Stop, and no sound server, as a person meets them.
TEST_F(Studio, ProgramsPanelFilesAndStopWithoutASoundServer) {
    const int noDisplay =
        std::system((std::string("DISPLAY= ") + MORVANE_CLI + " gui 2>/dev/null").c_str());
    EXPECT_EQ(2, WEXITSTATUS(noDisplay)) << "without a display it says so and stops";
    const std::string in = dir + "/in.wav", out = dir + "/out.wav";
    WriteInput(in, 30); // long enough to be stopped
    Start("--program 46 '" + in + "' '" + out + "'", "PULSE_SERVER=unix:" + dir + "/no-server");
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
    const Window before = person.Focus();
    person.Click(w, kPanelLeft + 274, kPanelTop + 193);
    const Window field = focusLeaves(before);
    person.SelectAll();
    person.Type("150");
    person.Tap(XK_Return);
    focusLeaves(field);
    fs::remove(out); // the render writes beside it and renames it when done
    Keys(w, {XK_r});
    WaitFor([&] { return fs::exists(out); });
    EXPECT_NEAR(inFrames * 1.5, ReadFloats(out).size(), inFrames * 0.01);

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
    Keys(w, {XK_F3, XK_Return}); // Return in a file's field renders
    // the clicks' peaks grow with the crisp engine: the result clips, and F10 fits the level
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
        heard.resize(fs::file_size(rec) / sizeof(float));
        if (heard.size() + 2 * 4410 < rendered.size())
            return false; // not yet worth reading
        std::ifstream(rec, std::ios::binary)
            .read(reinterpret_cast<char*>(heard.data()),
                  static_cast<std::streamsize>(heard.size() * sizeof(float)));
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
    // Every sounding frame, in order and to the bit. A sound server starved of the processor on
    // a loaded machine plays silence until the stream catches up, which is no fault of the
    // window's: silent frames are left out on both sides.
    const auto sounding = [](auto from, auto to) {
        std::vector<float> frames;
        for (; from + 1 < to; from += 2)
            if (from[0] != 0.0f || from[1] != 0.0f)
                frames.insert(frames.end(), from, from + 2);
        return frames;
    };
    const std::vector<float> played = sounding(rendered.begin() + at, rendered.end());
    std::vector<float> recorded = sounding(heard.begin() + start, heard.end());
    ASSERT_GE(recorded.size(), played.size()) << "not heard to the end";
    recorded.resize(played.size());
    EXPECT_TRUE(recorded == played) << "not heard as rendered, to the bit";

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

// A click in the source's lane plays it from there; a drag across it loops what it covers, and
// playback goes round the loop until stopped.
TEST_F(Studio, AClickInALanePlaysFromThereAndADragLoops) {
    ASSERT_NE(nullptr, std::getenv("PULSE_SERVER")) << "runs under tests/support/with-pulse.sh";
    const std::string in = dir + "/glide.wav";
    WriteGlide(in, 4);
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
