#include "HelpCommand.h"

#include <CLI/CLI.hpp>

#include <cstdio>

#include "HostError.h"

HelpCommand::HelpCommand(CLI::App& parent)
    : Command(parent, "help", "Show this help, or a command's"), m_app(parent) {
    m_cmd->add_option("command", m_topic, "render, info, bank, demo or gui");
}

int HelpCommand::Run() {
    const CLI::App* topic = &m_app;
    if (!m_topic.empty()) {
        try {
            topic = m_app.get_subcommand(m_topic);
        } catch (const CLI::Error&) {
            throw UsageError("there is no command " + m_topic +
                             "; the commands are render, info, bank, demo and gui");
        }
    }
    std::fputs(HelpOf(topic).c_str(), stdout);
    return kExitOk;
}

int HelpCommand::RunUnasked() {
    std::fputs(HelpOf(&m_app).c_str(), stderr);
    return kExitUsage;
}
