// The effect's operations that no host opcode reaches: the panel's two setters, the meters, the
// over flag, and how open() finds the plug-in's folder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "AMorvane.h"
#include "CStringResource.h"
#include "MorvaneParameters.h"

using namespace MorvaneParameters;

namespace {

const char* gDirectory = nullptr;
int gEndEdits = 0;

VstIntPtr Host(AEffect*, VstInt32 opcode, VstInt32, VstIntPtr, void*, float) {
    if (opcode == audioMasterVersion)
        return 2400;
    if (opcode == audioMasterGetDirectory)
        return reinterpret_cast<VstIntPtr>(gDirectory);
    if (opcode == audioMasterEndEdit)
        ++gEndEdits;
    return 0;
}

std::string Display(AMorvane& e, int index) {
    char text[64] = {};
    e.getParameterDisplay(index, text);
    return text;
}

struct Effect : ::testing::Test {
    AMorvane e{Host};
    void SetUp() override {
        gDirectory = nullptr;
        e.open();
    }
};

TEST_F(Effect, TypedValuesKeepTheBoundAndTellTheHost) {
    gEndEdits = 0;
    e.setParameterFromDiaplay(kOutput, 10.0f); // gain 2.0 at most, but the level shows as typed
    EXPECT_EQ(1.0f, e.getParameter(kOutput));
    EXPECT_EQ("10.0", Display(e, 1));
    EXPECT_EQ(1, gEndEdits);

    e.setParameterFromDiaplay(kTime, 150.0f);
    EXPECT_EQ(1.5f, e.getParameter(kTime));
    EXPECT_EQ("150.00", Display(e, 3));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    e.setParameterFromDiaplay(kPitch, 700.0f); // 1.498 x 1.5 > 2: refused, lowered to 2 / 1.5
    EXPECT_EQ("error0\n", testing::internal::GetCapturedStdout());
    EXPECT_NE(std::string::npos,
              testing::internal::GetCapturedStderr().find(LoadStringResource(20200)));
    EXPECT_FLOAT_EQ(2.0f / 1.5f, e.getParameter(kPitch));
    EXPECT_EQ("498.0", Display(e, 2));
    EXPECT_EQ(2, gEndEdits); // not for the refused value

    e.setParameterFromDiaplay(kTime, 100.0f);
    e.setParameterFromDiaplay(kPitch, 600.0f); // 1.414 x 1.0: allowed
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    e.setParameterFromDiaplay(kTime, 190.0f);
    EXPECT_EQ("error1\n", testing::internal::GetCapturedStdout());
    testing::internal::GetCapturedStderr();
    EXPECT_FLOAT_EQ(2.0f / std::pow(1.0005778074264526f, 600.0f), e.getParameter(kTime));

    // the switches and unknown indexes change nothing here, but still end the host's edit
    gEndEdits = 0;
    for (int index : {0, 4, 7})
        e.setParameterFromDiaplay(index, 0.0f);
    EXPECT_EQ(1.0f, e.getParameter(kOnOff));
    EXPECT_EQ(3, gEndEdits);
}

TEST_F(Effect, PanelControlsWriteTheProgramButNotTheHost) {
    gEndEdits = 0;
    e.setParameterFormUI(kTime, 150.0f, 0);
    e.setParameterFormUI(kPitch, -1200.0f, 0);
    EXPECT_EQ(0.5f, e.getParameter(kPitch));
    // the program record now holds both rates: switching away and back restores them
    e.setProgram(1);
    EXPECT_EQ(1.0f, e.getParameter(kTime));
    e.setProgram(0);
    EXPECT_EQ(1.5f, e.getParameter(kTime));
    EXPECT_EQ(0.5f, e.getParameter(kPitch));
    EXPECT_EQ(0, gEndEdits);

    // the bound on the panel path: a message, the other rate lowered, no stdout line
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    e.setParameterFormUI(kPitch, 1200.0f, 0);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_FALSE(testing::internal::GetCapturedStderr().empty());
    EXPECT_FLOAT_EQ(2.0f / 1.5f, e.getParameter(kPitch));
    // noCheck skips the bound and leaves the engine alone
    e.setParameterFormUI(kPitch, 1200.0f, 1);
    EXPECT_EQ(2.0f, e.getParameter(kPitch));

    e.setParameterFormUI(kOnOff, 0.0f, 0);
    EXPECT_EQ("OFF", Display(e, 0));
    e.setParameterFormUI(kLowSound, 0.0f, 0);
    EXPECT_EQ("OFF", Display(e, 4));
}

TEST_F(Effect, DisplayValuesRoundHalfAwayFromZero) {
    e.setParameterFormUI(kPitch, -12.25f, 1);
    EXPECT_FLOAT_EQ(-12.3f, e.getParameterDisplayVal(kPitch));
    e.setParameterFormUI(kTime, 99.995f, 1);
    EXPECT_FLOAT_EQ(100.0f, e.getParameterDisplayVal(kTime));
    e.setParameterFromDiaplay(kOutput, -3.0f);
    EXPECT_FLOAT_EQ(-3.05f, e.getParameterDisplayVal(kOutput));
}

TEST_F(Effect, MetersFollowEachCallAndOversAreReportedOnce) {
    e.setParameter(kTime, 1.25f);
    e.startProcess();
    e.setTotalSampleToProcess(44100 * 2);
    std::vector<float> in(44100), out0(100000), out1(100000);
    for (int i = 0; i < 44100; ++i)
        in[i] = static_cast<float>(1.5 * std::sin(i * 0.05));
    float* ins[2] = {in.data(), in.data()};
    float* outs[2] = {out0.data(), out1.data()};
    VstInt32 taken = 0, written = 0;
    float m[4];
    VstVariableIo io{ins, outs, 44100, 44100, &taken, &written};
    const uint16_t before = e.ProcessCount();
    e.processVariableIo(&io); // the lead-in: silence
    EXPECT_EQ(static_cast<uint16_t>(before + 1), e.ProcessCount());
    e.GetVU(&m[0], &m[1], &m[2], &m[3]);
    EXPECT_EQ(0.0f, m[2]);
    e.processVariableIo(&io); // the job's last input: audio comes out
    e.GetVU(&m[0], &m[1], &m[2], &m[3]);
    EXPECT_EQ(0.0f, m[0]);
    EXPECT_EQ(0.0f, m[1]);
    EXPECT_GT(m[2], 1.0f);
    EXPECT_GT(m[3], 1.0f);
    // exactly the largest magnitude of what this call put out, on either side
    ASSERT_GT(written, 0);
    float peak = 0.0f;
    for (int i = 0; i < written; ++i)
        peak = std::max(peak, std::fabs(out0[i]));
    EXPECT_EQ(peak, m[2]);
    EXPECT_EQ(peak, m[3]);
    EXPECT_TRUE(e.GetClip());
    EXPECT_FALSE(e.GetClip());
    e.processVariableIo(nullptr);
    e.GetVU(&m[0], &m[1], &m[2], &m[3]);
    EXPECT_EQ(0.0f, m[2]);
}

TEST_F(Effect, OpenTakesTheFolderOfWhatTheHostNames) {
    struct Case {
        const char* answer;
        const char* folder;
    };
    for (Case c : {Case{"/opt/vst/Morvane.so", "/opt/vst/"}, Case{"/opt/vst/", "/opt/vst/"},
                   Case{"/", "/"}}) {
        gDirectory = c.answer;
        AMorvane fresh(Host);
        fresh.open();
        EXPECT_STREQ(c.folder, fresh.PluginDirectory());
    }
    // no answer: the folder of the loaded object that holds the effect's code
    gDirectory = nullptr;
    AMorvane fresh(Host);
    fresh.open();
    const std::string dir = fresh.PluginDirectory();
    ASSERT_FALSE(dir.empty());
    EXPECT_EQ('/', dir.back());
}

TEST(StringResources, EnglishOrJapaneseByLocale) {
    // chosen once per process; this process runs with the test environment's locale
    const std::string text = LoadStringResource(20200);
    ASSERT_FALSE(text.empty());
    const char* all = std::getenv("LC_ALL");
    const char* lang = std::getenv("LANG");
    const bool japanese = (all && *all) ? std::string(all).rfind("ja", 0) == 0
                                        : lang && std::string(lang).rfind("ja", 0) == 0;
    const bool ascii = std::all_of(text.begin(), text.end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    EXPECT_EQ(!japanese, ascii) << text;
    EXPECT_FALSE(std::string(LoadStringResource(20135)).empty());
    EXPECT_STREQ("", LoadStringResource(1));
}

} // namespace
