// Programs, chunks and the bank file, through the effect's operations. Every test runs with its
// own preferences folder and plug-in folder, never the user's.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "AMorvane.h"
#include "CStringResource.h"
#include "MorvaneParameters.h"

using namespace MorvaneParameters;

namespace fs = std::filesystem;

namespace {

std::string gPluginDir;
int gUpdates = 0;

VstIntPtr Host(AEffect*, VstInt32 opcode, VstInt32, VstIntPtr, void*, float) {
    if (opcode == audioMasterVersion)
        return 2400;
    if (opcode == audioMasterGetDirectory)
        return reinterpret_cast<VstIntPtr>(gPluginDir.c_str());
    if (opcode == audioMasterUpdateDisplay)
        ++gUpdates;
    return 0;
}

std::vector<unsigned char> Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void Spit(const std::string& path, const std::vector<unsigned char>& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

uint32_t Be(const std::vector<unsigned char>& b, size_t at) {
    return (uint32_t(b[at]) << 24) | (uint32_t(b[at + 1]) << 16) | (uint32_t(b[at + 2]) << 8) |
           b[at + 3];
}

struct Programs : ::testing::Test {
    static inline std::string prefs; // looked up once per process: one folder per process
    std::string factory;

    void SetUp() override {
        if (prefs.empty()) {
            char name[] = "/tmp/morvane-prefs-XXXXXX";
            prefs = mkdtemp(name);
            setenv("XDG_CONFIG_HOME", prefs.c_str(), 1);
            std::atexit([] { fs::remove_all(prefs); }); // no folder left behind per run
        }
        char name[] = "/tmp/morvane-plugdir-XXXXXX";
        gPluginDir = std::string(mkdtemp(name)) + "/";
        factory = gPluginDir + "Morvane.fxb";
        fs::remove(UserBank());
        gUpdates = 0;
    }
    void TearDown() override {
        fs::remove_all(gPluginDir);
        fs::remove(UserBank());
    }
    std::string UserBank() const { return prefs + "/Morvane.fxb"; }

    // A bank file as the effect writes it, with the given names and pitch rates.
    void WriteFactory(const char* firstName, float pitch = 1.0f) {
        AMorvane e(Host);
        e.open();
        e.setProgramName(const_cast<char*>(firstName));
        e.setParameterFormUI(kPitch, 1200.0f * std::log2(pitch), 0);
        ASSERT_TRUE(e.SaveProgram(0, firstName));
        fs::rename(UserBank(), factory);
    }
};

std::string Name(AMorvane& e, int index) {
    char text[64] = {};
    e.getProgramNameIndexed(0, index, text);
    return text;
}

TEST_F(Programs, ChunksRoundTripAndRestoreTheCurrentProgram) {
    AMorvane a(Host);
    a.open();
    a.setProgram(5);
    char name[] = "Five";
    a.setProgramName(name);
    a.setParameterFormUI(kTime, 150.0f, 0);
    void* data = nullptr;
    ASSERT_EQ(3072, a.getChunk(&data, false));
    std::vector<unsigned char> bank(static_cast<unsigned char*>(data),
                                    static_cast<unsigned char*>(data) + 3072);
    ASSERT_EQ(48, a.getChunk(&data, true));
    std::vector<unsigned char> preset(static_cast<unsigned char*>(data),
                                      static_cast<unsigned char*>(data) + 48);

    AMorvane b(Host);
    b.open();
    b.setChunk(bank.data(), 3072, false);
    EXPECT_EQ(5, b.getProgram());
    EXPECT_EQ("Five", Name(b, 5));
    EXPECT_EQ(1.5f, b.getParameter(kTime));

    b.setProgram(9);
    b.setChunk(preset.data(), 48, true); // over program 9
    EXPECT_EQ("Five", Name(b, 9));
    EXPECT_EQ(1.5f, b.getParameter(kTime));
}

TEST_F(Programs, ChunksOfAnySizeStayInsideTheTable) {
    AMorvane e(Host);
    e.open();
    std::vector<unsigned char> huge(100000, 'x'); // names without an end, a wild index
    e.setChunk(huge.data(), static_cast<VstInt32>(huge.size()), false);
    EXPECT_EQ(23u, Name(e, 63).size()); // every name ends inside its record
    EXPECT_EQ(0, e.getProgram());       // an index outside the table selects program 0
    e.setChunk(huge.data(), static_cast<VstInt32>(huge.size()), true);
    EXPECT_EQ(23u, Name(e, 0).size());

    AMorvane f(Host);
    f.open();
    const float pitch = 1.25f;
    f.setChunk(const_cast<float*>(&pitch), 4, true); // changes only the first value
    EXPECT_EQ("Empty", Name(f, 0));
    f.setChunk(huge.data(), 0, false);
    f.setChunk(huge.data(), -5, false);
    EXPECT_EQ("Empty", Name(f, 1));
}

TEST_F(Programs, SavedBankIsTheStandardFormatToTheByte) {
    AMorvane e(Host);
    e.open();
    ASSERT_TRUE(e.SaveProgram(3, "A"));
    const auto b = Slurp(UserBank());
    ASSERT_EQ(3232u, b.size());
    EXPECT_EQ(0x43636E4Bu, Be(b, 0)); // CcnK
    EXPECT_EQ(0u, Be(b, 4));          // byte size deliberately 0
    EXPECT_EQ(0x46424368u, Be(b, 8)); // FBCh
    EXPECT_EQ(1u, Be(b, 12));
    EXPECT_EQ(0x517A7668u, Be(b, 16)); // Qzvh
    EXPECT_EQ(1u, Be(b, 20));
    EXPECT_EQ(64u, Be(b, 24));
    for (size_t i = 28; i < 156; ++i)
        ASSERT_EQ(0, b[i]);
    EXPECT_EQ(3072u, Be(b, 156));
    void* data = nullptr;
    e.getChunk(&data, false);
    EXPECT_EQ(0, std::memcmp(b.data() + 160, data, 3072));
    AMorvaneProgram saved;
    std::memcpy(&saved, b.data() + 160 + 3 * 48, 48);
    EXPECT_STREQ("A", saved.szName);
    int32_t current;
    std::memcpy(&current, b.data() + 160 + 44, 4);
    EXPECT_EQ(3, current);
    // nothing else left in the folder: the temporary file was renamed into place
    EXPECT_EQ(1, std::distance(fs::directory_iterator(prefs), fs::directory_iterator{}));
}

TEST_F(Programs, UserBankFirstThenFactory) {
    WriteFactory("Factory one", 1.5f);
    {
        AMorvane e(Host);
        e.open(); // no user bank: the factory bank is the first user bank
        EXPECT_EQ("Factory one", Name(e, 0));
        EXPECT_NEAR(1.5f, e.getParameter(kPitch), 1e-4);
        e.setProgramName(const_cast<char*>("Mine"));
        e.setParameterFormUI(kPitch, 0.0f, 0);
        e.ProgramToFactory();
        EXPECT_EQ("Factory one", Name(e, 0));
        ASSERT_TRUE(e.SaveProgram(1, "Mine"));
    }
    AMorvane e(Host);
    e.open(); // the user's bank now wins; the factory table still comes from beside the plug-in
    EXPECT_EQ("Mine", Name(e, 1));
    EXPECT_EQ(1, e.getProgram());
    e.setProgram(0);
    e.ProgramToFactory();
    EXPECT_EQ("Factory one", Name(e, 0));
}

// A bank that is not ours is ignored whole. One of ours that is cut short keeps the records it
// still holds whole, over the factory programs, and never costs the factory table.
TEST_F(Programs, ForeignCorruptAndTruncatedBanks) {
    WriteFactory("Good");
    const auto good = Slurp(factory);
    auto with = [&](size_t at, uint32_t v) {
        auto b = good;
        b[at] = uint8_t(v >> 24), b[at + 1] = uint8_t(v >> 16), b[at + 2] = uint8_t(v >> 8),
        b[at + 3] = uint8_t(v);
        return b;
    };
    ASSERT_EQ(160u + 3072u, good.size());
    auto mine = good;
    const std::string name = "Mine";
    std::copy(name.begin(), name.end() + 1, mine.begin() + 160 + 20); // record 0's name
    struct Case {
        const char* what;
        std::vector<unsigned char> bytes;
        const char* first;    // program 0's name after open
        const char* factory0; // and after a revert to the factory
    };
    for (const Case& c : {
             Case{"foreign ID", with(16, 0x41424344), "Empty", "Empty"},
             Case{"wrong magic", with(0, 0), "Empty", "Empty"}, Case{"empty", {}, "Empty", "Empty"},
             Case{"cut short", {mine.begin(), mine.begin() + 1000}, "Mine", "Good"},
             Case{"cut in its record 0", {mine.begin(), mine.begin() + 190}, "Good", "Good"},
             Case{"header only", {good.begin(), good.begin() + 150}, "Good", "Good"},
             Case{"huge chunk size", with(156, 0xFFFFFFF0), "Good", "Good"},
             Case{"parameter bank", with(8, 0x46784270), "Empty", "Good"}, // "FxBk": not chunks
         }) {
        Spit(UserBank(), c.bytes);
        AMorvane e(Host);
        e.open();
        EXPECT_EQ(c.first, Name(e, 0)) << c.what;
        e.ProgramToFactory();
        EXPECT_EQ(c.factory0, Name(e, 0)) << c.what;
    }
}

TEST_F(Programs, RevertCopyAndSave) {
    AMorvane e(Host);
    e.open();
    e.setProgram(1);
    EXPECT_FALSE(e.IsProgramChanged());
    e.setParameterFormUI(kTime, 150.0f, 0);
    EXPECT_TRUE(e.IsProgramChanged());
    e.ProgramToInitial();
    EXPECT_FALSE(e.IsProgramChanged());
    EXPECT_EQ(1.0f, e.getParameter(kTime));
    EXPECT_GT(gUpdates, 0);

    // copying a record with the same values but another name is no change
    e.setProgram(2);
    char other[] = "Other";
    e.setProgramName(other);
    e.setProgram(1);
    e.CopyPgFrom(2);
    EXPECT_EQ("Other", Name(e, 1));
    EXPECT_FALSE(e.IsProgramChanged());

    // saving the edits of program 1 into slot 3: slot 3 holds them, 1 is back to its reference
    e.setParameterFormUI(kTime, 150.0f, 0);
    ASSERT_TRUE(e.SaveProgram(3, "A"));
    EXPECT_EQ(3, e.getProgram());
    EXPECT_EQ("A", Name(e, 3));
    EXPECT_EQ(1.5f, e.getParameter(kTime));
    EXPECT_FALSE(e.IsProgramChanged());
    e.setProgram(1);
    EXPECT_EQ(1.0f, e.getParameter(kTime));

    e.setParameterFormUI(kTime, 120.0f, 0);
    e.ProgramToAllInitial();
    EXPECT_EQ(1.0f, e.getParameter(kTime));
    e.ProgramToAllFactory(); // deliberately nothing
    EXPECT_EQ("A", Name(e, 3));
}

TEST_F(Programs, NamesAreKeptByteForByte) {
    AMorvane e(Host);
    e.open();
    const char sjis[] = "\x83\x73\x83\x62\x83\x60\x8F\xE3\x82\xB0"; // Shift-JIS bytes
    e.setProgramName(const_cast<char*>(sjis));
    EXPECT_EQ(sjis, Name(e, 0));
    char longName[] = "abcdefghijklmnopqrstuvwxyz0123";
    e.setProgramName(longName);
    EXPECT_EQ("abcdefghijklmnopqrstuvw", Name(e, 0)); // the first 23
    ASSERT_TRUE(e.SaveProgram(7, sjis));
    AMorvane again(Host);
    again.open();
    EXPECT_EQ(sjis, Name(again, 7));
}

TEST_F(Programs, AFailedSaveKeepsTheOldBank) {
    AMorvane e(Host);
    e.open();
    ASSERT_TRUE(e.SaveProgram(0, "Kept"));
    const auto before = Slurp(UserBank());
    // a disk that fills up after 1000 bytes (a file-size limit binds root too): the new bank
    // cannot be written whole, the old one stays as it was, and the user is told
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = 1000;
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
    testing::internal::CaptureStderr();
    const bool saved = e.SaveProgram(1, "Lost");
    const std::string told = testing::internal::GetCapturedStderr();
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_FALSE(saved);
    EXPECT_NE(std::string::npos, told.find(LoadStringResource(20135)));
    EXPECT_EQ(before, Slurp(UserBank()));

    // the host killed while the bank is written, or just before it is named: a process of its
    // own, stopped there by the test switch
    for (const char* point : {"write", "name"}) {
        const pid_t child = fork();
        ASSERT_LE(0, child);
        if (child == 0) {
            setenv("MORVANE_TEST_STOP", point, 1);
            e.SaveProgram(2, "Killed");
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, WUNTRACED));
        EXPECT_TRUE(WIFSTOPPED(status)) << point;
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        EXPECT_EQ(before, Slurp(UserBank())) << point;
        EXPECT_EQ(1, std::distance(fs::directory_iterator(prefs), {})) << point;
    }
}

} // namespace
