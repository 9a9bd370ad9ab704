#pragma once

#include <string>

namespace CLI {
class App;
}

// One of morvane's commands: its options, declared on the command line when it is made, and
// what it does once they are parsed. Run returns the exit status, or throws a HostError.
class Command {
public:
    virtual ~Command() = default;
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    bool Chosen() const;
    virtual int Run() = 0;

    // The help of one command (CLI::App::help hands over to a subcommand already chosen).
    static std::string HelpOf(const CLI::App* command);

protected:
    Command(CLI::App& parent, const std::string& name, const std::string& description);
    CLI::App* m_cmd;
};
