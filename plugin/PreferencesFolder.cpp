#include "PreferencesFolder.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <string>

#include "AudioEffect.h"

char szGlobalMyApplicationDataPathName[2048] = {};

void GetMy_SHFOLDER_PathName() {
    static std::once_flag once;
    std::call_once(once, [] {
        std::string path;
        const char* xdg = std::getenv("XDG_CONFIG_HOME");
        const char* home = std::getenv("HOME");
        if (xdg && *xdg)
            path = xdg;
        else if (home && *home)
            path = std::string(home) + "/.config";
        if (!path.empty() && path.back() != '/')
            path += '/';
        if (path.size() < sizeof(szGlobalMyApplicationDataPathName))
            vst_strncpy(szGlobalMyApplicationDataPathName, path.c_str(),
                        sizeof(szGlobalMyApplicationDataPathName));
    });
}

bool MakeFolder(const char* path) {
    std::string p(path ? path : "");
    if (p.empty())
        return false;
    for (size_t i = 1; i <= p.size(); ++i) {
        if (i == p.size() || p[i] == '/') {
            const std::string part = p.substr(0, i);
            if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
                return false;
        }
    }
    struct stat st {};
    return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}
