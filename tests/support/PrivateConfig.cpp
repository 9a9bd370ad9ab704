// Linked into every test program: no test reads or writes the preferences of whoever runs it,
// and no two test processes share theirs (CTest runs them in parallel, and a test that saves a
// bank must not meet another's). Before main, XDG_CONFIG_HOME becomes a fresh folder: inside the
// build's test-config folder when CTest points there, else in /tmp. It goes at exit.
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

bool InTestConfig(const char* dir) {
    if (dir == nullptr)
        return false;
    const std::string d = dir;
    const std::string mark = "/test-config";
    return d.size() >= mark.size() && d.compare(d.size() - mark.size(), mark.size(), mark) == 0;
}

std::string gFolder;

const bool gPrivate = [] {
    const char* given = std::getenv("XDG_CONFIG_HOME");
    std::string pattern = InTestConfig(given) ? std::string(given) : "/tmp";
    std::error_code ec;
    std::filesystem::create_directories(pattern, ec);
    pattern += "/morvane-tests-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        std::abort(); // better no run than one on the real preferences
    gFolder = pattern;
    setenv("XDG_CONFIG_HOME", gFolder.c_str(), 1);
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(gFolder, ignored);
    });
    return true;
}();

} // namespace
