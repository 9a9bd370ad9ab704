#pragma once

#include <cstddef>
#include <string>

// What a file holds, told from its first bytes rather than its name, so that a user hears
// "an MPEG-4 audio file" instead of a decoder's "format not recognised".
class CFileType {
public:
    enum Kind {
        Missing,
        Folder,
        Unreadable, // exists, but cannot be opened
        Empty,
        Unknown,
        // audio this build reads
        Wav,
        Rf64,
        Wave64,
        Aiff,
        Flac,
        Ogg,
        Mp3,
        Caf,
        Au,
        // audio it does not
        Mpeg4Audio,
        Asf,
        Matroska,
        AdtsAac,
        // pictures
        Png,
        Jpeg,
        Gif,
        Bmp,
        // others worth naming
        Zip,
        Pdf,
        Elf,
        VstBank,
    };

    static Kind OfBytes(const unsigned char* head, size_t size);
    // Reads the first bytes of path; errno-style troubles become Missing, Folder or Unreadable.
    static Kind OfFile(const std::string& path);

    static bool IsAudio(Kind k) { return k >= Wav && k <= AdtsAac; }
    static bool IsReadableAudio(Kind k) { return k >= Wav && k <= Au; }
    static bool IsPicture(Kind k) { return k >= Png && k <= Bmp; }
    // "an MPEG-4 audio file", "a PNG picture": to follow "is".
    static const char* Describe(Kind k);
};
