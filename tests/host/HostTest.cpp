#include <gtest/gtest.h>

#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/Signals.h"

namespace fs = std::filesystem;

namespace {

// The engine's limit on sample magnitude: anything beyond comes out at the limit.
constexpr float kEngineLimit = 1.0e6f;

struct Result {
    int code;
    std::string out, err;
};

struct Host : ::testing::Test {
    fs::path dir;

    void SetUp() override {
        char name[] = "/tmp/morvane-host-XXXXXX";
        dir = mkdtemp(name);
    }
    void TearDown() override { fs::remove_all(dir); }

    std::string P(const std::string& name) const { return (dir / name).string(); }

    // Starts morvane with args (env before it), which its test switch stops at point (see
    // CReplaceFile::StopAt); once it has stopped, runs action in the shell ($pid is morvane's)
    // and lets it go on. Returns its exit code and standard error. So the action comes at a
    // known moment of the work, however fast it runs.
    Result RunStoppedAt(const std::string& point, const std::string& args,
                        const std::string& action, const std::string& env = "") const {
        const std::string cmd =
            "sh -c '" + env + " XDG_CONFIG_HOME=" + P("config") + " MORVANE_TEST_STOP=" + point +
            " " MORVANE_CLI " " + args + " >" + P("stdout") + " 2>" + P("stderr") +
            " </dev/null & pid=$!; until grep -Eq \"^State:[[:space:]]+[TZ]\" /proc/$pid/status; "
            "do sleep 0.01; done; " +
            action + "; kill -CONT $pid 2>/dev/null; wait $pid; echo $? >" + P("code") + "'";
        Result r{-1, "", ""};
        if (std::system(cmd.c_str()) != 0)
            return r;
        std::ifstream(P("code")) >> r.code;
        r.err = Slurp(P("stderr"));
        return r;
    }

    static std::string Slurp(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    // Runs the built morvane with its output captured; prefix runs in the shell before it.
    Result Run(const std::string& args, const std::string& prefix = "") const {
        const std::string cmd = prefix + " XDG_CONFIG_HOME=" + P("config") +
                                " exec " MORVANE_CLI " " + args + " >" + P("stdout") + " 2>" +
                                P("stderr") + " </dev/null";
        const int status = std::system(("sh -c '" + cmd + "'").c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Slurp(P("stdout")),
                Slurp(P("stderr"))};
    }

    void Write(const std::string& name, const std::vector<float>& interleaved, int channels,
               int rate, int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT) const {
        SF_INFO info{};
        info.channels = channels;
        info.samplerate = rate;
        info.format = format;
        SNDFILE* f = sf_open(P(name).c_str(), SFM_WRITE, &info);
        ASSERT_NE(nullptr, f) << sf_strerror(nullptr);
        sf_writef_float(f, interleaved.data(),
                        static_cast<sf_count_t>(interleaved.size() / channels));
        sf_close(f);
    }

    std::vector<float> Read(const std::string& name, SF_INFO* info) const {
        *info = SF_INFO{};
        SNDFILE* f = sf_open(P(name).c_str(), SFM_READ, info);
        if (!f)
            return {};
        std::vector<float> v(static_cast<size_t>(info->frames * info->channels));
        sf_readf_float(f, v.data(), info->frames);
        sf_close(f);
        return v;
    }

    // Files left in the folder other than the ones named.
    std::vector<std::string> Leftovers() const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir))
            names.push_back(e.path().filename().string());
        return names;
    }
};

double Cents(const std::vector<float>& x, int channels, double inFreq) {
    const int n = static_cast<int>(x.size()) / channels;
    return 1200 *
           std::log2(Signals::MedianFrequency(x.data(), channels, n / 10, n - n / 10) / inFreq);
}

TEST_F(Host, LengthAndPitchAtSeveralSettingsFormatsAndRates) {
    struct Case {
        const char* args;
        int rate, format;
        double time, cents;
    };
    for (Case c : {Case{"-t 150", 44100, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1.5, 0},
                   Case{"-p 700", 48000, SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 1.0, 700},
                   Case{"-t 75 -p -500", 96000, SF_FORMAT_AIFF | SF_FORMAT_PCM_24, 0.75, -500},
                   Case{"-t 125 -s 3", 22050, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 1.25, 300},
                   Case{"-t 200", 8000, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 2.0, 0},
                   Case{"-t 110", 44100, SF_FORMAT_OGG | SF_FORMAT_VORBIS, 1.1, 0}}) {
        const double freq = 220.0 / c.rate;
        const int frames = c.rate * 3;
        Write("in", Signals::Sine(frames, 2, freq, 0.4), 2, c.rate, c.format);
        const Result r = Run("render " + std::string(c.args) + " " + P("in") + " " + P("out"));
        ASSERT_EQ(0, r.code) << c.args << ": " << r.err;
        SF_INFO info;
        const auto out = Read("out", &info);
        EXPECT_EQ(std::llround(frames * c.time), info.frames) << c.args;
        EXPECT_EQ(c.format, info.format) << c.args; // format and depth kept
        EXPECT_EQ(c.rate, info.samplerate);
        EXPECT_NEAR(c.cents, Cents(out, 2, freq), 3.0) << c.args;
    }
}

TEST_F(Host, MonoStaysMonoAndUnitRatesAreExact) {
    const auto music = Signals::Music(44100 * 2, 44100);
    std::vector<float> mono(music.size() / 2);
    for (size_t i = 0; i < mono.size(); ++i)
        mono[i] = music[2 * i];
    Write("mono.wav", mono, 1, 44100);
    ASSERT_EQ(0, Run("render -t 150 " + P("mono.wav") + " " + P("slow.wav")).code);
    SF_INFO info;
    Read("slow.wav", &info);
    EXPECT_EQ(1, info.channels);
    EXPECT_EQ(44100 * 3, info.frames);

    // time 100 %, pitch 0: the input comes back to the bit
    Write("stereo.wav", music, 2, 44100);
    ASSERT_EQ(0, Run("render " + P("stereo.wav") + " " + P("same.wav")).code);
    EXPECT_EQ(music, Read("same.wav", &info));
    ASSERT_EQ(0, Run("render " + P("mono.wav") + " " + P("same-mono.wav")).code);
    EXPECT_EQ(mono, Read("same-mono.wav", &info));

    // the announced delay can be kept, as silence in front
    ASSERT_EQ(0, Run("render --keep-latency " + P("stereo.wav") + " " + P("late.wav")).code);
    const auto late = Read("late.wav", &info);
    EXPECT_EQ(44100 * 2 + 44100, info.frames);
    EXPECT_EQ(0.0f, late[2 * 44099]);
    EXPECT_EQ(music[0], late[2 * 44100]);
}

