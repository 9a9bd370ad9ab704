#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "MorvaneParameters.h"
#include "support/HostJob.h"
#include "support/PluginHost.h"
#include "support/Signals.h"

using namespace MorvaneParameters;

namespace {

TEST(PluginEntry, RecordAsAHostSeesIt) {
    PluginHost host(MORVANE_PLUGIN);
    const AEffect* e = host.effect;
    ASSERT_NE(nullptr, e);
    EXPECT_EQ(kEffectMagic, e->magic);
    EXPECT_EQ(64, e->numPrograms);
    EXPECT_EQ(5, e->numParams);
    EXPECT_EQ(2, e->numInputs);
    EXPECT_EQ(2, e->numOutputs);
    EXPECT_EQ(effFlagsHasEditor | effFlagsCanReplacing | effFlagsProgramChunks, e->flags);
    ERect* rect = nullptr; // the panel's size, before it is open
    ASSERT_EQ(1, host.Dispatch(effEditGetRect, 0, 0, &rect));
    EXPECT_EQ(0, rect->top);
    EXPECT_EQ(0, rect->left);
    EXPECT_EQ(214, rect->bottom);
    EXPECT_EQ(480, rect->right);
    EXPECT_EQ(44100, e->initialDelay);
    EXPECT_EQ(0, e->realQualities);
    EXPECT_EQ(0, e->offQualities);
    EXPECT_EQ(1.0f, e->ioRatio);
    EXPECT_EQ(0x517A7668, e->uniqueID); // "Qzvh"
    EXPECT_EQ(1, e->version);
    EXPECT_NE(nullptr, e->processReplacing);
    EXPECT_NE(reinterpret_cast<void*>(e->process), reinterpret_cast<void*>(e->processReplacing));
    EXPECT_EQ(0, e->resvd1);
    EXPECT_EQ(0, e->resvd2);
}

// What this process has mapped of a library whose path contains name.
bool Mapped(const std::string& name) {
    std::ifstream maps("/proc/self/maps");
    const std::string all{std::istreambuf_iterator<char>(maps), {}};
    return all.find(name) != std::string::npos;
}

TEST(PluginEntry, PanelLibraryLoadsOnlyWithTheEditor) {
    const Signals::Planar in = Signals::Split(Signals::Music(44100, 44100));
    const auto render = [&](PluginHost& host) {
        host.Set(kTime, 0.75f);
        return HostJob::Run(host, in, 44100, HostJob::Fixed(4096, 1 << 17)).out;
    };
    // A render loads neither the panel nor a window library (unless an earlier test in this
    // process opened the panel, which stays loaded).
    const bool loadedBefore = Mapped("Morvane.panel");
    PluginHost host(MORVANE_PLUGIN);
    const Signals::Planar rendered = render(host);
    ASSERT_GT(rendered.size(), in.size() / 2);
    if (!loadedBefore) {
        EXPECT_FALSE(Mapped("Morvane.panel"));
        EXPECT_FALSE(Mapped("libX11"));
        EXPECT_FALSE(Mapped("libcairo"));
    }

    // Without the panel beside it the plug-in says it has no editor, and renders the same.
    namespace fs = std::filesystem;
    const fs::path alone = fs::path(testing::TempDir()) / "alone";
    fs::create_directories(alone);
    fs::copy_file(MORVANE_PLUGIN, alone / "Morvane.so", fs::copy_options::overwrite_existing);
    {
        PluginHost bare((alone / "Morvane.so").string());
        ASSERT_NE(nullptr, bare.effect);
        EXPECT_EQ(0, bare.effect->flags & effFlagsHasEditor);
        ERect* rect = nullptr;
        EXPECT_EQ(0, bare.Dispatch(effEditGetRect, 0, 0, &rect));
        EXPECT_TRUE(render(bare).left == rendered.left);
    }
    fs::remove_all(alone);

    // The first request for the editor loads it.
    ERect* rect = nullptr;
    ASSERT_EQ(1, host.Dispatch(effEditGetRect, 0, 0, &rect));
    EXPECT_TRUE(Mapped("Morvane.panel"));
}

TEST(PluginEntry, OldNameAndOldHosts) {
    PluginHost viaMain(MORVANE_PLUGIN, "main");
    ASSERT_NE(nullptr, viaMain.effect);
    EXPECT_EQ(0x517A7668, viaMain.effect->uniqueID);

    // a host that does not answer the version request, or gives no callback, gets nothing
    PluginHost::hostVersion = 0;
    EXPECT_EQ(nullptr, viaMain.EntryPoint()(&PluginHost::Callback));
    PluginHost::hostVersion = 2400;
    EXPECT_EQ(nullptr, viaMain.EntryPoint()(nullptr));
}

TEST(PluginEntry, NamesCategoryAndCapabilities) {
    PluginHost host(MORVANE_PLUGIN);
    EXPECT_EQ("Morvane", host.Text(effGetEffectName));
    EXPECT_EQ("KORVELLE Co.,Ltd.", host.Text(effGetVendorString));
    EXPECT_EQ("Morvane", host.Text(effGetProductString));
    EXPECT_EQ(1000, host.Dispatch(effGetVendorVersion));
    EXPECT_EQ(9, host.Dispatch(effGetPlugCategory));
    EXPECT_EQ(2300, host.Dispatch(effGetVstVersion));

    auto canDo = [&](const char* text) {
        return host.Dispatch(effCanDo, 0, 0, const_cast<char*>(text));
    };
    for (const char* no : {"sendVstEvents", "sendVstMidiEvent", "receiveVstEvents",
                           "receiveVstMidiEvent", "receiveVstTimeInfo", "midiProgramNames"})
        EXPECT_EQ(-1, canDo(no)) << no;
    EXPECT_EQ(1, canDo("offline"));
    EXPECT_EQ(1, canDo("bypass"));
    EXPECT_EQ(0, canDo("Bypass")); // case-sensitive
    EXPECT_EQ(0, canDo("plugAsChannelInsert"));
    EXPECT_EQ(0, host.Dispatch(effSetBypass, 0, 1)); // answered yes, kept at the default

    char text[32] = "untouched";
    EXPECT_EQ(0, host.Dispatch(effGetProgramNameIndexed, 64, 0, text));
    EXPECT_STREQ("untouched", text);
    EXPECT_EQ(1, host.Dispatch(effGetProgramNameIndexed, 63, 0, text));
    EXPECT_STREQ("Empty", text); // not opened: the factory bank is not loaded yet
}

TEST(PluginEntry, RealTimeCallsLeaveBuffersAlone) {
    PluginHost host(MORVANE_PLUGIN);
    std::vector<float> a(64, 0.25f), b(64, -3.0f);
    float* in[2] = {a.data(), a.data()};
    float* out[2] = {b.data(), b.data()};
    host.effect->processReplacing(host.effect, in, out, 64);
    host.effect->process(host.effect, in, out, 64);
    EXPECT_EQ(std::vector<float>(64, -3.0f), b);
}

TEST(PluginEntry, OpenFindsThePluginsFolder) {
    PluginHost host(MORVANE_PLUGIN);
    // before open: a fresh table
    EXPECT_EQ("Empty", host.Text(effGetProgramName));
    host.Dispatch(effOpen);
    // the host gave no directory: the factory bank beside the loaded file was found and loaded
    EXPECT_EQ("Original", host.Text(effGetProgramName));
    char name[64];
    EXPECT_EQ(1, host.Dispatch(effGetProgramNameIndexed, 45, 0, name));
    EXPECT_STREQ("Double speed", name);
}

TEST(PluginParameters, NamesLabelsAndDisplays) {
    PluginHost host(MORVANE_PLUGIN);
    host.Dispatch(effOpen);
    const char* names[] = {"ON/OFF", "Output", "Pitch", "Time", "LowSound"};
    const char* labels[] = {"", "dB", "cent", "%", ""};
    const char* displays[] = {"ON", "0.0", "0.0", "100.00", "ON"};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(names[i], host.Text(effGetParamName, i));
        EXPECT_EQ(labels[i], host.Text(effGetParamLabel, i));
        EXPECT_EQ(displays[i], host.Text(effGetParamDisplay, i)) << i;
    }
    EXPECT_EQ(1.0f, host.Get(kOnOff)); // a fresh effect is active
    EXPECT_NEAR(0.49975, host.Get(kOutput), 1e-5);
    EXPECT_EQ(0.0f, host.Get(7));
    EXPECT_EQ("", host.Text(effGetParamName, 7));
    EXPECT_EQ("", host.Text(effGetParamDisplay, -1));
}

