#pragma once

#include <vector>

#include "Command.h"
#include "MorvaneEngine.h"

// morvane gui [IN OUT]: the plug-in's panel in a window of its own (PanelHost), rendering IN to
// OUT with its settings when both are given.
class GuiCommand : public Command {
public:
    explicit GuiCommand(CLI::App& parent);
    int Run() override;

private:
    std::vector<std::string> m_files;
    int m_program = 0;
    std::string m_plugin, m_engine = MorvaneEngine::kNames[MorvaneEngine::kSplice];
};
