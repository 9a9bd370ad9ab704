#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

// morvane's exit status, as scripts test it. Every command and the panel window end with one
// of these.
enum ExitCode : int {
    kExitOk = 0,
    kExitSomeFailed = 1, // some files of a batch failed; or an error of no known kind
    kExitUsage = 2,      // the command line asks for something impossible; gui with no display
    kExitBadInput = 3,
    kExitBadOutput = 4,
    kExitBadPlugin = 5,
    // The panel window closed in the middle of a render: 128 + SIGINT, as if the user had
    // pressed Ctrl-C, which is what closing it then means.
    kExitStopped = 130,
};

// An error said to the user in one sentence, carrying the status morvane ends with.
class HostError : public std::runtime_error {
public:
    HostError(ExitCode code, const std::string& what) : std::runtime_error(what), m_code(code) {}
    ExitCode Code() const { return m_code; }

private:
    ExitCode m_code;
};

template <ExitCode code> struct HostErrorOf : HostError {
    explicit HostErrorOf(const std::string& what) : HostError(code, what) {}
};
using UsageError = HostErrorOf<kExitUsage>;
using InputError = HostErrorOf<kExitBadInput>;
using OutputError = HostErrorOf<kExitBadOutput>;
using PluginError = HostErrorOf<kExitBadPlugin>;
// A render stopped by its owner before the end; nothing was written.
using StoppedError = HostErrorOf<kExitStopped>;

// The status an error ends morvane with.
inline ExitCode ExitCodeOf(const std::exception& e) {
    const auto* known = dynamic_cast<const HostError*>(&e);
    return known ? known->Code() : kExitSomeFailed;
}

// Says message on standard error as one line in morvane's voice and returns code.
inline int Fail(ExitCode code, const std::string& message) {
    std::fprintf(stderr, "morvane: %s\n", message.c_str());
    return code;
}
inline int Fail(const std::exception& e) {
    return Fail(ExitCodeOf(e), e.what());
}
