#include "AudioLibraries.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

namespace {

// The name a function has in the library: the header may rename it (mpg123_param is
// mpg123_param2), so the name is taken after the preprocessor has done so.
#define MORVANE_AUDIO_NAME(name) MORVANE_AUDIO_QUOTE(name)
#define MORVANE_AUDIO_QUOTE(name) #name

[[noreturn]] void Missing(const char* file, const char* package, const std::string& why) {
    throw std::runtime_error(std::string("cannot load ") + file + " (Debian's " + package +
                             "), which morvane reads and writes audio with: " + why);
}

void* Open(const char* file, const char* package) {
    // Bound as the program's own libraries would be: each function at its first call.
    void* library = dlopen(file, RTLD_LAZY | RTLD_LOCAL);
    if (!library) {
        const char* why = dlerror();
        Missing(file, package, why ? why : "unknown error");
    }
    return library;
}

template <class T>
void Find(void* library, const char* file, const char* package, T& to, const char* name) {
    to = reinterpret_cast<T>(dlsym(library, name));
    if (!to)
        Missing(file, package, std::string("it has no ") + name);
}

} // namespace

// Loaded once for the process and never unloaded; a failed load is tried again at the next use.
const AudioLibraries::SndfileTable& AudioLibraries::Sndfile() {
    static const SndfileTable table = [] {
        constexpr const char* kFile = "libsndfile.so.1";
        constexpr const char* kPackage = "libsndfile1";
        void* library = Open(kFile, kPackage);
        SndfileTable t;
#define MORVANE_AUDIO_FIND(name) Find(library, kFile, kPackage, t.name, MORVANE_AUDIO_NAME(name));
        MORVANE_SNDFILE_FUNCTIONS(MORVANE_AUDIO_FIND)
#undef MORVANE_AUDIO_FIND
        return t;
    }();
    return table;
}

const AudioLibraries::Mpg123Table& AudioLibraries::Mpg123() {
    static const Mpg123Table table = [] {
        constexpr const char* kFile = "libmpg123.so.0";
        constexpr const char* kPackage = "libmpg123-0";
        void* library = Open(kFile, kPackage);
        Mpg123Table t;
#define MORVANE_AUDIO_FIND(name) Find(library, kFile, kPackage, t.name, MORVANE_AUDIO_NAME(name));
        MORVANE_MPG123_FUNCTIONS(MORVANE_AUDIO_FIND)
#undef MORVANE_AUDIO_FIND
        // once for the process, before any handle is made
        t.mpg123_init();
        return t;
    }();
    return table;
}
