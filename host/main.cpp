// morvane: renders audio files through the Morvane plug-in, the way a VST 2.4 offline host does,
// and shows what a plug-in file holds.
#include <CLI/CLI.hpp>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "AudioReader.h"
#include "AudioWriter.h"
#include "BankTool.h"
#include "CChunkFile.h"
#include "CFileType.h"
#include "CommandDocs.h"
#include "DemoSong.h"
#include "MorvaneEngine.h"
#include "OutputFormat.h"
#include "PanelHost.h"
#include "ProgressBar.h"
#include "RenderJob.h"
#include "SettingText.h"
#include "VstPlugin.h"

namespace fs = std::filesystem;

namespace {

enum ExitCode {
    kOk = 0,
    kSomeFailed = 1,
    kUsage = 2,
    kBadInput = 3,
    kBadOutput = 4,
    kBadPlugin = 5,
};

// Interrupted (Ctrl-C, or a service manager's SIGTERM): 128 + the signal, as shells report it.
void OnSignal(int sig) {
    AudioWriter::RemoveAllTemporary();
    const char msg[] = "\nmorvane: interrupted; no partial output was left\n";
    (void)!write(2, msg, sizeof(msg) - 1);
    _exit(128 + sig);
}

int Fail(int code, const std::string& message) {
    std::fprintf(stderr, "morvane: %s\n", message.c_str());
    return code;
}

std::string BaseName(const std::string& path) {
    return fs::path(path).filename().string();
}

// A folder and a name joined as a person writes them: "out/a.wav" for "out/" and "a.wav".
std::string Join(std::string folder, const std::string& name) {
    while (folder.size() > 1 && folder.back() == '/')
        folder.pop_back();
    return folder == "/" ? "/" + name : folder + "/" + name;
}

// The plug-in to use: the one named, else Morvane's found. Throws PluginError.
std::string PluginPath(const std::string& named) {
    if (!named.empty())
        return named;
    std::string found;
    try {
        found = VstPlugin::FindMorvane();
    } catch (const std::exception& e) {
        throw PluginError(e.what());
    }
    if (found.empty())
        throw PluginError("the Morvane plug-in was not found; name it with --plugin");
    return found;
}

void WarnIfClipping(const std::string& output, const RenderResult& r, double levelDb,
                    bool floatFormat) {
    if (r.peak <= 1.0f)
        return;
    const double dbfs = 20 * std::log10(r.peak);
    // the plug-in's level is 6 per doubling: the peak's ratio in its units, rounded down
    const double suggest = std::floor((levelDb - 6 * std::log2(r.peak)) * 10) / 10;
    if (floatFormat) // float samples keep what lies beyond full scale; nothing was cut
        std::fprintf(stderr,
                     "morvane: note: %s peaks at %+.1f dBFS, above full scale; its float samples "
                     "keep the peaks. For a file that plays without clipping, use --level %.1f\n",
                     output.c_str(), dbfs, suggest);
    else
        std::fprintf(stderr,
                     "morvane: warning: %s clips (peak %+.1f dBFS). Render again with --level "
                     "%.1f, or keep the peaks with --bits float\n",
                     output.c_str(), dbfs, suggest);
}

void WarnIfCutShort(const std::string& input, const RenderResult& r) {
    if (r.missingFrames > 0)
        std::fprintf(stderr,
                     "morvane: warning: %s is cut short: its header promises %lld more frames "
                     "than it holds (%.3f s); rendered the %lld that are there\n",
                     input.c_str(), static_cast<long long>(r.missingFrames),
                     double(r.missingFrames) / r.sampleRate, static_cast<long long>(r.inputFrames));
}

// morvane info FILE for an audio file: what it is and, for one Morvane made, how.
void PrintAudioInfo(const std::string& path) {
    AudioReader r(path);
    static const std::pair<int, const char*> kTags[] = {
        {SF_STR_TITLE, "Title"},       {SF_STR_ARTIST, "Artist"},   {SF_STR_ALBUM, "Album"},
        {SF_STR_DATE, "Date"},         {SF_STR_GENRE, "Genre"},     {SF_STR_COPYRIGHT, "Copyright"},
        {SF_STR_SOFTWARE, "Software"}, {SF_STR_COMMENT, "Comment"},
    };
    const double seconds = r.SampleRate() ? double(r.Frames()) / r.SampleRate() : 0;
    std::printf("File         %s\n", path.c_str());
    std::printf("Format       %s\n", OutputFormat::Describe(r.Format()).c_str());
    std::printf("Channels     %d\n", r.Channels());
    std::printf("Rate         %d Hz\n", r.SampleRate());
    std::printf("Length       %d:%06.3f (%lld frames)\n", static_cast<int>(seconds / 60),
                std::fmod(seconds, 60.0), static_cast<long long>(r.Frames()));
    if (r.MissingFrames())
        std::printf("Cut short    %lld frames missing\n",
                    static_cast<long long>(r.MissingFrames()));
    if (CChunkFile chunks; chunks.Open(path)) { // where WAV and AIFF keep their tags
        std::string list;
        for (const auto& c : chunks.Chunks())
            list += (list.empty() ? "" : ", ") + c.id + " " + std::to_string(c.declared);
        std::printf("Chunks       %s\n", list.c_str());
    }
    for (const auto& [id, name] : kTags) {
        const auto it = r.Tags().find(id);
        if (it == r.Tags().end())
            continue;
        std::string text = it->second;
        for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 14)
            text.replace(at, 1, "\n             "); // later lines under the first
        std::printf("%-12s %s\n", name, text.c_str());
    }
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

// The help of a command itself: CLI::App::help hands over to a subcommand already chosen.
std::string HelpOf(const CLI::App* cmd) {
    const std::string name = cmd->get_parent() ? "morvane " + cmd->get_name() : "morvane";
    return cmd->get_formatter()->make_help(cmd, name, CLI::AppFormatMode::Normal);
}

// One output per input, checked before anything is rendered: no output may be an input unless
// --force says so, and no two inputs may end in the same file.
void CheckCollisions(const std::vector<std::pair<std::string, std::string>>& work, bool force) {
    const auto same = [](const std::string& a, const std::string& b) {
        std::error_code ec;
        if (fs::equivalent(a, b, ec))
            return true;
        return fs::weakly_canonical(a, ec) == fs::weakly_canonical(b, ec);
    };
    for (size_t i = 0; i < work.size(); ++i) {
        const std::string& out = work[i].second;
        if (out == "-")
            continue;
        for (const auto& [in, other] : work)
            if (!force && same(in, out))
                throw UsageError(out + " is also an input; rendering would replace the "
                                       "original. Choose another output, or add --force");
        for (size_t j = 0; j < i; ++j)
            if (same(work[j].second, out))
                throw UsageError(work[j].first + " and " + work[i].first +
                                 " would both be written to " + out +
                                 "; render them into different folders");
    }
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Morvane: stretch or shorten audio without changing its pitch, transpose it "
                 "without changing its length, or both.",
                 "morvane"};
    app.require_subcommand(0, 1);
    // Every error in one voice, with the usage of the command it belongs to.
    app.failure_message([](const CLI::App* a, const CLI::Error& e) {
        std::string what = e.what();
        if (!what.empty())
            what[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(what[0])));
        std::string text = "morvane: " + what + "\n";
        const CLI::App* shown = a;
        for (const CLI::App* sub : a->get_subcommands())
            shown = sub;
        return text + "\n" + HelpOf(shown);
    });
    app.set_version_flag("-V,--version", [] {
        std::string text = "morvane " MORVANE_VERSION "\n";
        try {
            const std::string path = VstPlugin::FindMorvane();
            if (path.empty()) {
                text += "plug-in      not found\n";
            } else {
                VstPlugin p(path);
                text += "plug-in      " + path + " (" + p.Text(effGetEffectName) + ", version " +
                        std::to_string(p.Dispatch(effGetVendorVersion)) + ")\n";
            }
        } catch (const std::exception& e) {
            text += std::string("plug-in      ") + e.what() + "\n";
        }
        text += std::string("libsndfile   ") + sf_version_string();
        return text;
    });

    RenderSettings settings;
    std::string engine = "splice";
    std::vector<std::string> files;
    std::string outDir, container, depth, lowSound = "on", time, pitch, semitones, ratio, level;
    int jobs = 1;
    bool quiet = false, force = false;
    auto* render = app.add_subcommand(
        "render", "Render IN to OUT, or several inputs into a folder (-d). OUT may be - for "
                  "standard output");
    render->add_option("files", files, "IN OUT, or IN... with --dir")->required();
    render->add_option("-t,--time", time,
                       "Length: a percentage of the input (50 to 200, as 150 or 150%) or a ratio "
                       "(0.5 to 2, as 1.5 or 1.5x). Default 100");
    auto* cents = render->add_option(
        "-p,--pitch", pitch, "Transposition in cents, -1200 to +1200 (or semitones as 7st)");
    auto* semis =
        render->add_option("-s,--semitones", semitones, "Transposition in semitones, -12 to +12");
    auto* rat = render->add_option("--ratio", ratio,
                                   "Transposition as a frequency ratio, 0.5 to 2 (1.5, 3/2, 3:2)");
    cents->excludes(semis)->excludes(rat);
    semis->excludes(rat);
    render->add_option("-l,--level", level,
                       "Output level in dB, -59.79 to +6 (as -3 or -3dB; 6 dB per doubling of "
                       "gain). Default 0");
    render
        ->add_option("--low-sound", lowSound,
                     "on (default): look for onsets. The splice engine cuts there and spreads "
                     "the change over 36 ms pieces, most in the quiet ones; the crisp engine "
                     "reads each attack 1:1 and rebuilds its phases, so it sounds once. off: no "
                     "onset search; splice changes each stretch of up to a second in one piece, "
                     "crisp stretches everything alike, which suits pads, strings and drones")
        ->check(CLI::IsMember({"on", "off"}))
        ->capture_default_str();
    render
        ->add_option("-e,--engine", engine,
                     "splice (default): cuts and splices pieces of the waveform; cleanest on "
                     "speech and solo voices, and 400-650x real time. crisp: a phase vocoder "
                     "that keeps each attack once and in its place, for drums, full mixes and "
                     "anything with sharp hits, above all at strong stretches (at 200 %, aubio "
                     "finds 0.95 of its onsets true on recorded drums, splice's 0.23), at "
                     "110-250x real time")
        ->check(CLI::IsMember({"splice", "crisp"}))
        ->capture_default_str();
    render->add_option("-b,--block", settings.blockSize, "Frames per call to the plug-in")
        ->capture_default_str();
    render->add_flag("--keep-latency", settings.keepLatency,
                     "Keep the plug-in's announced delay (silence) at the start");
    render->add_option("-f,--format", container,
                       std::string("Output container: ") + OutputFormat::Words() +
                           " (default: from OUT's extension, else the input's)");
    render
        ->add_option("--bits", depth,
                     "Output samples: 8, 16, 24, 32, float or double (default: the input's, "
                     "where the container holds them)")
        ->check(CLI::IsMember({"8", "16", "24", "32", "float", "double"}));
    render->add_option("-d,--dir", outDir, "Render every input into this folder (made if need be)");
    render->add_flag("--force", force, "Allow an output to replace one of the inputs");
    render->add_option("-j,--jobs", jobs, "Files rendered at once")->check(CLI::Range(1, 256));
    render->add_option("--plugin", settings.pluginPath, "The plug-in file (default: found)");
    render
        ->add_option("--program", settings.program,
                     "Start from program N (1-64) of the plug-in's bank; other options given "
                     "override it")
        ->check(CLI::Range(1, 64));
    render->add_flag("-q,--quiet", quiet, "No progress bar");

    std::string infoPath;
    auto* info = app.add_subcommand(
        "info", "Show what an audio file holds (and how Morvane made it), or a VST 2.4 plug-in");
    info->add_option("file", infoPath, "An audio file or a plug-in (default: Morvane)");

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
    gui->add_option("-e,--engine", engine,
                    "splice or crisp, as for render; E in the window changes it")
        ->check(CLI::IsMember({"splice", "crisp"}))
        ->capture_default_str();

    std::string helpTopic;
    auto* help = app.add_subcommand("help", "Show this help, or a command's");
    help->add_option("command", helpTopic, "render, info, bank, demo or gui");

    // The manual page and the shell completion are made from these same texts at build time.
    std::string docs;
    app.add_option("--generate", docs, "man or bash-completion")
        ->check(CLI::IsMember({"man", "bash-completion"}))
        ->group("");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kOk : kUsage;
    }
    if (!docs.empty()) {
        std::fputs((docs == "man" ? CommandDocs::Man(app, MORVANE_VERSION)
                                  : CommandDocs::BashCompletion(app))
                       .c_str(),
                   stdout);
        return kOk;
    }
    if (help->parsed() || app.get_subcommands().empty()) {
        const CLI::App* topic = &app;
        if (!helpTopic.empty()) {
            try {
                topic = app.get_subcommand(helpTopic);
            } catch (const CLI::Error&) {
                return Fail(kUsage, "there is no command " + helpTopic +
                                        "; the commands are render, info, bank, demo and gui");
            }
        }
        const bool asked = help->parsed();
        std::fputs(HelpOf(topic).c_str(), asked ? stdout : stderr);
        return asked ? kOk : kUsage;
    }

    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    signal(SIGPIPE, SIG_IGN); // a closed standard output is a write error, said as one

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
        try {
            if (guiFiles.size() == 2) {
                CheckCollisions({{guiFiles[0], guiFiles[1]}}, false);
                settings.container = OutputFormat::FromName(guiFiles[1]);
            }
        } catch (const std::exception& e) {
            return Fail(kUsage, e.what());
        }
        try {
            settings.pluginPath = PluginPath(settings.pluginPath);
            VstPlugin p(settings.pluginPath);
            if (const std::string other = p.NotMorvane(); !other.empty())
                return Fail(kBadPlugin, other);
            p.Dispatch(effOpen);
            p.Dispatch(effMainsChanged, 0, 1);
            if (guiProgram)
                p.Dispatch(effSetProgram, 0, guiProgram - 1);
            RenderSettings::ChooseEngine(p, engine == "crisp" ? MorvaneEngine::kCrisp
                                                              : MorvaneEngine::kSplice);
            return PanelHost(p, settings)
                .Run(guiFiles.empty() ? "" : guiFiles[0], guiFiles.empty() ? "" : guiFiles[1]);
        } catch (const std::exception& e) {
            return Fail(kBadPlugin, e.what());
        }
    }

    if (*info) {
        // an audio file, told by its contents; anything else is taken for a plug-in
        const CFileType::Kind kind =
            infoPath.empty() ? CFileType::Unknown : CFileType::OfFile(infoPath);
        if (kind == CFileType::Missing || kind == CFileType::Folder)
            return Fail(kBadInput, infoPath + (kind == CFileType::Missing
                                                   ? ": there is no such file"
                                                   : " is a folder; name a file in it"));
        if (CFileType::IsAudio(kind)) {
            try {
                PrintAudioInfo(infoPath);
            } catch (const std::exception& e) {
                return Fail(kBadInput, e.what());
            }
            return kOk;
        }
        try {
            VstPlugin p(PluginPath(infoPath));
            p.Dispatch(effOpen);
            PrintInfo(p);
        } catch (const std::exception& e) {
            return Fail(kBadPlugin, e.what());
        }
        return kOk;
    }

    if (*bank) {
        if (bankPath.empty() == (exportPath.empty() && importPath.empty()) ||
            (!exportPath.empty() && !importPath.empty()))
            return Fail(kUsage, "bank takes a FILE to list, or --export FILE, or --import FILE");
        try {
            BankTool tool(PluginPath(settings.pluginPath));
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
    int wantedContainer = 0, wantedDepth = 0;
    std::vector<std::pair<std::string, std::string>> work;
    try {
        if (!time.empty())
            settings.timePercent = SettingText::TimePercent(time);
        if (!pitch.empty())
            settings.pitchCents = SettingText::PitchCents(pitch);
        if (!semitones.empty()) {
            settings.pitchCents = SettingText::Semitones(semitones) * 100.0;
            settings.pitchInSemitones = true;
        }
        if (!ratio.empty())
            settings.pitchCents = SettingText::RatioCents(ratio);
        if (!level.empty())
            settings.outputDb = SettingText::LevelDb(level);
        if (settings.program) {
            settings.hasTime = !time.empty();
            settings.hasPitch = !pitch.empty() || !semitones.empty() || !ratio.empty();
            settings.hasLevel = !level.empty();
            settings.hasLowSound = render->count("--low-sound") > 0;
        }
        settings.lowSound = lowSound == "on";
        settings.engine = engine == "crisp" ? MorvaneEngine::kCrisp : MorvaneEngine::kSplice;
        if (!container.empty()) {
            wantedContainer = OutputFormat::FromWord(container);
            if (!wantedContainer)
                throw UsageError("-f takes " + std::string(OutputFormat::Words()));
        }
        if (!depth.empty())
            wantedDepth = OutputFormat::Depth(depth);
        settings.Validate();

        if (outDir.empty()) {
            if (files.size() != 2)
                throw UsageError("render takes IN OUT, or several inputs with --dir FOLDER");
            work.emplace_back(files[0], files[1]);
        } else {
            for (const auto& f : files) {
                std::string name = BaseName(f);
                if (wantedContainer)
                    name = name.substr(0, name.rfind('.')) + "." +
                           OutputFormat::Extension(wantedContainer);
                work.emplace_back(f, Join(outDir, name));
            }
        }
        CheckCollisions(work, force);
        for (const auto& [in, out] : work)
            if (out != "-" && !wantedContainer)
                OutputFormat::FromName(out); // refuses an extension this build cannot write
    } catch (const std::exception& e) {
        return Fail(kUsage, e.what());
    }
    try {
        settings.pluginPath = PluginPath(settings.pluginPath);
    } catch (const std::exception& e) {
        return Fail(kBadPlugin, e.what());
    }
    if (!outDir.empty()) {
        std::error_code ec;
        fs::create_directories(outDir, ec);
        if (ec || !fs::is_directory(outDir))
            return Fail(kBadOutput, "cannot make the folder " + outDir + ": " +
                                        (ec ? ec.message() : "a file has that name"));
    }

    // One bar for a batch: files done, the share of all input frames, and the time left.
    const bool single = work.size() == 1;
    std::vector<sf_count_t> lengths(work.size(), 0);
    sf_count_t allFrames = 0;
    if (!single && !quiet && isatty(2))
        for (size_t i = 0; i < work.size(); ++i) {
            try {
                lengths[i] = AudioReader(work[i].first).Frames();
            } catch (const std::exception&) {
                // reported when its turn comes
            }
            allFrames += lengths[i];
        }
    std::atomic<sf_count_t> framesDone{0};
    std::atomic<size_t> filesDone{0};
    ProgressBar overall("");
    std::atomic<size_t> next{0};
    std::mutex report;
    std::vector<std::pair<std::string, int>> failures;
    const auto drawOverall = [&](sf_count_t extra) {
        overall.SetLabel(std::to_string(filesDone.load()) + " of " + std::to_string(work.size()) +
                         " files");
        overall.Update(allFrames ? double(framesDone + extra) / allFrames : 0.0);
    };
    auto worker = [&] {
        for (size_t i; (i = next++) < work.size();) {
            const auto& [in, out] = work[i];
            RenderSettings s = settings;
            s.container =
                wantedContainer ? wantedContainer : (out == "-" ? 0 : OutputFormat::FromName(out));
            s.depth = wantedDepth;
            try {
                ProgressBar bar(BaseName(in));
                const bool showBar = single && !quiet;
                sf_count_t mine = 0;
                const RenderResult r = RenderJob(s).Run(in, out, [&](double f) {
                    if (showBar)
                        bar.Update(f);
                    if (!single && !quiet && allFrames) {
                        const sf_count_t now = static_cast<sf_count_t>(f * lengths[i]);
                        std::lock_guard lock(report);
                        framesDone += now - mine;
                        mine = now;
                        drawOverall(0);
                    }
                });
                std::lock_guard lock(report);
                framesDone += lengths[i] - mine;
                ++filesDone;
                const int sub = r.format & SF_FORMAT_SUBMASK;
                WarnIfClipping(out, r, s.outputDb,
                               sub == SF_FORMAT_FLOAT || sub == SF_FORMAT_DOUBLE);
                WarnIfCutShort(in, r);
                if (!single && !quiet && !allFrames)
                    std::fprintf(stderr, "morvane: %s -> %s\n", in.c_str(), out.c_str());
                if (allFrames)
                    drawOverall(0);
            } catch (const std::exception& e) {
                std::lock_guard lock(report);
                ++filesDone;
                framesDone += lengths[i];
                std::fprintf(stderr, "%smorvane: %s\n", allFrames ? "\n" : "", e.what());
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
