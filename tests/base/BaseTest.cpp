#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "CFile.h"
#include "CSjis.h"
#include "CString.h"

namespace {

TEST(CString, PathsAndFormatting) {
    CString path("/usr/lib/vst/Morvane.so");
    const int slash = path.ReverseFind('/');
    EXPECT_EQ(12, slash);
    EXPECT_TRUE(path.Left(slash + 1) == "/usr/lib/vst/");
    EXPECT_TRUE(path.Left(99) == "/usr/lib/vst/Morvane.so");
    EXPECT_TRUE(path.Left(-3).IsEmpty());
    EXPECT_EQ(-1, CString("Morvane.so").ReverseFind('/'));
    CString bank = path.Left(slash + 1) + "Morvane.fxb";
    EXPECT_STREQ("/usr/lib/vst/Morvane.fxb", bank);
    CString f;
    f.Format("bmp%05d", 5012);
    EXPECT_STREQ("bmp05012", f);
    f.Format("%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(5000, f.GetLength());
    // bytes are kept as given, Shift-JIS included
    CString sjis("\x83\x65\x83\x93\x83\x7c");
    EXPECT_EQ(6, sjis.GetLength());
    EXPECT_EQ('\x83', sjis.GetAt(0));
    EXPECT_TRUE(CString(nullptr).IsEmpty());
}

struct TempDir : ::testing::Test {
    std::string dir;
    void SetUp() override {
        char name[] = "/tmp/morvane-ui-XXXXXX";
        dir = mkdtemp(name);
    }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }
};

TEST_F(TempDir, FileRoundTripAndSeek) {
    const std::string path = dir + "/bank.fxb";
    CFile out;
    ASSERT_TRUE(out.Open(path.c_str(), CFile::modeCreate | CFile::modeWrite));
    const char data[] = "CcnK\0\0\0\0FBCh";
    ASSERT_TRUE(out.Write(data, sizeof(data)));
    EXPECT_TRUE(out.Flush());
    EXPECT_TRUE(out.Close());

    CFile in;
    ASSERT_TRUE(in.Open(path.c_str(), CFile::modeRead));
    EXPECT_EQ(static_cast<int64_t>(sizeof(data)), in.GetLength());
    char magic[4];
    EXPECT_EQ(4u, in.Read(magic, 4));
    EXPECT_EQ(0, std::memcmp(magic, "CcnK", 4));
    EXPECT_EQ(8, in.Seek(4, CFile::current));
    EXPECT_EQ(4u, in.Read(magic, 4));
    EXPECT_EQ(0, std::memcmp(magic, "FBCh", 4));
    char rest[100];
    EXPECT_EQ(1u, in.Read(rest, 100)); // only the terminator is left: a short read
    EXPECT_EQ(0u, in.Read(rest, 100));
}

TEST_F(TempDir, FailuresAreReported) {
    CFile f;
    EXPECT_FALSE(f.Open((dir + "/missing").c_str(), CFile::modeRead));
    EXPECT_FALSE(f.Open((dir + "/no/such/folder/x").c_str(), CFile::modeCreate | CFile::modeWrite));
    EXPECT_FALSE(f.Open(nullptr, CFile::modeRead));
    char buf[8];
    EXPECT_EQ(0u, f.Read(buf, 8));
    EXPECT_FALSE(f.Write(buf, 8));
    EXPECT_EQ(-1, f.Seek(0, CFile::begin));
    // a full disk
    ASSERT_TRUE(f.Open("/dev/full", CFile::modeWrite));
    EXPECT_FALSE(f.Write("x", 1));
}

// Program names are Shift-JIS (code page 932) and shown as UTF-8; a name is stored in 23 bytes
// and never ends in half a character.
TEST(ShiftJis, RoundTripsAndCuts) {
    const char* names[] = {"Double speed", "ピッチ+3半音", "C:\\bank", "①②③ＡＢＣ", ""};
    for (const char* utf8 : names) {
        char sjis[64];
        UTF8ToSJSINS(utf8, sjis, sizeof(sjis));
        EXPECT_STREQ(utf8, CheckSJISAndToUFT8(sjis)) << utf8;
    }
    char sjis[24];
    UTF8ToSJSINS("C:\\", sjis, sizeof(sjis));
    EXPECT_STREQ("C:\\", sjis) << "0x5C stays a backslash";
    UTF8ToSJSINS("①", sjis, sizeof(sjis));
    EXPECT_STREQ("\x87\x40", sjis) << "NEC row 13";

    // 22 single bytes and then a double-byte character: the cut falls before it
    EXPECT_EQ(22, UTF8ToSJSINS("abcdefghijklmnopqrstuvあ", sjis, 24));
    EXPECT_STREQ("abcdefghijklmnopqrstuv", sjis);
    EXPECT_EQ(23, UTF8ToSJSINS("abcdefghijklmnopqrstuvwxyz", sjis, 24));
    EXPECT_TRUE(IsDBCSLeadByte(0x83) && IsDBCSLeadByte(0xE0) && !IsDBCSLeadByte('a') &&
                !IsDBCSLeadByte(0xA0));
    // what cannot be converted is marked, never a failure
    EXPECT_STREQ("a?b", (UTF8ToSJSINS("a😀b", sjis, 24), sjis));
    EXPECT_STREQ("x\xEF\xBF\xBD", CheckSJISAndToUFT8("x\xFF"));
}

} // namespace
