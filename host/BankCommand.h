#pragma once

#include "Command.h"

// morvane bank FILE | --export FILE | --import FILE: a bank file's programs, or the plug-in's bank
// out of it or into it.
class BankCommand : public Command {
public:
    explicit BankCommand(CLI::App& parent);
    int Run() override;

private:
    std::string m_list, m_export, m_import, m_plugin;
};
