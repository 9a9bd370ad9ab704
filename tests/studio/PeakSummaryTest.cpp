// The waves' summary of a file, against the file's samples read here.
#include <gtest/gtest.h>

#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "PeakSummary.h"

namespace {

namespace fs = std::filesystem;

std::string Temp(const std::string& name) {
    return ::testing::TempDir() + "peaks-" + std::to_string(getpid()) + "-" + name;
}

// Writes interleaved samples; the format's subtype from format.
void Write(const std::string& path, const std::vector<float>& v, int channels, int format) {
    SF_INFO info{0, 8000, channels, SF_FORMAT_WAV | format, 0, 0};
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(nullptr, f);
    sf_command(f, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    sf_writef_float(f, v.data(), static_cast<sf_count_t>(v.size()) / channels);
    sf_close(f);
}

std::vector<float> Read(const std::string& path) {
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<float> v(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(f, v.data(), info.frames);
    sf_close(f);
    return v;
}

void WaitRead(const PeakSummary& s) {
    while (!s.Finished())
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

// Each column's lowest and highest sample, loudness and clip mark, from the frames of the bins
// the summary says the column covers.
void ExpectColumnsAsRead(const PeakSummary& s, const std::vector<float>& v, int channels,
                         int columns) {
    const std::vector<PeakSummary::Peak> got = s.Columns(columns);
    ASSERT_EQ(static_cast<size_t>(columns), got.size());
    for (int c = 0; c < columns; ++c) {
        int64_t first = 0, last = 0;
        s.BinsOf(double(c) / columns, double(c + 1) / columns, first, last);
        const size_t from = static_cast<size_t>(first * s.BinFrames() * channels);
        const size_t to = std::min(v.size(), static_cast<size_t>(last * s.BinFrames() * channels));
        const auto [low, high] = std::minmax_element(v.begin() + from, v.begin() + to);
        double squares = 0;
        for (size_t i = from; i < to; ++i)
            squares += double(v[i]) * v[i];
        const PeakSummary::Peak& p = got[static_cast<size_t>(c)];
        ASSERT_TRUE(p.read) << c;
        EXPECT_EQ(*low, p.low) << "column " << c << " of " << columns;
        EXPECT_EQ(*high, p.high) << "column " << c << " of " << columns;
        EXPECT_NEAR(std::sqrt(squares / (to - from)), p.rms, 1e-4) << c;
        EXPECT_EQ(std::max(-*low, *high) >= s.ClipLevel(), p.clips) << c;
    }
}

// A long stereo file, noise with bursts at random places and a few samples at full scale: the
// columns at any width are the file's own, taken from one reading (the file is gone before the
// second width is asked for).
TEST(PeakSummary, ColumnsAreTheSamplesOwnAtAnyWidthFromOneReading) {
    const std::string path = Temp("long.wav");
    constexpr int kChannels = 2;
    const size_t frames = 8000 * 60 * 12; // twelve minutes at 8 kHz
    std::vector<float> v(frames * kChannels);
    std::mt19937 random(7);
    std::uniform_real_distribution<float> noise(-0.1f, 0.1f);
    for (float& x : v)
        x = noise(random);
    for (int burst = 0; burst < 40; ++burst) {
        const size_t at = random() % (frames - 400);
        for (size_t i = 0; i < 400; ++i)
            v[(at + i) * kChannels + burst % 2] *= 9;
    }
    v[frames / 3 * kChannels] = 1.0f;
    v[frames / 2 * kChannels + 1] = -1.0f;
    Write(path, v, kChannels, SF_FORMAT_PCM_16);
    v = Read(path); // as the file holds them

    PeakSummary s(path);
    WaitRead(s);
    fs::remove(path);
    EXPECT_EQ("", s.Error());
    EXPECT_EQ(static_cast<int64_t>(frames), s.Frames());
    EXPECT_EQ(8000, s.SampleRate());
    EXPECT_DOUBLE_EQ(720.0, s.Seconds());
    EXPECT_LE(s.Bins(), PeakSummary::kMaxBins);
    EXPECT_EQ(32767.0f / 32768, s.ClipLevel()) << "16 bits clip at their top code";
    EXPECT_EQ(1.0, s.Progress());
    for (int columns : {1, 97, 733, 1920})
        ExpectColumnsAsRead(s, v, kChannels, columns);
    EXPECT_TRUE(s.Span(0, s.Bins()).clips) << "the 16-bit file reaches full scale";
}

// A short float file: bins of a few frames, more columns than bins, samples beyond 1 marked and
// those just below not; a file that is not audio says why.
TEST(PeakSummary, ShortFloatFileAndNoAudio) {
    const std::string path = Temp("short.wav");
    std::vector<float> v(100);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = 0.99f * std::sin(i * 0.3f);
    v[70] = 1.5f;
    Write(path, v, 1, SF_FORMAT_FLOAT);
    PeakSummary s(path);
    WaitRead(s);
    EXPECT_EQ(PeakSummary::kMinBinFrames, s.BinFrames());
    ExpectColumnsAsRead(s, v, 1, 7);
    ExpectColumnsAsRead(s, v, 1, 300);
    EXPECT_FALSE(s.Span(0, 4).clips) << "0.99 is no clip in a float file";
    EXPECT_TRUE(s.Span(4, 5).clips) << "the bin of the sample beyond 1";

    std::ofstream(path) << "not audio at all, only text";
    PeakSummary text(path);
    WaitRead(text);
    EXPECT_NE("", text.Error());
    EXPECT_FALSE(text.Columns(5).front().read);
    PeakSummary missing(Temp("missing.wav"));
    WaitRead(missing);
    EXPECT_NE("", missing.Error());
    fs::remove(path);
}

} // namespace
