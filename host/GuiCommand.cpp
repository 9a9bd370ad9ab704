#include "GuiCommand.h"

#include <CLI/CLI.hpp>
#include <dlfcn.h>
#include <unistd.h>

#include "HostError.h"
#include "MorvaneEngine.h"
#include "MorvaneStudio.h"
#include "OutputFormat.h"
#include "RenderBatch.h"
#include "RenderJob.h"
#include "StudioRenderer.h"
#include "VstPlugin.h"

namespace {

// The window library: in <libdir>/morvane once installed, in studio/ of a build tree.
MorvaneStudioEntry LoadStudio() {
    const std::string dir = VstPlugin::ProgramFolder();
    std::string why;
    for (const std::string& path : {dir + MORVANE_STUDIO_FROM_BIN "/morvane-studio.so",
                                    dir + "../studio/morvane-studio.so"}) {
        if (access(path.c_str(), R_OK) != 0)
            continue;
        // Kept for the process: the window layer holds its display connection to the end.
        if (void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE))
            if (void* entry = dlsym(library, "MorvaneStudioRun"))
                return reinterpret_cast<MorvaneStudioEntry>(entry);
        why = dlerror();
    }
    throw UsageError("the window cannot be shown: " +
                     (why.empty() ? "morvane-studio.so is not installed with morvane" : why));
}

} // namespace

GuiCommand::GuiCommand(CLI::App& parent)
    : Command(parent, "gui",
              "The plug-in's panel in a window with programs, files, render, the waves, playback "
              "with loops and a live preview of every change; "
              "IN OUT renders at once") {
    m_cmd
        ->add_option("files", m_files,
                     "IN to open (the output is proposed beside it), or IN OUT to render at once")
        ->expected(0, 2);
    m_cmd->add_option("--program", m_program, "Start from program N (1-64)")
        ->check(CLI::Range(1, 64));
    m_cmd->add_option("--plugin", m_plugin, "The plug-in file (default: found)");
    m_cmd
        ->add_option("-e,--engine", m_engine,
                     "splice or crisp, as for render; F9 in the window changes it")
        ->check(CLI::IsMember({MorvaneEngine::kNames[MorvaneEngine::kSplice],
                               MorvaneEngine::kNames[MorvaneEngine::kCrisp]}))
        ->capture_default_str();
}

int GuiCommand::Run() {
    RenderSettings settings;
    if (m_files.size() == 2) {
        try {
            RenderBatch::CheckCollisions({{m_files[0], m_files[1]}}, false);
            settings.container = OutputFormat::FromName(m_files[1]);
        } catch (const std::exception& e) {
            throw UsageError(e.what());
        }
    }
    settings.pluginPath = VstPlugin::Locate(m_plugin);
    try {
        VstPlugin p(settings.pluginPath);
        if (const std::string other = p.NotMorvane(); !other.empty())
            throw PluginError(other);
        p.Dispatch(effOpen);
        p.Dispatch(effMainsChanged, 0, 1);
        if (m_program)
            p.Dispatch(effSetProgram, 0, m_program - 1);
        RenderSettings::ChooseEngine(p, MorvaneEngine::FromName(m_engine));
        const std::string in = m_files.empty() ? "" : m_files[0];
        const std::string out = m_files.size() == 2 ? m_files[1] : "";
        const MorvaneStudioEntry studio = LoadStudio();
        const StudioRenderer renderer(p, settings);
        const MorvaneStudioCall call{.version = MORVANE_STUDIO_CALL_VERSION,
                                     .effect = p.Effect(),
                                     .input = in.c_str(),
                                     .output = out.c_str(),
                                     .renderNow = m_files.size() == 2,
                                     .host = renderer.Host()};
        return studio(&call);
    } catch (const HostError&) {
        throw;
    } catch (const std::exception& e) {
        throw PluginError(e.what());
    }
}
