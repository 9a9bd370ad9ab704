#include "CFileType.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

bool Starts(const unsigned char* p, size_t n, const char* magic, size_t at = 0) {
    const size_t m = std::strlen(magic);
    return n >= at + m && std::memcmp(p + at, magic, m) == 0;
}

// An MPEG audio frame header: sync, a version, a layer, a bitrate and a rate that exist.
bool IsMpegFrame(const unsigned char* p, size_t n) {
    if (n < 4 || p[0] != 0xFF || (p[1] & 0xE0) != 0xE0)
        return false;
    const int version = (p[1] >> 3) & 3, layer = (p[1] >> 1) & 3;
    const int bitrate = p[2] >> 4, rate = (p[2] >> 2) & 3;
    return version != 1 && layer != 0 && bitrate != 15 && rate != 3;
}

bool IsAdts(const unsigned char* p, size_t n) {
    // sync, layer 0 (AAC), then a sampling index below 13
    return n >= 7 && p[0] == 0xFF && (p[1] & 0xF6) == 0xF0 && ((p[2] >> 2) & 15) < 13;
}

} // namespace

CFileType::Kind CFileType::OfBytes(const unsigned char* p, size_t n) {
    if (n == 0)
        return Empty;
    if (Starts(p, n, "RIFF") && Starts(p, n, "WAVE", 8))
        return Wav;
    if ((Starts(p, n, "RF64") || Starts(p, n, "BW64")) && Starts(p, n, "WAVE", 8))
        return Rf64;
    if (Starts(p, n, "riff") && n >= 16 && p[4] == 0x2E && p[5] == 0x91)
        return Wave64;
    if (Starts(p, n, "FORM") && (Starts(p, n, "AIFF", 8) || Starts(p, n, "AIFC", 8)))
        return Aiff;
    if (Starts(p, n, "fLaC"))
        return Flac;
    if (Starts(p, n, "OggS"))
        return Ogg;
    if (Starts(p, n, "caff"))
        return Caf;
    if (Starts(p, n, ".snd"))
        return Au;
    if (Starts(p, n, "ID3") || IsMpegFrame(p, n))
        return Mp3;
    if (Starts(p, n, "ftyp", 4))
        return Mpeg4Audio;
    static const unsigned char kAsf[] = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11};
    if (n >= sizeof(kAsf) && std::memcmp(p, kAsf, sizeof(kAsf)) == 0)
        return Asf;
    if (Starts(p, n, "\x1A\x45\xDF\xA3"))
        return Matroska;
    if (IsAdts(p, n))
        return AdtsAac;
    if (Starts(p, n, "\x89PNG\r\n\x1A\n"))
        return Png;
    if (Starts(p, n, "\xFF\xD8\xFF"))
        return Jpeg;
    if (Starts(p, n, "GIF87a") || Starts(p, n, "GIF89a"))
        return Gif;
    if (Starts(p, n, "BM") && n >= 18 && p[14] >= 12 && p[15] == 0)
        return Bmp;
    if (Starts(p, n, "PK\x03\x04"))
        return Zip;
    if (Starts(p, n, "%PDF-"))
        return Pdf;
    if (Starts(p, n,
               "\x7F"
               "ELF"))
        return Elf;
    if (Starts(p, n, "CcnK"))
        return VstBank;
    return Unknown;
}

CFileType::Kind CFileType::OfFile(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return errno == ENOENT || errno == ENOTDIR ? Missing : Unreadable;
    if (S_ISDIR(st.st_mode))
        return Folder;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return Unreadable;
    unsigned char head[64];
    ssize_t got;
    do
        got = read(fd, head, sizeof(head));
    while (got < 0 && errno == EINTR);
    close(fd);
    if (got < 0)
        return Unreadable;
    return OfBytes(head, static_cast<size_t>(got));
}

const char* CFileType::Describe(Kind k) {
    switch (k) {
    case Missing:
        return "missing";
    case Folder:
        return "a folder";
    case Unreadable:
        return "not readable";
    case Empty:
        return "empty";
    case Unknown:
        return "not a file type this build knows";
    case Wav:
        return "a WAV audio file";
    case Rf64:
        return "an RF64 audio file";
    case Wave64:
        return "a Wave64 audio file";
    case Aiff:
        return "an AIFF audio file";
    case Flac:
        return "a FLAC audio file";
    case Ogg:
        return "an Ogg audio file";
    case Mp3:
        return "an MP3 audio file";
    case Caf:
        return "a Core Audio file";
    case Au:
        return "an AU audio file";
    case Mpeg4Audio:
        return "an MPEG-4 audio file (AAC or ALAC)";
    case Asf:
        return "a Windows Media audio file";
    case Matroska:
        return "a Matroska or WebM file";
    case AdtsAac:
        return "a raw AAC audio stream";
    case Png:
        return "a PNG picture";
    case Jpeg:
        return "a JPEG picture";
    case Gif:
        return "a GIF picture";
    case Bmp:
        return "a BMP picture";
    case Zip:
        return "a ZIP archive";
    case Pdf:
        return "a PDF document";
    case Elf:
        return "a program or library";
    case VstBank:
        return "a VST bank or preset";
    }
    return "not a file type this build knows";
}
