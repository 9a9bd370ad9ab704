// morvane: renders audio files through the Morvane plug-in, the way a VST 2.4 offline host does,
// and shows what a plug-in file holds.
#include <CLI/CLI.hpp>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "AudioReader.h"
#include "AudioWriter.h"
#include "BankTool.h"
#include "DemoSong.h"
#include "PanelHost.h"
#include "ProgressBar.h"
#include "RenderJob.h"
#include "VstPlugin.h"

namespace {

enum ExitCode {
    kOk = 0,
    kSomeFailed = 1,
    kUsage = 2,
    kBadInput = 3,
    kBadOutput = 4,
    kBadPlugin = 5,
    kInterrupted = 130,
};

void OnSignal(int) {
    AudioWriter::RemoveAllTemporary();
    const char msg[] = "\nmorvane: interrupted; no partial output was left\n";
    (void)!write(2, msg, sizeof(msg) - 1);
    _exit(kInterrupted);
}

int Fail(int code, const std::string& message) {
    std::fprintf(stderr, "morvane: %s\n", message.c_str());
    return code;
}

const std::map<std::string, int> kContainers = {
    {"wav", SF_FORMAT_WAV}, {"aiff", SF_FORMAT_AIFF}, {"flac", SF_FORMAT_FLAC},
    {"ogg", SF_FORMAT_OGG}, {"caf", SF_FORMAT_CAF},   {"w64", SF_FORMAT_W64},
    {"au", SF_FORMAT_AU},   {"rf64", SF_FORMAT_RF64},
};
const std::map<std::string, int> kDepths = {
    {"8", SF_FORMAT_PCM_U8},  {"16", SF_FORMAT_PCM_16},   {"24", SF_FORMAT_PCM_24},
    {"32", SF_FORMAT_PCM_32}, {"float", SF_FORMAT_FLOAT}, {"double", SF_FORMAT_DOUBLE},
};

std::string Extension(int container) {
    for (const auto& [name, value] : kContainers)
        if (value == container)
            return name;
    return "wav";
}

std::string BaseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

void WarnIfClipping(const std::string& output, const RenderResult& r, double levelDb,
                    bool floatFormat) {
    if (r.peak <= 1.0f)
        return;
    const double dbfs = 20 * std::log10(r.peak);
    // the plug-in's level is 6 per doubling: the peak's ratio in its units, rounded down
    const double suggest = std::floor((levelDb - 6 * std::log2(r.peak)) * 10) / 10;
    std::fprintf(
        stderr, "morvane: warning: %s clips (peak %+.1f dBFS). Render again with --level %.1f%s\n",
        output.c_str(), dbfs, suggest, floatFormat ? "" : ", or keep the peaks with --bits float");
}

int ErrorCode(const std::exception& e) {
    if (dynamic_cast<const UsageError*>(&e))
        return kUsage;
    if (dynamic_cast<const InputError*>(&e))
        return kBadInput;
    if (dynamic_cast<const OutputError*>(&e))
        return kBadOutput;
    if (dynamic_cast<const PluginError*>(&e))
        return kBadPlugin;
    return kSomeFailed;
}

void PrintInfo(const VstPlugin& p) {
    const AEffect* e = p.Effect();
    const VstInt32 id = e->uniqueID;
    char code[5] = {char(id >> 24), char(id >> 16), char(id >> 8), char(id), 0};
    for (char& c : code)
        if (c && (c < 32 || c > 126))
            c = '?';
    static const char* const kCategories[] = {"unknown",     "effect",  "instrument", "analysis",
                                              "mastering",   "spatial", "room",       "surround",
                                              "restoration", "offline", "shell",      "generator"};
    const VstIntPtr category = p.Dispatch(effGetPlugCategory);
    std::printf("Plug-in      %s\n", p.Path().c_str());
    std::printf("Effect       %s\n", p.Text(effGetEffectName).c_str());
    std::printf("Vendor       %s\n", p.Text(effGetVendorString).c_str());
    std::printf("Product      %s\n", p.Text(effGetProductString).c_str());
    std::printf("Version      %ld (vendor), %d (record), VST %ld\n",
                static_cast<long>(p.Dispatch(effGetVendorVersion)), e->version,
                static_cast<long>(p.Dispatch(effGetVstVersion)));
    std::printf("Unique ID    '%s' (0x%08X)\n", code, static_cast<unsigned>(id));
    std::printf("Category     %s\n",
                category >= 0 && category < 12 ? kCategories[category] : "unknown");
    std::printf("Channels     %d in, %d out\n", e->numInputs, e->numOutputs);
    std::printf("Delay        %d frames\n", e->initialDelay);
    std::printf("Flags        %s%s%s%s%s\n", e->flags & effFlagsHasEditor ? "editor " : "",
                e->flags & effFlagsCanReplacing ? "replacing " : "",
                e->flags & effFlagsCanDoubleReplacing ? "double " : "",
                e->flags & effFlagsProgramChunks ? "chunks " : "",
                e->flags & effFlagsIsSynth ? "synth " : "");

    std::printf("\nParameters (%d)\n", e->numParams);
    for (int i = 0; i < e->numParams; ++i)
        std::printf("  %3d  %-24s %12s %-8s (value %.6g)\n", i, p.Text(effGetParamName, i).c_str(),
                    p.Text(effGetParamDisplay, i).c_str(), p.Text(effGetParamLabel, i).c_str(),
                    p.GetParameter(i));

    std::printf("\nPrograms (%d)\n", e->numPrograms);
    for (int i = 0; i < e->numPrograms; ++i) {
        std::vector<char> name(1024, 0);
        if (!p.Dispatch(effGetProgramNameIndexed, i, 0, name.data()))
            break;
        std::printf("  %3d  %s\n", i + 1, name.data());
    }

    std::printf("\nCapabilities\n");
    for (const char* can :
         {"offline", "bypass", "receiveVstEvents", "receiveVstMidiEvent", "sendVstEvents",
          "sendVstMidiEvent", "receiveVstTimeInfo", "midiProgramNames"}) {
        const VstIntPtr answer = p.Dispatch(effCanDo, 0, 0, const_cast<char*>(can));
        std::printf("  %-22s %s\n", can, answer > 0 ? "yes" : answer < 0 ? "no" : "-");
    }
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Morvane: stretch or shorten audio without changing its pitch, transpose it "
                 "without changing its length, or both."};
    app.require_subcommand(1);