// Plain WAV is read and written by the host itself, as libsndfile converts it: both ways, to
// the bit, at every depth, including rounding ties and clipping, in either header form, with
// its texts.
TEST_F(Host, WavConvertsAsLibsndfileDoes) {
    // integers: every 16-bit value, and 24- and 32-bit ones across their range (over a
    // megabyte of samples at 24 bits and up, which a long file's larger buffer reads)
    std::vector<int> every(65536 * 6);
    for (size_t i = 0; i < every.size(); ++i)
        every[i] = static_cast<int>((i * 2654435761u) ^ (i << 7)) & ~0x3F;
    for (int i = 0; i < 65536; ++i)
        every[i] = (i - 32768) * 65536;
    for (int format : {SF_FORMAT_WAV | SF_FORMAT_PCM_16, SF_FORMAT_WAV | SF_FORMAT_PCM_24,
                       SF_FORMAT_WAVEX | SF_FORMAT_PCM_24, SF_FORMAT_WAV | SF_FORMAT_PCM_32,
                       SF_FORMAT_WAV | SF_FORMAT_FLOAT}) {
        SF_INFO info{};
        info.channels = 2;
        info.samplerate = 44100;
        info.format = format;
        SNDFILE* f = sf_open(P("every.wav").c_str(), SFM_WRITE, &info);
        ASSERT_NE(nullptr, f);
        sf_set_string(f, SF_STR_TITLE, "Every value");
        std::vector<float> scaled(every.size()); // a float file's, as they would come in
        for (size_t i = 0; i < every.size(); ++i)
            scaled[i] = static_cast<float>(every[i]) * 0x1p-31f;
        if ((format & SF_FORMAT_SUBMASK) == SF_FORMAT_FLOAT)
            sf_writef_float(f, scaled.data(), static_cast<sf_count_t>(every.size() / 2));
        else
            sf_writef_int(f, every.data(), static_cast<sf_count_t>(every.size() / 2));
        sf_close(f);
        ASSERT_EQ(0, Run("render --bits float " + P("every.wav") + " " + P("ours.wav")).code);
        const auto library = Read("every.wav", &info);
        const auto ours = Read("ours.wav", &info);
        ASSERT_EQ(library.size(), ours.size()) << format;
        EXPECT_EQ(0, std::memcmp(library.data(), ours.data(), sizeof(float) * ours.size()))
            << format;
        SNDFILE* g = sf_open(P("ours.wav").c_str(), SFM_READ, &info);
        ASSERT_NE(nullptr, g);
        EXPECT_STREQ("Every value", sf_get_string(g, SF_STR_TITLE));
        EXPECT_NE(nullptr, std::strstr(sf_get_string(g, SF_STR_COMMENT), "time 100 %"));
        sf_close(g);
    }

    // floats around every rounding tie near zero, across full scale, and beyond it
    std::vector<float> x;
    for (int q = -130; q <= 130; ++q)
        for (float d : {-1.0f, -0.5f, 0.0f, 0.5f, 1.0f})
            for (float unit : {65536.0f, 256.0f, 1.0f})
                x.push_back((unit * q + d) * 0x1p-31f);
    for (int k = -40000; k <= 40000; ++k)
        x.push_back(k / 32768.0f + 0x1p-17f * (k % 3));
    for (float v : {1.0f, -1.0f, 32767.5f / 32768, -32768.5f / 32768, 1.5f, -1.5f, 3e9f, -3e9f,
                    std::nextafter(1.0f, 0.0f), std::nextafter(-1.0f, 0.0f), 0x1p-40f, -0x1p-40f})
        x.push_back(v);
    if (x.size() % 2)
        x.push_back(0.0f);
    Write("floats.wav", x, 2, 44100);
    // the engine keeps samples within its limit; those beyond reach the writer at the limit
    std::vector<float> limited(x);
    for (float& v : limited)
        v = std::clamp(v, -kEngineLimit, kEngineLimit);
    const auto ints = [&](const std::string& name) {
        SF_INFO i{};
        SNDFILE* g = sf_open(P(name).c_str(), SFM_READ, &i);
        std::vector<int> v(static_cast<size_t>(i.frames * i.channels));
        if (g) {
            sf_readf_int(g, v.data(), i.frames);
            sf_close(g);
        }
        return v;
    };
    for (const auto& [bits, depth] :
         {std::pair{"16", SF_FORMAT_PCM_16}, {"24", SF_FORMAT_PCM_24}, {"32", SF_FORMAT_PCM_32}}) {
        ASSERT_EQ(0, Run(std::string("render --bits ") + bits + " " + P("floats.wav") + " " +
                         P("ours.wav"))
                         .code);
        SF_INFO info{};
        info.channels = 2;
        info.samplerate = 44100;
        info.format = SF_FORMAT_WAV | depth;
        SNDFILE* f = sf_open(P("library.wav").c_str(), SFM_WRITE, &info);
        ASSERT_NE(nullptr, f);
        sf_command(f, SFC_SET_CLIPPING, nullptr, SF_TRUE);
        sf_writef_float(f, limited.data(), static_cast<sf_count_t>(limited.size() / 2));
        sf_close(f);
        EXPECT_EQ(ints("library.wav"), ints("ours.wav")) << bits;
    }
}

