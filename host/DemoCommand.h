#pragma once

#include "Command.h"

// morvane demo FILE: the 12-second demo piece, the same to the bit every time.
class DemoCommand : public Command {
public:
    explicit DemoCommand(CLI::App& parent);
    int Run() override;

private:
    std::string m_path;
};
