#include "RenderCommand.h"

#include <CLI/CLI.hpp>

#include <filesystem>

#include "HostError.h"
#include "MorvaneEngine.h"
#include "OutputFormat.h"
#include "RenderBatch.h"
#include "SettingText.h"
#include "VstPlugin.h"

namespace fs = std::filesystem;

namespace {

// A folder and a name joined as a person writes them: "out/a.wav" for "out/" and "a.wav".
std::string Join(std::string folder, const std::string& name) {
    while (folder.size() > 1 && folder.back() == '/')
        folder.pop_back();
    return folder == "/" ? "/" + name : folder + "/" + name;
}

} // namespace

RenderCommand::RenderCommand(CLI::App& parent)
    : Command(parent, "render",
              "Render IN to OUT, or several inputs into a folder (-d). OUT may be - for standard "
              "output") {
    CLI::App* render = m_cmd;
    render->add_option("files", m_files, "IN OUT, or IN... with --dir")->required();
    render->add_option("-t,--time", m_time,
                       "Length: a percentage of the input (50 to 200, as 150 or 150%) or a ratio "
                       "(0.5 to 2, as 1.5 or 1.5x). Default 100");
    auto* cents = render->add_option(
        "-p,--pitch", m_pitch, "Transposition in cents, -1200 to +1200 (or semitones as 7st)");
    auto* semis =
        render->add_option("-s,--semitones", m_semitones, "Transposition in semitones, -12 to +12");
    auto* rat = render->add_option("--ratio", m_ratio,
                                   "Transposition as a frequency ratio, 0.5 to 2 (1.5, 3/2, 3:2)");
    cents->excludes(semis)->excludes(rat);
    semis->excludes(rat);
    render->add_option("-l,--level", m_level,
                       "Output level in dB, -59.79 to +6 (as -3 or -3dB; 6 dB per doubling of "
                       "gain). Default 0");
    render
        ->add_option("--low-sound", m_lowSound,
                     "on (default): look for onsets. The splice engine cuts there and spreads "
                     "the change over 36 ms pieces, most in the quiet ones; the crisp engine "
                     "reads each attack 1:1 and rebuilds its phases, so it sounds once. off: no "
                     "onset search; splice spreads the change over the same 36 ms pieces "
                     "everywhere alike and never leaves a gap, crisp stretches everything alike; "
                     "this suits pads, strings and drones")
        ->check(CLI::IsMember({"on", "off"}))
        ->capture_default_str();
    render
        ->add_option("-e,--engine", m_engine,
                     "splice (default): cuts and splices pieces of the waveform; cleanest on "
                     "speech and solo voices, and the fastest. By its design it may leave short "
                     "silent gaps (40-60 ms) in steady tones and glides at strong stretches "
                     "(from about 180 %; the render says so, and LowSound off avoids them), and "
                     "sustained low bass notes of about 40-67 Hz change pitch with the time. "
                     "crisp: a phase vocoder that keeps each attack once and in its place, for "
                     "drums, full mixes and anything with sharp hits, above all at strong "
                     "stretches; it does neither of those")
        ->check(CLI::IsMember({MorvaneEngine::kNames[MorvaneEngine::kSplice],
                               MorvaneEngine::kNames[MorvaneEngine::kCrisp]}))
        ->capture_default_str();
    render->add_option("-b,--block", m_settings.blockSize, "Frames per call to the plug-in")
        ->capture_default_str();
    render->add_flag("--keep-latency", m_settings.keepLatency,
                     "Keep the plug-in's announced delay (silence) at the start");
    render->add_flag("--guard", m_settings.guard,
                     "Lower the level by just enough that no sample of the output goes beyond "
                     "full scale, and say by how much (the output is written at the end)");
    render->add_flag("--sync", m_settings.durable,
                     "Flush each output to the disk before it is named, and its name after, so "
                     "that a power cut leaves the old file or the new one whole");
    render->add_option("-f,--format", m_container,
                       std::string("Output container: ") + OutputFormat::Words() +
                           " (default: from OUT's extension, else the input's)");
    render
        ->add_option("--bits", m_depth,
                     "Output samples: 8, 16, 24, 32, float or double (default: the input's, "
                     "where the container holds them)")
        ->check(CLI::IsMember({"8", "16", "24", "32", "float", "double"}));
    render->add_option("-d,--dir", m_outDir,
                       "Render every input into this folder (made if need be)");
    render->add_flag("--force", m_force, "Allow an output to replace one of the inputs");
    render->add_option("-j,--jobs", m_jobs, "Files rendered at once")->check(CLI::Range(1, 256));
    render->add_option("--plugin", m_settings.pluginPath, "The plug-in file (default: found)");
    render
        ->add_option("--program", m_settings.program,
                     "Start from program N (1-64) of the plug-in's bank; other options given "
                     "override it")
        ->check(CLI::Range(1, 64));
    render->add_flag("-q,--quiet", m_quiet, "No progress bar");
}

int RenderCommand::Run() {
    RenderSettings& settings = m_settings;
    int container = 0, depth = 0;
    RenderBatch::Work work;
    try {
        if (!m_time.empty())
            settings.timePercent = SettingText::TimePercent(m_time);
        if (!m_pitch.empty())
            settings.pitchCents = SettingText::PitchCents(m_pitch);
        if (!m_semitones.empty()) {
            settings.pitchCents = SettingText::Semitones(m_semitones) * 100.0;
            settings.pitchInSemitones = true;
        }
        if (!m_ratio.empty())
            settings.pitchCents = SettingText::RatioCents(m_ratio);
        if (!m_level.empty())
            settings.outputDb = SettingText::LevelDb(m_level);
        if (settings.program) {
            settings.hasTime = !m_time.empty();
            settings.hasPitch = !m_pitch.empty() || !m_semitones.empty() || !m_ratio.empty();
            settings.hasLevel = !m_level.empty();
            settings.hasLowSound = m_cmd->count("--low-sound") > 0;
        }
        settings.lowSound = m_lowSound == "on";
        settings.engine = MorvaneEngine::FromName(m_engine);
        if (!m_container.empty()) {
            container = OutputFormat::FromWord(m_container);
            if (!container)
                throw UsageError("-f takes " + std::string(OutputFormat::Words()));
        }
        if (!m_depth.empty())
            depth = OutputFormat::Depth(m_depth);
        settings.Validate();

        if (m_outDir.empty()) {
            if (m_files.size() != 2)
                throw UsageError("render takes IN OUT, or several inputs with --dir FOLDER");
            work.emplace_back(m_files[0], m_files[1]);
        } else {
            for (const auto& f : m_files) {
                std::string name = fs::path(f).filename().string();
                if (container)
                    name =
                        name.substr(0, name.rfind('.')) + "." + OutputFormat::Extension(container);
                work.emplace_back(f, Join(m_outDir, name));
            }
        }
        RenderBatch::CheckCollisions(work, m_force);
        for (const auto& [in, out] : work)
            if (out != "-" && !container)
                OutputFormat::FromName(out); // refuses an extension this build cannot write
    } catch (const std::exception& e) {
        throw UsageError(e.what());
    }
    settings.pluginPath = VstPlugin::Locate(settings.pluginPath);
    if (!m_outDir.empty()) {
        std::error_code ec;
        fs::create_directories(m_outDir, ec);
        if (ec || !fs::is_directory(m_outDir))
            throw OutputError("cannot make the folder " + m_outDir + ": " +
                              (ec ? ec.message() : "a file has that name"));
    }
    return RenderBatch(settings, std::move(work), container, depth, m_jobs, m_quiet).Run();
}