TEST_F(Host, BadInputGivesOneLineAnExitCodeAndNoFile) {
    Write("ok.wav", Signals::Sine(4410, 2, 0.01, 0.3), 2, 44100);
    Write("three.wav", Signals::Sine(4410, 3, 0.01, 0.3), 3, 44100);
    std::ofstream(P("text.wav")) << "this is not audio\n";
    std::ofstream(P("song.m4a")) << std::string("\0\0\0\x20"
                                                "ftypM4A \0\0\0\0",
                                                16);
    struct Case {
        std::string args;
        int code;
        const char* says;
    };
    for (const Case& c : std::vector<Case>{
             {P("missing.wav") + " " + P("o1.wav"), 3, "cannot read"},
             {P("text.wav") + " " + P("o2.wav"), 3, "not audio"},
             {P("song.m4a") + " " + P("o2.wav"), 3, "is an MPEG-4 audio file"},
             {dir.string() + " " + P("o2.wav"), 3, "is a folder"},
             {P("ok.wav") + " " + P("o2.m4a"), 2, "cannot write .m4a"},
             {P("three.wav") + " " + P("o3.wav"), 3, "3 channels"},
             {"-t 150 -p 600 " + P("ok.wav") + " " + P("o4.wav"), 2, "time x pitch above 2"},
             // 2 x 1.0000002f passes 2 in float, where the plug-in judges it
             {"-t 200 -p 0.0005 " + P("ok.wav") + " " + P("o4.wav"), 2, "above 2: at time 200 %"},
             {"-t 300 " + P("ok.wav") + " " + P("o5.wav"), 2, "50 to 200"},
             {"-p 1300 " + P("ok.wav") + " " + P("o6.wav"), 2, "-1200"},
             {"-l 9 " + P("ok.wav") + " " + P("o7.wav"), 2, "output level"},
             {P("ok.wav") + " " + P("no/such/folder/o8.wav"), 4, "cannot write"},
             {"--bits 8 -f ogg " + P("ok.wav") + " " + P("o9.ogg"), 4, "format"},
             {"--plugin " + P("ok.wav") + " " + P("ok.wav") + " " + P("o10.wav"), 5, "plug-in"},
             {P("ok.wav"), 2, "IN OUT"},
             {"--no-such-option " + P("ok.wav") + " " + P("o11.wav"), 2, ""},
         }) {
        const Result r = Run("render " + c.args);
        EXPECT_EQ(c.code, r.code) << c.args << "\n" << r.err;
        EXPECT_NE(std::string::npos, r.err.find(c.says)) << c.args << "\n" << r.err;
        EXPECT_EQ(0u, r.err.find("morvane: ")) << r.err; // CLI11's errors too
        EXPECT_EQ(std::string::npos, r.err.find("//")) << r.err;
        if (c.args.find("--no-such") == std::string::npos) {
            EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
        }
    }
    auto left = Leftovers();
    std::sort(left.begin(), left.end());
    EXPECT_EQ((std::vector<std::string>{"ok.wav", "song.m4a", "stderr", "stdout", "text.wav",
                                        "three.wav"}),
              left);
}

TEST_F(Host, FullDiskLeavesNoFile) {
    Write("long.wav", Signals::Music(44100 * 30, 44100), 2, 44100);
    // a file-size limit makes the disk "full" after 100 kB; the write must fail cleanly
    const Result full = Run("render -t 150 " + P("long.wav") + " " + P("out.wav"),
                            "ulimit -f 100; trap \"\" XFSZ;");
    EXPECT_EQ(4, full.code) << full.err;
    EXPECT_NE(std::string::npos, full.err.find("cannot write")) << full.err;
    EXPECT_FALSE(fs::exists(P("out.wav")));
    // the same when every core renders a file and each writes on its rendering thread
    const unsigned cores = std::max(2u, std::thread::hardware_concurrency());
    std::string inputs;
    for (unsigned i = 0; i < cores; ++i) {
        fs::copy_file(P("long.wav"), P("copy" + std::to_string(i) + ".wav"));
        inputs += " " + P("copy" + std::to_string(i) + ".wav");
    }
    const Result batch =
        Run("render -t 150 -j " + std::to_string(cores) + " -d " + P("out") + inputs,
            "ulimit -f 100; trap \"\" XFSZ;");
    EXPECT_NE(0, batch.code);
    EXPECT_NE(std::string::npos, batch.err.find("cannot write")) << batch.err;
    EXPECT_TRUE(fs::is_empty(P("out"))) << batch.err;
    for (unsigned i = 0; i < cores; ++i)
        fs::remove(P("copy" + std::to_string(i) + ".wav"));
}

// Every way a render can end early, at known moments: killed (SIGKILL: the out-of-memory killer,
// a power cut) at its first write, half way, just before the file is named and between its two
// namings; hung up (a closed terminal), interrupted and terminated half way. On the build
// machine's filesystem and on a tmpfs, a file rendered before stays whole and nothing else is
// left; a hidden name left by the one kill that can leave one goes with the next render there.
TEST_F(Host, KilledOrInterruptedRendersLeaveNothing) {
    Write("long.wav", Signals::Music(44100 * 30, 44100), 2, 44100);
    std::vector<fs::path> folders{dir / "here"};
    char shm[] = "/dev/shm/morvane-host-XXXXXX";
    if (fs::is_directory("/dev/shm") && mkdtemp(shm))
        folders.push_back(shm);
    struct Case {
        const char* point;
        const char* signal;
        int code;
    };
    for (const fs::path& folder : folders) {
        fs::create_directories(folder);
        const std::string out = (folder / "out.wav").string();
        std::ofstream(out) << "rendered before";
        for (Case c : {Case{"write:1", "KILL", 137}, Case{"write:20", "KILL", 137},
                       Case{"name", "KILL", 137}, Case{"write:20", "HUP", 129},
                       Case{"write:20", "INT", 130}, Case{"write:20", "TERM", 143}}) {
            const Result r = RunStoppedAt(c.point, "render -t 150 " + P("long.wav") + " " + out,
                                          std::string("kill -") + c.signal + " $pid");
            EXPECT_EQ(c.code, r.code) << folder << " " << c.point << " " << c.signal << r.err;
            if (c.code != 137) {
                EXPECT_NE(std::string::npos, r.err.find("interrupted")) << c.signal;
            }
            EXPECT_EQ("rendered before", Slurp(out)) << c.point << " " << c.signal;
            EXPECT_EQ(1, std::distance(fs::directory_iterator(folder), {})) << folder;
        }
        const Result named =
            RunStoppedAt("rename", "render " + P("long.wav") + " " + out, "kill -KILL $pid");
        EXPECT_EQ(137, named.code);
        EXPECT_EQ("rendered before", Slurp(out));
        ASSERT_EQ(0, Run("render " + P("long.wav") + " " + (folder / "other.wav").string()).code);
        for (const auto& e : fs::directory_iterator(folder))
            EXPECT_NE('.', e.path().filename().string()[0]) << e.path();
    }
    fs::remove_all(shm);

    // a batch of two at once, and standard output, whose spool is an unnamed file; an
    // interruption is only ever taken by the main thread, which removes what was half written,
    // never by a helper that may be about to finish (a sanitizer's runtime would then lose it)
    fs::create_directory(dir / "spool");
    fs::copy_file(P("long.wav"), P("second.wav"));
    const std::string helpersTakingInterruptions =
        "for t in /proc/$pid/task/*; do [ ${t##*/} = $pid ] && continue; "
        "m=$(grep SigBlk $t/status | cut -f2); [ $((0x$m & 0x4003)) = $((0x4003)) ] || "
        "echo ${t##*/} >>" +
        P("unblocked") + "; done; ";
    const Result batch = RunStoppedAt(
        "write:5", "render -j 2 -d " + P("batch") + " " + P("long.wav") + " " + P("second.wav"),
        helpersTakingInterruptions + "kill -KILL $pid");
    EXPECT_EQ(137, batch.code);
    EXPECT_TRUE(fs::is_empty(P("batch")));
    EXPECT_FALSE(fs::exists(P("unblocked"))) << Slurp(P("unblocked"));
    const Result piped = RunStoppedAt("write:5", "render -f wav " + P("long.wav") + " -",
                                      "kill -HUP $pid", "TMPDIR=" + P("spool"));
    EXPECT_EQ(129, piped.code);
    EXPECT_TRUE(fs::is_empty(P("spool")));
}