    RenderSettings settings;
    std::vector<std::string> files;
    std::string outDir, container, depth, lowSound = "on";
    double semitones = 0;
    int jobs = 1;
    bool quiet = false;
    auto* render =
        app.add_subcommand("render", "Render IN to OUT, or several inputs into a folder");
    render->add_option("files", files, "IN OUT, or IN... with --dir")->required();
    render
        ->add_option("-t,--time", settings.timePercent, "Length in percent of the input, 50 to 200")
        ->capture_default_str();
    auto* cents = render
                      ->add_option("-p,--pitch", settings.pitchCents,
                                   "Transposition in cents, -1200 to +1200")
                      ->capture_default_str();
    render->add_option("-s,--semitones", semitones, "Transposition in semitones, -12 to +12")
        ->excludes(cents);
    render
        ->add_option("-l,--level", settings.outputDb,
                     "Output level in dB, -59.79 to +6 (6 dB per doubling of gain)")
        ->capture_default_str();
    render->add_option("--low-sound", lowSound, "The plug-in's LowSound switch: on or off")
        ->check(CLI::IsMember({"on", "off"}))
        ->capture_default_str();
    render->add_option("-b,--block", settings.blockSize, "Frames per call to the plug-in")
        ->capture_default_str();
    render->add_flag("--keep-latency", settings.keepLatency,
                     "Keep the plug-in's announced delay (silence) at the start");
    render->add_option("-f,--format", container, "Output container (default: the input's)")
        ->check(CLI::IsMember({"wav", "aiff", "flac", "ogg", "caf", "w64", "au", "rf64"}));
    render
        ->add_option("--bits", depth,
                     "Output samples: 8, 16, 24, 32, float or double "
                     "(default: the input's)")
        ->check(CLI::IsMember({"8", "16", "24", "32", "float", "double"}));
    render->add_option("-d,--dir", outDir, "Render every input into this folder");
    render->add_option("-j,--jobs", jobs, "Files rendered at once")->check(CLI::Range(1, 256));
    render->add_option("--plugin", settings.pluginPath, "The plug-in file (default: found)");
    render
        ->add_option("--program", settings.program,
                     "Start from program N (1-64) of the plug-in's bank; other options given "
                     "override it")
        ->check(CLI::Range(1, 64));
    render->add_flag("-q,--quiet", quiet, "No progress bar");

