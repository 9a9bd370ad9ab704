#pragma once

#include <cstdint>

// A file opened for reading, or created (truncated) for writing, with the failure of every
// operation reported: a short read, a full disk and a failed close all come back as false or a
// short count, never silently.
class CFile {
public:
    enum OpenFlags : unsigned { modeRead = 0x0000, modeWrite = 0x0001, modeCreate = 0x1000 };
    enum SeekPosition { begin = 0, current = 1, end = 2 };

    CFile() = default;
    ~CFile();
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;

    bool Open(const char* path, unsigned flags);
    // Works on a copy of an open descriptor, which stays its owner's.
    bool OpenDescriptor(int fd);
    bool IsOpen() const { return m_fd >= 0; }
    // Reads up to count bytes; returns the bytes read (0 at the end or on an error).
    uint32_t Read(void* buffer, uint32_t count);
    // Writes all count bytes or returns false.
    bool Write(const void* buffer, uint32_t count);
    // Returns the new position, or -1.
    int64_t Seek(int64_t offset, SeekPosition from);
    int64_t GetLength() const;
    // Flushes what was written to the disk; false when it could not be.
    bool Flush();
    // Returns false when the system reports an error on closing (a write it could not finish).
    bool Close();

private:
    int m_fd = -1;
};
