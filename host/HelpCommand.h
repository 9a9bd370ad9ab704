#pragma once

#include "Command.h"

// morvane help [COMMAND], and morvane with no command, which shows the same on standard error.
class HelpCommand : public Command {
public:
    explicit HelpCommand(CLI::App& parent);
    int Run() override;
    // morvane alone: the help, as a usage error.
    int RunUnasked();

private:
    CLI::App& m_app;
    std::string m_topic;
};
