#include "CReplaceFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

namespace {

// The named temporaries of this process, where a signal handler can read them: a fixed table
// whose entries are filled before they are marked, never a container that another thread may be
// reallocating. States live apart from the paths, so looking for a free entry touches one page.
constexpr int kSlots = 256;
constexpr size_t kPathMax = 4096;
enum : int { kFree, kFilling, kHolds };
std::atomic<int> gState[kSlots];
char gPath[kSlots][kPathMax];

int Register(const std::string& path) {
    if (path.size() >= kPathMax)
        return -1;
    for (int i = 0; i < kSlots; ++i) {
        int free = kFree;
        if (gState[i].compare_exchange_strong(free, kFilling)) {
            std::memcpy(gPath[i], path.c_str(), path.size() + 1);
            gState[i].store(kHolds, std::memory_order_release);
            return i;
        }
    }
    return -1; // table full: the next writer into that folder removes the file if need be
}

void Unregister(int& slot) {
    if (slot >= 0)
        gState[slot].store(kFree, std::memory_order_release);
    slot = -1;
}

const std::string& HostName() {
    static const std::string name = [] {
        char buf[256] = {};
        gethostname(buf, sizeof(buf) - 1);
        std::string s = buf;
        for (char& c : s)
            if (c == '/')
                c = '_';
        return s.empty() ? std::string("localhost") : s;
    }();
    return name;
}

std::string Mark() {
    return ".morvane-" + HostName() + "-";
}

std::string TemporaryName(const std::string& name) {
    static std::atomic<long> counter{0};
    return "." + name + Mark() + std::to_string(getpid()) + "-" + std::to_string(counter++) +
           ".tmp";
}

bool AllDigits(const std::string& s) {
    return !s.empty() && s.size() < 10 && s.find_first_not_of("0123456789") == std::string::npos;
}

// Whether name is a temporary of ours, left by a process of this host that is gone.
bool Stale(const std::string& name) {
    const std::string mark = Mark();
    const size_t at = name.rfind(mark);
    if (name.size() < 6 || name[0] != '.' || at == std::string::npos || at < 2 ||
        name.compare(name.size() - 4, 4, ".tmp") != 0)
        return false;
    const std::string rest = name.substr(at + mark.size(), name.size() - 4 - at - mark.size());
    const size_t dash = rest.find('-');
    if (dash == std::string::npos || !AllDigits(rest.substr(0, dash)) ||
        !AllDigits(rest.substr(dash + 1)))
        return false;
    const pid_t pid = static_cast<pid_t>(std::atol(rest.c_str()));
    return pid > 0 && pid != getpid() && kill(pid, 0) != 0 && errno == ESRCH;
}

// Once a process for each folder: what killed writers left there.
void Sweep(const std::string& folder) {
    static std::mutex mutex;
    static std::set<std::string> swept;
    {
        std::lock_guard lock(mutex);
        if (!swept.insert(folder).second)
            return;
    }
    DIR* dir = opendir(folder.empty() ? "." : folder.c_str());
    if (!dir)
        return;
    while (const dirent* e = readdir(dir))
        if (e->d_name[0] == '.' && Stale(e->d_name))
            unlinkat(dirfd(dir), e->d_name, 0);
    closedir(dir);
}

// A test switch: the filesystem refuses unnamed files.
bool UnnamedRefused() {
    static const bool refused = [] {
        const char* v = std::getenv("MORVANE_TEST_NO_TMPFILE");
        return v && *v && std::strcmp(v, "0") != 0;
    }();
    return refused;
}

// Gives the unnamed file fd a name. As root (or with CAP_DAC_READ_SEARCH) directly, otherwise
// through /proc.
bool Link(int fd, const std::string& path) {
    if (linkat(fd, "", AT_FDCWD, path.c_str(), AT_EMPTY_PATH) == 0)
        return true;
    char proc[64];
    std::snprintf(proc, sizeof(proc), "/proc/self/fd/%d", fd);
    return linkat(AT_FDCWD, proc, AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

void SyncFolder(const std::string& folder) {
    const int fd = open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd); // some filesystems cannot; the rename itself has been made either way
        close(fd);
    }
}

} // namespace

bool CReplaceFile::Open(const std::string& target) {
    Discard();
    m_spool = false;
    m_target = target;
    const size_t slash = target.rfind('/');
    m_folder = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
    if (name.empty()) {
        errno = EISDIR;
        return false;
    }
    Sweep(m_folder);
    if (!UnnamedRefused()) {
        m_fd =
            open(m_folder.empty() ? "." : m_folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
        if (m_fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL))
            return m_fd >= 0;
    }
    return OpenNamed(m_folder, name);
}

bool CReplaceFile::OpenSpool() {
    Discard();
    m_spool = true;
    m_target.clear();
    const char* tmp = std::getenv("TMPDIR");
    m_folder = std::string(tmp && *tmp ? tmp : "/tmp") + "/";
    Sweep(m_folder);
    if (!UnnamedRefused()) {
        m_fd = open(m_folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
        if (m_fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL))
            return m_fd >= 0;
    }
    return OpenNamed(m_folder, "morvane-stdout");
}

bool CReplaceFile::OpenNamed(const std::string& folder, const std::string& name) {
    m_temp = folder + TemporaryName(name);
    m_slot = Register(m_temp); // before the file exists, so that no moment is unguarded
    m_fd = open(m_temp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, m_spool ? 0600 : 0666);
    if (m_fd < 0) {
        const int e = errno;
        Unregister(m_slot);
        m_temp.clear();
        errno = e;
    }
    return m_fd >= 0;
}

bool CReplaceFile::Commit(bool durable) {
    if (m_fd < 0 || m_spool) {
        errno = EBADF;
        return false;
    }
    StopAt("name");
    if (durable && fsync(m_fd) != 0)
        return false;
    if (m_temp.empty()) {
        const size_t slash = m_target.rfind('/');
        const std::string temp =
            m_folder +
            TemporaryName(slash == std::string::npos ? m_target : m_target.substr(slash + 1));
        m_slot = Register(temp);
        if (!Link(m_fd, temp)) {
            const int e = errno;
            Unregister(m_slot);
            errno = e;
            return false;
        }
        m_temp = temp;
    }
    const int closed = close(m_fd);
    m_fd = -1;
    if (closed != 0)
        return false; // a write the system could not finish
    StopAt("rename");
    if (std::rename(m_temp.c_str(), m_target.c_str()) != 0)
        return false;
    Unregister(m_slot);
    m_temp.clear();
    if (durable)
        SyncFolder(m_folder);
    return true;
}

void CReplaceFile::Discard() {
    const int e = errno;
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
    if (!m_temp.empty()) {
        unlink(m_temp.c_str());
        Unregister(m_slot);
        m_temp.clear();
    }
    errno = e;
}

void CReplaceFile::RemoveAllTemporary() {
    for (int i = 0; i < kSlots; ++i)
        if (gState[i].load(std::memory_order_acquire) == kHolds)
            unlink(gPath[i]);
}

void CReplaceFile::StopAt(const char* point, long count) {
    const char* wanted = std::getenv("MORVANE_TEST_STOP"); // not kept: a forked child sets it
    if (!wanted || !*wanted)
        return;
    const size_t n = std::strlen(point);
    if (std::strncmp(wanted, point, n) != 0)
        return;
    const long at = wanted[n] == '\0' ? 1 : wanted[n] == ':' ? std::atol(wanted + n + 1) : -1;
    if (at == count)
        raise(SIGSTOP);
}
