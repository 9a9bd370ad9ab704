#pragma once

#include <string>

// A file that replaces another whole or not at all, and that leaves nothing behind when its
// process dies before it is complete, however it dies.
//
// Where the filesystem allows, the data goes into an unnamed file in the target's folder
// (O_TMPFILE), which vanishes with its process; Commit links it under a hidden name and renames
// that over the target, so an existing file is replaced atomically. Where unnamed files are
// refused (some network and FUSE filesystems), it is a hidden temporary named
//   .<target's name>.morvane-<host>-<process>-<n>.tmp
// beside the target. Opening a file in a folder first removes such names there whose process is
// gone on this host: what a killed writer left, in either mode. A temporary of a live process,
// of another host, or any name not of this form is never touched.
class CReplaceFile {
public:
    CReplaceFile() = default;
    ~CReplaceFile() { Discard(); }
    CReplaceFile(const CReplaceFile&) = delete;
    CReplaceFile& operator=(const CReplaceFile&) = delete;

    // Opens the file that will replace target. False with errno set when it cannot be made.
    bool Open(const std::string& target);
    // A file that is never named (standard output's spool), in $TMPDIR or /tmp.
    bool OpenSpool();
    // For writing, seeking and reading back; owned by this object.
    int Descriptor() const { return m_fd; }

    // Puts the complete file in place of the target. durable: the data reaches the disk before
    // the file is named, and the name after, so a power cut leaves the old file or the new one
    // whole. False with errno set, the target as it was.
    bool Commit(bool durable);
    // Closes and removes what was written; the target stays as it was.
    void Discard();

    // Removes every named temporary of this process; async-signal-safe, for a fatal signal.
    static void RemoveAllTemporary();
    // A test switch: with MORVANE_TEST_STOP set to point (or to "point:count" and this is that
    // count), the process stops itself here (SIGSTOP), so that a test can kill it at a known
    // moment instead of racing it.
    static void StopAt(const char* point, long count = 1);

private:
    bool OpenNamed(const std::string& folder, const std::string& name);

    std::string m_target;
    std::string m_folder; // with its trailing slash, or empty for the working folder
    std::string m_temp;   // the hidden name while one exists
    int m_fd = -1;
    int m_slot = -1; // where the signal handler finds m_temp
    bool m_spool = false;
};
