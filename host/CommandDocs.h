#pragma once

#include <string>

namespace CLI {
class App;
}

// The manual page and the bash completion, made from the command line's own definitions so
// that they say what --help says.
class CommandDocs {
public:
    static std::string Man(const CLI::App& app, const std::string& version);
    static std::string BashCompletion(const CLI::App& app);
};
