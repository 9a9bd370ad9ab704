// Linked into every test program: a run by hand, outside CTest, must not read or write the
// preferences of whoever runs it. CTest points XDG_CONFIG_HOME at the build's test-config folder;
// anything else is replaced, before main, by a fresh temporary folder.
#include <cstdlib>
#include <string>

namespace {

bool Private(const char* dir) {
    if (dir == nullptr)
        return false;
    const std::string d = dir;
    const std::string mark = "/test-config";
    return d.size() >= mark.size() && d.compare(d.size() - mark.size(), mark.size(), mark) == 0;
}

const bool gPrivate = [] {
    if (Private(std::getenv("XDG_CONFIG_HOME")))
        return true;
    char dir[] = "/tmp/morvane-tests-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        std::abort(); // better no run than one on the real preferences
    setenv("XDG_CONFIG_HOME", dir, 1);
    return true;
}();

} // namespace
