#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "CAsyncReader.h"
#include "CAsyncWriter.h"
#include "CChunkFile.h"
#include "CFileType.h"

namespace {

std::string Bytes(std::initializer_list<int> b) {
    std::string s;
    for (int c : b)
        s += static_cast<char>(c);
    return s;
}

CFileType::Kind Of(const std::string& s) {
    return CFileType::OfBytes(reinterpret_cast<const unsigned char*>(s.data()), s.size());
}
// A literal whole, zero bytes and all.
template <size_t N> CFileType::Kind Of(const char (&s)[N]) {
    return Of(std::string(s, N - 1));
}

TEST(FileType, KnownByContentsNotByName) {
    EXPECT_EQ(CFileType::Wav, Of("RIFF\x24\0\0\0WAVEfmt "));
    EXPECT_EQ(CFileType::Aiff, Of("FORM\0\0\0\0AIFC"));
    EXPECT_EQ(CFileType::Flac, Of("fLaC\0\0\0\x22"));
    EXPECT_EQ(CFileType::Mp3, Of("ID3\x04\0\0\0\0\0\0"));
    EXPECT_EQ(CFileType::Mp3, Of(Bytes({0xFF, 0xFB, 0x90, 0x64})));
    EXPECT_EQ(CFileType::Unknown, Of(Bytes({0xFF, 0xFF, 0xF0, 0x64}))); // reserved layer bits
    EXPECT_EQ(CFileType::Mpeg4Audio, Of("\0\0\0\x20"
                                        "ftypM4A "));
    EXPECT_EQ(CFileType::Png, Of("\x89PNG\r\n\x1A\n\0\0"));
    EXPECT_EQ(CFileType::Empty, Of(""));
    EXPECT_EQ(CFileType::Unknown, Of("plain words"));
    EXPECT_TRUE(CFileType::IsReadableAudio(CFileType::Mp3));
    EXPECT_FALSE(CFileType::IsReadableAudio(CFileType::Mpeg4Audio));
    EXPECT_TRUE(CFileType::IsAudio(CFileType::Mpeg4Audio));

    EXPECT_EQ(CFileType::Folder, CFileType::OfFile("/tmp"));
    EXPECT_EQ(CFileType::Missing, CFileType::OfFile("/tmp/no/such/file.wav"));
}

// A WAV whose header promises more frames than it holds, and an AIFF, both as a chunk list.
TEST(ChunkFile, HeaderPromisesAgainstWhatIsThere) {
    const std::string path = "/tmp/morvane-chunks-" + std::to_string(getpid());
    const auto le32 = [](uint32_t v) {
        return std::string{char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
    };
    std::string fmt = le32(16) + std::string("\x01\0\x02\0", 4) + le32(44100) + le32(176400) +
                      std::string("\x04\0\x10\0", 4);
    std::ofstream(path, std::ios::binary)
        << "RIFF" << le32(36 + 4000) << "WAVEfmt " << fmt << "data" << le32(4000)
        << std::string(1000, '\0'); // 250 of the 1000 frames promised
    CChunkFile wav;
    ASSERT_TRUE(wav.Open(path));
    EXPECT_EQ("WAVE", wav.Form());
    ASSERT_EQ(2u, wav.Chunks().size());
    EXPECT_EQ(4000u, wav.Find("data")->declared);
    EXPECT_EQ(1000u, wav.Find("data")->available);
    EXPECT_EQ(1000u, wav.DeclaredFrames());
    EXPECT_EQ(250u, wav.AvailableFrames());

    // AIFF: COMM gives the frames, SSND begins with 8 bytes of offset and block size
    const std::string comm = std::string("\0\x01", 2) + std::string("\0\0\0\x64", 4) +
                             std::string("\0\x10", 2) + std::string(10, '\0');
    std::ofstream(path, std::ios::binary)
        << "FORM" << std::string("\0\0\0\x60", 4) << "AIFFCOMM" << std::string("\0\0\0\x12", 4)
        << comm << "SSND" << std::string("\0\0\0\xD0", 4) << std::string(8 + 100, '\0');
    CChunkFile aiff;
    ASSERT_TRUE(aiff.Open(path));
    EXPECT_EQ(100u, aiff.DeclaredFrames());
    EXPECT_EQ(50u, aiff.AvailableFrames());

    std::ofstream(path) << "not chunks";
    EXPECT_FALSE(CChunkFile().Open(path));
    std::remove(path.c_str());
}

// Frames in order and whole through both pipes, in sizes that do not match the blocks, and a
// failure on either side reaching the caller.
TEST(AsyncIo, FramesPassWholeAndFailuresReachTheCaller) {
    // (from two blocks, where the threads wait for each, to six, where they rest for five)
    for (int blocks : {2, 3, 6}) {
        const long total = 100003;
        long made = 0;
        CAsyncReader reader(
            [&](float* f, long n) {
                const long k = std::min({n, total - made, 777L});
                for (long i = 0; i < k; ++i, ++made)
                    f[2 * i] = f[2 * i + 1] = static_cast<float>(made);
                return k;
            },
            2, 4096, blocks);
        std::vector<float> got;
        CAsyncWriter writer([&](const float* f, long n) { got.insert(got.end(), f, f + 2 * n); }, 2,
                            1000, blocks);
        std::vector<float> buf(2 * 5000);
        long read = 0;
        for (long n; (n = reader.Read(buf.data(), 1 + read % 4999)) > 0; read += n)
            writer.Write(buf.data(), n);
        writer.Finish();
        EXPECT_EQ(total, read) << blocks;
        ASSERT_EQ(static_cast<size_t>(2 * total), got.size()) << blocks;
        for (long i = 0; i < total; ++i)
            ASSERT_EQ(static_cast<float>(i), got[2 * i + 1]) << i << " " << blocks;
    }

    std::atomic<int> calls{0};
    CAsyncReader failing(
        [&](float*, long n) {
            if (calls++ == 3)
                throw std::runtime_error("disk gone");
            return n;
        },
        1, 100, 2);
    std::vector<float> one(100);
    EXPECT_EQ(100, failing.Read(one.data(), 100));
    EXPECT_THROW(
        {
            while (failing.Read(one.data(), 100) > 0) {
            }
        },
        std::runtime_error);

    CAsyncWriter full([](const float*, long) { throw std::runtime_error("disk full"); }, 1, 10, 2);
    EXPECT_THROW(
        {
            for (int i = 0; i < 100; ++i)
                full.Write(one.data(), 10);
            full.Finish();
        },
        std::runtime_error);
}

} // namespace
