#pragma once

#include <string>

// The output file's libsndfile format: the container from -f or from the output's extension,
// as sox and ffmpeg take it, else the input's; the samples from --bits, else the input's when
// the container holds them, else the nearest it does.
class OutputFormat {
public:
    // A container word (-f, or an extension): its format with the codec it implies (Ogg is
    // Vorbis, opus and mp3 their own), 0 when the word names none. Throws UsageError for a
    // container this build cannot write.
    static int FromWord(const std::string& word);
    // FromWord of the path's extension; 0 when there is none or it names no audio container.
    static int FromName(const std::string& path);
    // Throws UsageError for a word that names no sample format.
    static int Depth(const std::string& word);

    // The format to write: wanted's container (0: the input's) with depth (0: chosen here).
    static int Choose(int wanted, int depth, int inputFormat, int channels, int rate);

    static std::string Extension(int format);
    // "FLAC, 24-bit" for a person.
    static std::string Describe(int format);
    static const char* Words(); // "wav, aiff, flac, ..." for help texts
};
