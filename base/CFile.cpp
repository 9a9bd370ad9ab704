#include "CFile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

CFile::~CFile() {
    Close();
}

bool CFile::Open(const char* path, unsigned flags) {
    Close();
    if (!path)
        return false;
    int mode = O_RDONLY;
    if (flags & modeWrite)
        mode = O_WRONLY | ((flags & modeCreate) ? O_CREAT | O_TRUNC : 0);
    do {
        m_fd = ::open(path, mode | O_CLOEXEC, 0644);
    } while (m_fd < 0 && errno == EINTR);
    return m_fd >= 0;
}

bool CFile::OpenDescriptor(int fd) {
    Close();
    m_fd = fd >= 0 ? ::fcntl(fd, F_DUPFD_CLOEXEC, 0) : -1;
    return m_fd >= 0;
}

uint32_t CFile::Read(void* buffer, uint32_t count) {
    if (m_fd < 0)
        return 0;
    uint32_t done = 0;
    while (done < count) {
        const ssize_t n = ::read(m_fd, static_cast<char*>(buffer) + done, count - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<uint32_t>(n);
    }
    return done;
}

bool CFile::Write(const void* buffer, uint32_t count) {
    if (m_fd < 0)
        return false;
    uint32_t done = 0;
    while (done < count) {
        const ssize_t n = ::write(m_fd, static_cast<const char*>(buffer) + done, count - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false; // a full disk, among others
        done += static_cast<uint32_t>(n);
    }
    return true;
}

int64_t CFile::Seek(int64_t offset, SeekPosition from) {
    if (m_fd < 0)
        return -1;
    const int whence = from == begin ? SEEK_SET : from == current ? SEEK_CUR : SEEK_END;
    return ::lseek(m_fd, offset, whence);
}

int64_t CFile::GetLength() const {
    struct stat st {};
    return m_fd >= 0 && ::fstat(m_fd, &st) == 0 ? st.st_size : -1;
}

bool CFile::Flush() {
    return m_fd >= 0 && ::fsync(m_fd) == 0;
}

bool CFile::Close() {
    if (m_fd < 0)
        return true;
    const int r = ::close(m_fd);
    m_fd = -1;
    return r == 0;
}
