#include "Command.h"

#include <CLI/CLI.hpp>

Command::Command(CLI::App& parent, const std::string& name, const std::string& description)
    : m_cmd(parent.add_subcommand(name, description)) {}

bool Command::Chosen() const {
    return m_cmd->parsed();
}

std::string Command::HelpOf(const CLI::App* command) {
    const std::string name = command->get_parent() ? "morvane " + command->get_name() : "morvane";
    return command->get_formatter()->make_help(command, name, CLI::AppFormatMode::Normal);
}
