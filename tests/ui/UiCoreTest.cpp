#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "CFile.h"
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

} // namespace