// Where the filesystem refuses unnamed files, a render writes a hidden temporary that names this
// host and process. Killed, it leaves that file; the next render into the folder removes it, but
// never a temporary of a live process, one of another host, or a file of the user's own.
TEST_F(Host, AKilledRendersTemporaryGoesWithTheNextRender) {
    Write("in.wav", Signals::Music(44100 * 10, 44100), 2, 44100);
    fs::create_directory(dir / "out");
    const Result killed =
        RunStoppedAt("write:5", "render -t 150 " + P("in.wav") + " " + P("out/take.wav"),
                     "kill -KILL $pid", "MORVANE_TEST_NO_TMPFILE=1");
    EXPECT_EQ(137, killed.code);
    std::vector<std::string> left;
    for (const auto& e : fs::directory_iterator(dir / "out"))
        left.push_back(e.path().filename().string());
    ASSERT_EQ(1u, left.size());
    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    EXPECT_EQ(0u, left[0].find(".take.wav.morvane-" + std::string(host) + "-")) << left[0];

    const std::vector<std::string> kept{".take.wav.morvane-" + std::string(host) + "-" +
                                            std::to_string(getpid()) + "-0.tmp",
                                        ".take.wav.morvane-elsewhere.example-999999-0.tmp",
                                        ".take.wav.morvane-notes.tmp", ".mine.tmp"};
    for (const auto& name : kept)
        std::ofstream(dir / "out" / name) << "keep";
    const Result next =
        Run("render " + P("in.wav") + " " + P("out/next.wav"), "MORVANE_TEST_NO_TMPFILE=1");
    ASSERT_EQ(0, next.code) << next.err;
    EXPECT_FALSE(fs::exists(dir / "out" / left[0]));
    for (const auto& name : kept)
        EXPECT_TRUE(fs::exists(dir / "out" / name)) << name;
    EXPECT_TRUE(fs::exists(P("out/next.wav")));
}

// The user's bank through morvane bank --import: killed while it writes or just before it
// names the new bank, the old one stays whole and nothing else is left; two imports at once
// leave one of the two banks whole.
TEST_F(Host, BankImportsKilledOrAtOnceLeaveOneWholeBank) {
    const std::string factory =
        fs::path(MORVANE_CLI).parent_path().parent_path() / "plugin/Morvane.fxb";
    std::string other = Slurp(factory);
    const size_t name = other.find("Octave down");
    ASSERT_NE(std::string::npos, name);
    other[name] = 'o';
    std::ofstream(P("other.fxb"), std::ios::binary) << other;
    fs::create_directory(dir / "config");
    const fs::path bank = dir / "config" / "Morvane.fxb";
    fs::copy_file(factory, bank);
    for (const char* point : {"write", "name"}) {
        const Result r = RunStoppedAt(point, "bank --import " + P("other.fxb"), "kill -KILL $pid");
        EXPECT_EQ(137, r.code) << point;
        EXPECT_EQ(Slurp(factory), Slurp(bank.string())) << point;
        EXPECT_EQ(1, std::distance(fs::directory_iterator(dir / "config"), {})) << point;
    }
    const std::string both = "XDG_CONFIG_HOME=" + P("config") + " " MORVANE_CLI " bank --import ";
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(0, std::system(("(" + both + factory + " & " + both + P("other.fxb") +
                                  " & wait) 2>/dev/null")
                                     .c_str()));
        const std::string now = Slurp(bank.string());
        EXPECT_TRUE(now == other || now == Slurp(factory)) << i;
        EXPECT_EQ(1, std::distance(fs::directory_iterator(dir / "config"), {})) << i;
    }
}