    std::string infoPath;
    auto* info = app.add_subcommand("info", "Show what a VST 2.4 plug-in file holds");
    info->add_option("plugin", infoPath, "Plug-in file (default: Morvane)");

    std::string bankPath, exportPath, importPath;
    auto* bank = app.add_subcommand("bank", "List a bank file's programs, or export or import "
                                            "the plug-in's bank");
    bank->add_option("file", bankPath, "A bank file (.fxb) to list");
    bank->add_option("--export", exportPath, "Write the plug-in's current bank to this .fxb");
    bank->add_option("--import", importPath,
                     "Make this .fxb the user's bank, which the plug-in loads from now on");
    bank->add_option("--plugin", settings.pluginPath, "The plug-in file (default: found)");

    std::string demoPath;
    auto* demo = app.add_subcommand("demo", "Write the 12-second demo piece (stereo, 24-bit WAV)");
    demo->add_option("output", demoPath, "File to write")->required();

    std::vector<std::string> guiFiles;
    int guiProgram = 0;
    auto* gui =
        app.add_subcommand("gui", "Show the plug-in's panel in a window: dial settings, save "
                                  "programs; with IN OUT, render (again with R)");
    gui->add_option("files", guiFiles, "IN OUT to render with the panel's settings")
        ->expected(0, 2);
    gui->add_option("--program", guiProgram, "Start from program N (1-64)")
        ->check(CLI::Range(1, 64));
    gui->add_option("--plugin", settings.pluginPath, "The plug-in file (default: found)");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kOk : kUsage;
    }

    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);

    if (*demo) {
        try {
            const auto song = DemoSong::Render(44100);
            AudioWriter w(demoPath, SF_FORMAT_WAV | SF_FORMAT_PCM_24, 2, 44100);
            w.Write(song.data(), static_cast<sf_count_t>(song.size() / 2));
            w.Commit();
        } catch (const std::exception& e) {
            return Fail(kBadOutput, e.what());
        }
        return kOk;
    }

    if (*gui) {
        if (guiFiles.size() == 1)
            return Fail(kUsage, "gui takes IN and OUT together, or neither");
        if (settings.pluginPath.empty())
            settings.pluginPath = VstPlugin::FindMorvane();
        if (settings.pluginPath.empty())
            return Fail(kBadPlugin, "the Morvane plug-in was not found; name it with --plugin");
        try {
            VstPlugin p(settings.pluginPath);
            p.Dispatch(effOpen);
            p.Dispatch(effMainsChanged, 0, 1);
            if (guiProgram)
                p.Dispatch(effSetProgram, 0, guiProgram - 1);
            return PanelHost(p, settings)
                .Run(guiFiles.empty() ? "" : guiFiles[0], guiFiles.empty() ? "" : guiFiles[1]);
        } catch (const std::exception& e) {
            return Fail(kBadPlugin, e.what());
        }
    }

    if (*info) {
        const std::string path = infoPath.empty() ? VstPlugin::FindMorvane() : infoPath;
        if (path.empty())
            return Fail(kBadPlugin, "the Morvane plug-in was not found; name it with a path");
        try {
            VstPlugin p(path);
            p.Dispatch(effOpen);
            PrintInfo(p);
        } catch (const std::exception& e) {
            return Fail(kBadPlugin, e.what());
        }
        return kOk;
    }

    if (*bank) {
        if (settings.pluginPath.empty())
            settings.pluginPath = VstPlugin::FindMorvane();
        if (settings.pluginPath.empty())
            return Fail(kBadPlugin, "the Morvane plug-in was not found; name it with --plugin");
        if (bankPath.empty() == (exportPath.empty() && importPath.empty()) ||
            (!exportPath.empty() && !importPath.empty()))
            return Fail(kUsage, "bank takes a FILE to list, or --export FILE, or --import FILE");
        try {
            BankTool tool(settings.pluginPath);
            if (!bankPath.empty())
                tool.List(bankPath);
            else if (!exportPath.empty())
                tool.Export(exportPath);
            else
                tool.Import(importPath);
        } catch (const std::exception& e) {
            return Fail(ErrorCode(e), e.what());
        }
        return kOk;
    }

    // render
    if (settings.program) {
        settings.hasTime = render->count("--time") > 0;
        settings.hasPitch = render->count("--pitch") + render->count("--semitones") > 0;
        settings.hasLevel = render->count("--level") > 0;
        settings.hasLowSound = render->count("--low-sound") > 0;
    }
    if (render->count("--semitones"))
        settings.pitchCents = semitones * 100.0;
    settings.lowSound = lowSound == "on";
    if (!container.empty() || !depth.empty()) {
        int c = container.empty() ? 0 : kContainers.at(container);
        int d = depth.empty() ? 0 : kDepths.at(depth);
        if (d == 0 && c == SF_FORMAT_FLAC)
            d = SF_FORMAT_PCM_24;
        if (d == 0 && c == SF_FORMAT_OGG)
            d = SF_FORMAT_VORBIS;
        settings.format = c | d; // a missing half is filled in from the input below
    }
    try {
        settings.Validate();
    } catch (const std::exception& e) {
        return Fail(kUsage, e.what());
    }
    if (settings.pluginPath.empty())
        settings.pluginPath = VstPlugin::FindMorvane();
    if (settings.pluginPath.empty())
        return Fail(kBadPlugin, "the Morvane plug-in was not found; name it with --plugin");

    std::vector<std::pair<std::string, std::string>> work;
    if (outDir.empty()) {
        if (files.size() != 2)
            return Fail(kUsage, "render takes IN OUT, or several inputs with --dir FOLDER");
        work.emplace_back(files[0], files[1]);
    } else {
        for (const auto& f : files) {
            std::string name = BaseName(f);
            if (!container.empty())
                name = name.substr(0, name.rfind('.')) + "." + Extension(kContainers.at(container));
            work.emplace_back(f, outDir + "/" + name);
        }
    }

    std::atomic<size_t> next{0};
    std::mutex report;
    std::vector<std::pair<std::string, int>> failures;
    const bool single = work.size() == 1;
    auto worker = [&] {
        for (size_t i; (i = next++) < work.size();) {
            const auto& [in, out] = work[i];
            RenderSettings s = settings;
            if (s.format) {
                // complete a half-given format from the input's
                try {
                    AudioReader r(in);
                    if (!(s.format & SF_FORMAT_TYPEMASK))
                        s.format |= r.Format() & SF_FORMAT_TYPEMASK;
                    if (!(s.format & SF_FORMAT_SUBMASK))
                        s.format |= r.Format() & SF_FORMAT_SUBMASK;
                } catch (const std::exception&) {
                    // the job itself reports the unreadable input
                }
            }
            try {
                ProgressBar bar(BaseName(in));
                const bool showBar = single && !quiet;
                const RenderResult r = RenderJob(s).Run(in, out, [&](double f) {
                    if (showBar)
                        bar.Update(f);
                });
                std::lock_guard lock(report);
                const int sub = r.format & SF_FORMAT_SUBMASK;
                WarnIfClipping(out, r, s.outputDb,
                               sub == SF_FORMAT_FLOAT || sub == SF_FORMAT_DOUBLE);
                if (!single && !quiet)
                    std::fprintf(stderr, "morvane: %s -> %s\n", in.c_str(), out.c_str());
            } catch (const std::exception& e) {
                std::lock_guard lock(report);
                std::fprintf(stderr, "morvane: %s\n", e.what());
                failures.emplace_back(in, ErrorCode(e));
            }
        }
    };
    std::vector<std::thread> threads;
    for (int t = 1; t < std::min<int>(jobs, static_cast<int>(work.size())); ++t)
        threads.emplace_back(worker);
    worker();
    for (auto& t : threads)
        t.join();

    if (failures.empty())
        return kOk;
    if (single)
        return failures[0].second;
    std::fprintf(stderr, "morvane: %zu of %zu files failed:", failures.size(), work.size());
    for (const auto& f : failures)
        std::fprintf(stderr, " %s", f.first.c_str());
    std::fputc('\n', stderr);
    return kSomeFailed;
}