TEST(PluginParameters, HostPathConversionsAndBound) {
    PluginHost host(MORVANE_PLUGIN);
    host.Dispatch(effOpen);

    host.Set(kOnOff, 0.5f); // truncated: off
    EXPECT_EQ("OFF", host.Text(effGetParamDisplay, kOnOff));
    host.Set(kOnOff, 1.0f);
    EXPECT_EQ("ON", host.Text(effGetParamDisplay, kOnOff));

    host.Set(kPitch, 0.1f); // clamped to 0.5
    EXPECT_EQ(0.5f, host.Get(kPitch));
    EXPECT_EQ("-1200.0", host.Text(effGetParamDisplay, kPitch));

    host.Set(kPitch, 1.0f);
    host.Set(kTime, 1.5f);
    EXPECT_EQ("150.00", host.Text(effGetParamDisplay, kTime));
    host.Set(kPitch, 2.0f); // 2.0 x 1.5 breaks the bound: lowered to 2 / 1.5, silently
    EXPECT_FLOAT_EQ(1.3333334f, host.Get(kPitch));
    EXPECT_EQ("498.0", host.Text(effGetParamDisplay, kPitch));
    host.Set(kTime, 2.0f); // and the same from the other side
    EXPECT_FLOAT_EQ(1.5f, host.Get(kTime));

    // output: 6 dB per doubling, normalised over a gain of 0.001 to 2
    host.Set(kOutput, 1.0f);
    EXPECT_EQ("6.0", host.Text(effGetParamDisplay, kOutput));
    host.Set(kOutput, 0.0f);
    EXPECT_EQ("-59.8", host.Text(effGetParamDisplay, kOutput));
    // a level of -0.04 is shown as 0.0, not -0.0
    const float n = (std::pow(2.0f, -0.04f / 6) - 0.001f) / 1.999f;
    host.Set(kOutput, n);
    EXPECT_EQ("0.0", host.Text(effGetParamDisplay, kOutput));

    host.Set(kLowSound, 0.0f);
    EXPECT_EQ("OFF", host.Text(effGetParamDisplay, kLowSound));

    // NaN from a host changes nothing that matters for the audio
    host.Set(kPitch, NAN);
    host.Set(kOutput, NAN);
    EXPECT_EQ("-59.8", host.Text(effGetParamDisplay, kOutput));
}