TEST_F(Host, ClippingIsReportedWithAdvice) {
    Write("loud.wav", Signals::Sine(44100, 2, 0.01, 0.9), 2, 44100,
          SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    const Result r = Run("render -l 3 " + P("loud.wav") + " " + P("out.wav"));
    EXPECT_EQ(0, r.code);
    // +3 on the plug-in's scale (6 per doubling) is a gain of 1.414: 0.9 becomes +2.1 dBFS
    EXPECT_NE(std::string::npos, r.err.find("clips (peak +2.1 dBFS)")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("--level 0.9")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("--bits float")) << r.err;
    // the advice works
    const Result again = Run("render -l 0.9 " + P("loud.wav") + " " + P("out.wav"));
    EXPECT_EQ(0, again.code);
    EXPECT_EQ("", again.err);
    // float samples keep what lies beyond full scale: said so, not called clipping
    const Result kept = Run("render -l 3dB --bits float " + P("loud.wav") + " " + P("f.wav"));
    EXPECT_EQ(0, kept.code);
    EXPECT_NE(std::string::npos, kept.err.find("peaks at +2.1 dBFS, above full scale")) << kept.err;
    EXPECT_EQ(std::string::npos, kept.err.find("clips")) << kept.err;
    // --guard lowers the level by just as much as the peak is beyond full scale, and says so
    const Result guarded = Run("render -l 3 --guard " + P("loud.wav") + " " + P("g.wav"));
    EXPECT_EQ(0, guarded.code);
    EXPECT_NE(std::string::npos, guarded.err.find("--guard lowered")) << guarded.err;
    EXPECT_NE(std::string::npos, guarded.err.find("by 2.09 dB")) << guarded.err;
    EXPECT_EQ(std::string::npos, guarded.err.find("clips")) << guarded.err;
    SF_INFO info;
    const auto g = Read("g.wav", &info);
    float peak = 0;
    for (float x : g)
        peak = std::max(peak, std::fabs(x));
    EXPECT_EQ(44100, info.frames);
    EXPECT_GT(peak, 0.999f);
    EXPECT_LE(peak, 1.0f);
}

// The longest run of frames whose every sample is exactly zero.
int LongestSilence(const std::vector<float>& x, int channels) {
    int run = 0, longest = 0;
    for (size_t i = 0; i < x.size(); i += channels) {
        const bool zero = std::all_of(&x[i], &x[i] + channels, [](float v) { return v == 0.0f; });
        run = zero ? run + 1 : 0;
        longest = std::max(longest, run);
    }
    return longest;
}

// Sustained sounds: a steady tone, a slow upward glide, a pad of detuned sawtooth voices.
// With LowSound off the splice engine spreads the change over pieces that stay within what it
// holds, so no stretch leaves a gap; with LowSound on, a strong stretch of the pad leaves some,
// by the engine's design, and the render says so.
TEST_F(Host, SustainedSoundsKeepWholeAndSilentGapsAreReported) {
    constexpr int kRate = 44100, kFrames = 4 * kRate;
    std::vector<float> glide(2 * kFrames), pad(2 * kFrames);
    double phase = 0;
    for (int i = 0; i < kFrames; ++i) {
        phase += 2 * M_PI * 220.0 * std::pow(2.0, double(i) / kFrames) / kRate;
        double saws = 0;
        for (double f : {110.0, 110.7, 164.8, 165.9, 220.4, 261.6}) {
            const double p = f * i / kRate;
            saws += 2 * (p - std::floor(p + 0.5));
        }
        glide[2 * i] = glide[2 * i + 1] = static_cast<float>(0.5 * std::sin(phase));
        pad[2 * i] = pad[2 * i + 1] = static_cast<float>(0.08 * saws);
    }
    Write("tone.wav", Signals::Sine(kFrames, 2, 440.0 / kRate, 0.5), 2, kRate);
    Write("glide.wav", glide, 2, kRate);
    Write("pad.wav", pad, 2, kRate);
    const int kFiveMs = kRate / 200;
    for (const char* name : {"tone.wav", "glide.wav", "pad.wav"}) {
        for (const auto& [args, time] :
             {std::pair{"-t 150", 1.5}, std::pair{"-t 200", 2.0}, std::pair{"--ratio 1.5", 1.0}}) {
            const Result r = Run(std::string("render --low-sound off ") + args + " " + P(name) +
                                 " " + P("out.wav"));
            ASSERT_EQ(0, r.code) << r.err;
            EXPECT_EQ("", r.err) << name << " " << args;
            SF_INFO info;
            const auto out = Read("out.wav", &info);
            EXPECT_EQ(std::llround(kFrames * time), info.frames) << name << " " << args;
            EXPECT_LE(LongestSilence(out, 2), kFiveMs) << name << " " << args;
            if (name == std::string("tone.wav")) {
                EXPECT_NEAR(time == 1.0 ? 702.0 : 0.0, Cents(out, 2, 440.0 / kRate), 5.0) << args;
            }
        }
    }

    const Result gaps = Run("render -t 200 " + P("pad.wav") + " " + P("out.wav"));
    EXPECT_NE(std::string::npos, gaps.err.find("ms of silent gaps")) << gaps.err;
    EXPECT_NE(std::string::npos, gaps.err.find("--engine crisp avoids them")) << gaps.err;
    const Result none = Run("render -t 150 " + P("pad.wav") + " " + P("out.wav"));
    EXPECT_EQ("", none.err);
    const Result crisp = Run("render -e crisp -t 200 " + P("pad.wav") + " " + P("out.wav"));
    EXPECT_EQ(std::string::npos, crisp.err.find("silent gaps")) << crisp.err;
}

TEST_F(Host, VanishedOutputFolderIsAClearError) {
    Write("long.wav", Signals::Music(44100 * 30, 44100), 2, 44100);
    fs::create_directory(dir / "gone");
    const Result r =
        RunStoppedAt("write:5", "render -q -t 150 " + P("long.wav") + " " + P("gone/out.wav"),
                     "rm -rf " + P("gone"));
    EXPECT_EQ(4, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("cannot write")) << r.err;
    EXPECT_FALSE(fs::exists(dir / "gone"));
}

TEST_F(Host, BatchKeepsGoingAndReportsFailures) {
    Write("a.wav", Signals::Sine(44100, 2, 0.01, 0.3), 2, 44100);
    Write("b.wav", Signals::Sine(22050, 1, 0.01, 0.3), 1, 44100);
    std::ofstream(P("bad.wav")) << "nope";
    fs::create_directory(dir / "out");
    const Result r = Run("render -t 50 -j 2 -d " + P("out") + " " + P("a.wav") + " " +
                         P("bad.wav") + " " + P("b.wav"));
    EXPECT_EQ(1, r.code);
    EXPECT_NE(std::string::npos, r.err.find("1 of 3 files failed")) << r.err;
    SF_INFO info;
    Read("out/a.wav", &info);
    EXPECT_EQ(22050, info.frames);
    Read("out/b.wav", &info);
    EXPECT_EQ(11025, info.frames);
    EXPECT_FALSE(fs::exists(dir / "out" / "bad.wav"));
    // a file of a batch, with the plug-in kept loaded between files, is the file rendered alone:
    // the same samples and the same size (a float WAV's PEAK chunk holds the second it was
    // written in, so the bytes may differ there)
    ASSERT_EQ(0, Run("render -t 50 " + P("b.wav") + " " + P("alone.wav")).code);
    SF_INFO alone;
    EXPECT_EQ(Read("alone.wav", &alone), Read("out/b.wav", &info));
    EXPECT_EQ(fs::file_size(P("alone.wav")), fs::file_size(P("out/b.wav")));
}

TEST_F(Host, InfoHelpAndDemo) {
    const Result info = Run("info");
    EXPECT_EQ(0, info.code);
    EXPECT_NE(std::string::npos, info.out.find("'Qzvh'"));
    EXPECT_NE(std::string::npos, info.out.find("Time                           100.00 %"));
    EXPECT_NE(std::string::npos, info.out.find("offline                yes"));
    EXPECT_NE(std::string::npos, info.out.find("64  Octave down, half time"));

    EXPECT_EQ(0, Run("--help").code);
    EXPECT_EQ(0, Run("render --help").code);
    const Result help = Run("help render");
    EXPECT_EQ(0, help.code);
    EXPECT_NE(std::string::npos, help.out.find("Usage: morvane render")) << help.out;
    const Result version = Run("-V");
    EXPECT_EQ(0, version.code);
    EXPECT_NE(std::string::npos, version.out.find("Morvane.so (Morvane, version")) << version.out;
    EXPECT_NE(std::string::npos, version.out.find("libsndfile"));
    for (const char* wrong : {"", "--bogus"}) {
        const Result usage = Run(wrong);
        EXPECT_EQ(2, usage.code);
        EXPECT_NE(std::string::npos, usage.err.find("Usage: morvane")) << usage.err;
        EXPECT_EQ(std::string::npos, usage.err.find("A subcommand is required"));
    }
    const Result gone =
        Run("render " + P("x.wav") + " " + P("y.wav"), "MORVANE_PLUGIN=" + P("moved.so"));
    EXPECT_EQ(5, gone.code);
    EXPECT_NE(std::string::npos, gone.err.find("MORVANE_PLUGIN names")) << gone.err;
    EXPECT_EQ(3, Run("info " + P("nothing.so")).code); // no such file

    ASSERT_EQ(0, Run("demo " + P("demo.wav")).code);
    SF_INFO a, b;
    const auto first = Read("demo.wav", &a);
    ASSERT_EQ(0, Run("demo " + P("demo2.wav")).code);
    EXPECT_EQ(first, Read("demo2.wav", &b)); // deterministic
    EXPECT_EQ(2, a.channels);
    EXPECT_GE(a.frames, 44100 * 10);

    // libsndfile is loaded only by what reads or writes audio other than plain WAV, and one that
    // cannot be is named.
    fs::create_directory(dir / "libs");
    std::ofstream(dir / "libs" / "libsndfile.so.1") << "not a library";
    const std::string broken = "LD_LIBRARY_PATH=" + P("libs");
    EXPECT_EQ(0, Run("help render", broken).code);
    EXPECT_EQ(0, Run("info", broken).code);
    EXPECT_EQ(0, Run("-V", broken).code);
    EXPECT_EQ(0, Run("info " + P("demo.wav"), broken).code);
    EXPECT_EQ(0, Run("render " + P("demo.wav") + " " + P("plain.wav"), broken).code);
    const Result unloaded = Run("render " + P("demo.wav") + " " + P("none.flac"), broken);
    EXPECT_NE(0, unloaded.code);
    EXPECT_NE(std::string::npos, unloaded.err.find("libsndfile.so.1 (Debian's libsndfile1)"))
        << unloaded.err;
    EXPECT_FALSE(fs::exists(dir / "none.flac"));
}

TEST_F(Host, ProgramsAndBanks) {
    Write("in.wav", Signals::Sine(44100, 2, 0.01, 0.3), 2, 44100);
    SF_INFO info;
    // program 46 is "Double speed": time 50 %
    ASSERT_EQ(0, Run("render --program 46 " + P("in.wav") + " " + P("fast.wav")).code);
    Read("fast.wav", &info);
    EXPECT_EQ(22050, info.frames);
    // an option given on the command line overrides the program's value
    ASSERT_EQ(0, Run("render --program 46 -t 150 " + P("in.wav") + " " + P("slow.wav")).code);
    Read("slow.wav", &info);
    EXPECT_EQ(66150, info.frames);
    // "Pitch +12 (octave up)" with time 150 % breaks the bound
    const Result bound = Run("render --program 13 -t 150 " + P("in.wav") + " " + P("no.wav"));
    EXPECT_EQ(2, bound.code);
    EXPECT_NE(std::string::npos, bound.err.find("time x pitch above 2 with program 13"));
    // the same advice, to the same precision, as for a pitch given on the command line
    const std::string advice = "at time 150 % the pitch may rise at most +498.04 cents";
    EXPECT_NE(std::string::npos, bound.err.find(advice)) << bound.err;
    const Result given = Run("render -t 150 -p 1200 " + P("in.wav") + " " + P("no.wav"));
    EXPECT_NE(std::string::npos, given.err.find(advice)) << given.err;
    const Result semis = Run("render -t 150 -s 12 " + P("in.wav") + " " + P("no.wav"));
    EXPECT_NE(std::string::npos, semis.err.find("at most +4.98 semitones")) << semis.err;
    EXPECT_FALSE(fs::exists(P("no.wav")));
    EXPECT_EQ(2, Run("render --program 65 " + P("in.wav") + " " + P("no.wav")).code);

    // the factory bank, listed through the plug-in
    const std::string factory =
        fs::path(MORVANE_CLI).parent_path().parent_path() / "plugin/Morvane.fxb";
    const Result list = Run("bank " + factory);
    EXPECT_EQ(0, list.code) << list.err;
    EXPECT_EQ(64, std::count(list.out.begin(), list.out.end(), '\n'));
    EXPECT_NE(std::string::npos,
              list.out.find(" 64  Octave down, half time   time    50.00 %  pitch  -1200.0"));
    EXPECT_NE(std::string::npos, list.out.find(" 58  Tape -12 semitones       time   200.00 %"));

    // export what the plug-in holds (the factory bank, no user bank yet), import it back
    ASSERT_EQ(0, Run("bank --export " + P("mine.fxb")).code);
    EXPECT_EQ(Slurp(factory), Slurp(P("mine.fxb")));
    fs::create_directory(dir / "config");
    ASSERT_EQ(0, Run("bank --import " + P("mine.fxb")).code);
    EXPECT_EQ(3232u, fs::file_size(dir / "config" / "Morvane.fxb"));

    // a file that is not this plug-in's bank is refused and the user's bank stays
    std::ofstream(P("junk.fxb")) << "CcnK but nothing more";
    const Result junk = Run("bank --import " + P("junk.fxb"));
    EXPECT_EQ(3, junk.code);
    EXPECT_EQ(3232u, fs::file_size(dir / "config" / "Morvane.fxb"));
    EXPECT_EQ(2, Run("bank").code);
}

TEST_F(Host, Mp3AndCutShortFilesAreReadToTheirEnd) {
    // An MP3 without its Xing frame: libsndfile's length is then a guess far below the stream's.
    Write("tagged.mp3", Signals::Sine(3 * 44100, 2, 0.01, 0.3), 2, 44100,
          SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III);
    const std::string mp3 = Slurp(P("tagged.mp3"));
    size_t second = 4;
    while (second + 1 < mp3.size() &&
           !(uint8_t(mp3[second]) == 0xFF && (uint8_t(mp3[second + 1]) & 0xE0) == 0xE0))
        ++second;
    std::ofstream(P("bare.mp3"), std::ios::binary) << mp3.substr(second);
    for (const char* name : {"tagged.mp3", "bare.mp3"}) {
        const Result r = Run("render -t 150 " + P(name) + " " + P("out.wav"));
        ASSERT_EQ(0, r.code) << name << ": " << r.err;
        SF_INFO info;
        const auto out = Read("out.wav", &info);
        EXPECT_GE(info.frames, 3 * 44100 * 3 / 2) << name; // with the decoder's lead-in
        EXPECT_LE(info.frames, (3 * 44100 + 2 * 1152) * 3 / 2) << name;
        EXPECT_GT(std::fabs(out[out.size() - 2 * 4410]), 0.0f) << name; // sound to the end
    }

    // A WAV cut short: what is there is rendered, and the missing frames are named.
    Write("whole.wav", Signals::Sine(44100, 2, 0.01, 0.3), 2, 44100,
          SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    fs::copy_file(P("whole.wav"), P("cut.wav"));
    fs::resize_file(P("cut.wav"), 44 + 4 * 10000);
    const Result cut = Run("render " + P("cut.wav") + " " + P("cut-out.wav"));
    EXPECT_EQ(0, cut.code) << cut.err;
    EXPECT_NE(std::string::npos, cut.err.find("cut short: its header promises 34100 more frames"))
        << cut.err;
    EXPECT_EQ("", Run("render " + P("whole.wav") + " " + P("whole-out.wav")).err);
}

TEST_F(Host, OutputFormatFollowsTheNameAndStandardOutputStreams) {
    Write("in.wav", Signals::Sine(22050, 2, 0.01, 0.3), 2, 44100, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    struct Case {
        std::string args, out, magic;
    };
    for (const Case& c : std::vector<Case>{
             {"", "a.flac", "fLaC"},       // float input, 24-bit FLAC
             {"-f wav", "b.flac", "RIFF"}, // -f wins over the name
             {"", "c", "RIFF"},            // no extension: the input's container
             {"", "d.AIFF", "FORM"},
             {"", "e.ogg", "OggS"},
         }) {
        const Result r = Run("render " + c.args + " " + P("in.wav") + " " + P(c.out));
        ASSERT_EQ(0, r.code) << c.out << ": " << r.err;
        EXPECT_EQ(c.magic, Slurp(P(c.out)).substr(0, 4)) << c.out;
    }
    // MP3 where libsndfile can write it
    SF_INFO probe{0, 44100, 2, SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 0, 0};
    if (sf_format_check(&probe)) {
        ASSERT_EQ(0, Run("render " + P("in.wav") + " " + P("f.mp3")).code);
        SF_INFO info;
        Read("f.mp3", &info);
        EXPECT_EQ(SF_FORMAT_MPEG, info.format & SF_FORMAT_TYPEMASK);
    }
    // standard output: the whole file, and nothing left behind
    const Result piped = Run("render -t 200 -f flac " + P("in.wav") + " - ");
    ASSERT_EQ(0, piped.code) << piped.err;
    std::ofstream(P("piped.flac"), std::ios::binary) << piped.out;
    SF_INFO info;
    Read("piped.flac", &info);
    EXPECT_EQ(44100, info.frames);
}

TEST_F(Host, OutputsNeverReplaceInputsOrEachOther) {
    fs::create_directories(dir / "d1");
    fs::create_directories(dir / "d2");
    Write("d1/a.wav", Signals::Sine(4410, 2, 0.01, 0.3), 2, 44100);
    Write("d2/a.wav", Signals::Sine(4410, 2, 0.01, 0.3), 2, 44100);
    const auto size = fs::file_size(dir / "d1/a.wav");
    fs::create_hard_link(dir / "d1/a.wav", dir / "d2/linked.wav");
    fs::create_symlink(dir / "d1", dir / "via");
    struct Case {
        std::string args, says;
    };
    for (const Case& c : std::vector<Case>{
             {P("d1/a.wav") + " " + P("d1/a.wav"), "also an input"},
             {P("d1/a.wav") + " " + P("d1/../d1/a.wav"), "also an input"},
             {"-d " + P("d1") + " " + P("d1/a.wav"), "also an input"},
             {"-d " + P("out") + " " + P("d1/a.wav") + " " + P("d2/a.wav"), "would both be"},
             {"-d " + P("out") + " " + P("d1/a.wav") + " " + P("d1/a.wav"), "would both be"},
             {P("d1/a.wav") + " " + P("d2/linked.wav"), "also an input"},
             {P("d1/a.wav") + " " + P("via/a.wav"), "also an input"},
             {"-d " + P("d1") + " " + P("d2/a.wav") + " " + P("d2/linked.wav"), "also an input"},
         }) {
        const Result r = Run("render -t 150 " + c.args);
        EXPECT_EQ(2, r.code) << c.args;
        EXPECT_NE(std::string::npos, r.err.find(c.says)) << c.args << ": " << r.err;
    }
    EXPECT_EQ(size, fs::file_size(dir / "d1/a.wav"));
    EXPECT_FALSE(fs::exists(dir / "out")); // refused before anything was made

    // --force replaces the input, whole; -d makes its folder, and paths print without "//"
    ASSERT_EQ(0, Run("render --force -t 150 " + P("d1/a.wav") + " " + P("d1/a.wav")).code);
    SF_INFO info;
    Read("d1/a.wav", &info);
    EXPECT_EQ(6615, info.frames);
    const Result made = Run("render -t 50 -d " + P("new/deep/") + " " + P("d2/a.wav"));
    EXPECT_EQ(0, made.code) << made.err;
    Read("new/deep/a.wav", &info);
    EXPECT_EQ(2205, info.frames);
}

TEST_F(Host, SettingsInTheirUnitsAndHowAFileWasMade) {
    Write("in.wav", Signals::Music(44100, 44100), 2, 44100);
    SF_INFO tagged{};
    SNDFILE* f = sf_open(P("in.wav").c_str(), SFM_RDWR, &tagged);
    ASSERT_NE(nullptr, f);
    sf_set_string(f, SF_STR_TITLE, "Night Drive");
    sf_close(f);

    // one time, three spellings; a number neither a ratio nor a percentage is refused
    for (const char* t : {"1.5", "150%", "150", "1.5x"}) {
        const Result r =
            Run("render -t " + std::string(t) + " -l -3dB " + P("in.wav") + " " + P("out.flac"));
        ASSERT_EQ(0, r.code) << t << ": " << r.err;
        SF_INFO info;
        Read("out.flac", &info);
        EXPECT_EQ(66150, info.frames) << t;
    }
    EXPECT_EQ(2, Run("render -t 20 " + P("in.wav") + " " + P("x.wav")).code);
    EXPECT_EQ(2, Run("render -l 3dBFS " + P("in.wav") + " " + P("x.wav")).code);

    // the tags go on, and the settings are written where soxi and morvane info show them
    const Result info = Run("info " + P("out.flac"));
    EXPECT_EQ(0, info.code) << info.err;
    EXPECT_NE(std::string::npos, info.out.find("Night Drive")) << info.out;
    EXPECT_NE(std::string::npos, info.out.find("time 150 %, pitch 0 cents, level -3 dB"))
        << info.out;
    // a file made from one Morvane made keeps both lines of its history
    ASSERT_EQ(0, Run("render -t 0.5 " + P("out.flac") + " " + P("again.flac")).code);
    const std::string again = Run("info " + P("again.flac")).out;
    EXPECT_NE(std::string::npos, again.find("LowSound on, engine splice\n             Morvane"))
        << again;

    // --ratio 3/2 is a fifth up; --low-sound off reaches the plug-in and changes the sound
    ASSERT_EQ(0, Run("render --ratio 3/2 " + P("in.wav") + " " + P("fifth.wav")).code);
    EXPECT_NE(std::string::npos, Run("info " + P("fifth.wav")).out.find("pitch +701.9"));
    SF_INFO a, b;
    ASSERT_EQ(0, Run("render -t 130 " + P("in.wav") + " " + P("on.wav")).code);
    ASSERT_EQ(0, Run("render -t 130 --low-sound off " + P("in.wav") + " " + P("off.wav")).code);
    EXPECT_NE(Read("on.wav", &a), Read("off.wav", &b));
    const std::string chunks = Run("info " + P("off.wav")).out;
    EXPECT_NE(std::string::npos, chunks.find("LowSound off")) << chunks;
    EXPECT_NE(std::string::npos, chunks.find("LIST ")) << chunks; // the tags' own chunk
    EXPECT_EQ(a.frames, b.frames);
}

TEST_F(Host, BatchOnATerminalShowsOneOverallBar) {
    if (std::system("command -v script >/dev/null") != 0)
        GTEST_SKIP() << "script (bsdutils) is not installed";
    for (const char* name : {"a.wav", "b.wav", "c.wav"})
        Write(name, Signals::Sine(44100, 2, 0.01, 0.3), 2, 44100);
    // script gives morvane a terminal; what it drew comes back on script's output
    const std::string cmd = "script -qec '" MORVANE_CLI " render -t 150 -d " + P("out") + " " +
                            P("a.wav") + " " + P("b.wav") + " " + P("c.wav") + "' /dev/null >" +
                            P("tty") + " </dev/null";
    ASSERT_EQ(0, std::system(cmd.c_str()));
    const std::string shown = Slurp(P("tty"));
    EXPECT_NE(std::string::npos, shown.find("3 of 3 files")) << shown;
    EXPECT_NE(std::string::npos, shown.find("100%")) << shown;
}

TEST_F(Host, InfoOnAnotherVendorsPlugin) {
    const char* eq = "/usr/lib/vst/3BandEQ-vst.so"; // Debian's dpf-plugins-vst: exports only main
    if (!fs::exists(eq))
        GTEST_SKIP() << "dpf-plugins-vst is not installed";
    const Result r = Run(std::string("info ") + eq);
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("DISTRHO"));
    EXPECT_NE(std::string::npos, r.out.find("Parameters (6)"));

    // it is no offline time-stretcher: render refuses it rather than copy the input
    Write("in.wav", Signals::Sine(4410, 2, 0.01, 0.3), 2, 44100);
    const Result refused =
        Run(std::string("render --plugin ") + eq + " " + P("in.wav") + " " + P("out.wav"));
    EXPECT_EQ(5, refused.code);
    EXPECT_NE(std::string::npos, refused.err.find("is not Morvane")) << refused.err;
    EXPECT_FALSE(fs::exists(P("out.wav")));
}

} // namespace
