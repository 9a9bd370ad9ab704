#pragma once

#include "Command.h"

class VstPlugin;

// morvane info [FILE]: what an audio file holds and, for one Morvane made, how; or what a VST 2.4
// plug-in file holds (Morvane's when none is named).
class InfoCommand : public Command {
public:
    explicit InfoCommand(CLI::App& parent);
    int Run() override;

private:
    static void PrintAudio(const std::string& path);
    static void PrintPlugin(const VstPlugin& plugin);

    std::string m_path;
};