// A pair at the bound that the plug-in stored (2 / 1.5 with 1.5) is accepted again when a preset
// brings it back, and the engine runs what the host shows.
TEST(PluginParameters, APairStoredAtTheBoundComesBackWhole) {
    PluginHost host(MORVANE_PLUGIN);
    host.Dispatch(effOpen);
    struct {
        float values[5];
        char name[24];
        int32_t current;
    } preset = {{1.0f, 0.5f, 2.0f / 1.5f, 1.5f, 1.0f}, "At the bound", 0};
    static_assert(sizeof(preset) == 48);
    host.Dispatch(effSetChunk, 1, sizeof(preset), &preset);
    EXPECT_EQ(2.0f / 1.5f, host.Get(kPitch));
    EXPECT_EQ(1.5f, host.Get(kTime));
    const Signals::Planar in = Signals::Split(Signals::Music(44100, 44100));
    const auto job = HostJob::Run(host, in, 44100, HostJob::Fixed(8192, 8192));
    EXPECT_NEAR(44100 * 1.5 + 44100, job.out.size(), 441); // at time 1.0: 88200
}

TEST(PluginParameters, SuspendAndResumeMirrorOnOff) {
    PluginHost host(MORVANE_PLUGIN);
    host.Dispatch(effMainsChanged, 0, 0);
    EXPECT_EQ(0.0f, host.Get(kOnOff));
    host.Dispatch(effMainsChanged, 0, 1);
    EXPECT_EQ(1.0f, host.Get(kOnOff));
}

} // namespace
