#pragma once

#include <vector>

#include "Command.h"
#include "MorvaneEngine.h"
#include "RenderJob.h"

// morvane render: IN OUT, or several inputs into a folder, with the settings in the command
// line's units, checked before anything is rendered.
class RenderCommand : public Command {
public:
    explicit RenderCommand(CLI::App& parent);
    int Run() override;

private:
    RenderSettings m_settings;
    std::vector<std::string> m_files;
    std::string m_outDir, m_container, m_depth,
        m_lowSound = "on", m_engine = MorvaneEngine::kNames[MorvaneEngine::kSplice];
    std::string m_time, m_pitch, m_semitones, m_ratio, m_level;
    int m_jobs = 1;
    bool m_quiet = false, m_force = false;
};
