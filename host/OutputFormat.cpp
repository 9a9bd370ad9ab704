#include "OutputFormat.h"

#include <sndfile.h>

#include <cctype>
#include <initializer_list>

#include "AudioLibraries.h"
#include "RenderJob.h"
#include "WavWriter.h"

namespace {

const AudioLibraries::SndfileTable& Sf() {
    return AudioLibraries::Sndfile();
}

struct Container {
    const char* word;
    int format;
};
constexpr Container kContainers[] = {
    {"wav", SF_FORMAT_WAV},
    {"wave", SF_FORMAT_WAV},
    {"aiff", SF_FORMAT_AIFF},
    {"aif", SF_FORMAT_AIFF},
    {"aifc", SF_FORMAT_AIFF},
    {"flac", SF_FORMAT_FLAC},
    {"ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
    {"oga", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
    {"opus", SF_FORMAT_OGG | SF_FORMAT_OPUS},
    {"mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III},
    {"caf", SF_FORMAT_CAF},
    {"w64", SF_FORMAT_W64},
    {"rf64", SF_FORMAT_RF64},
    {"au", SF_FORMAT_AU},
    {"snd", SF_FORMAT_AU},
};
// Extensions of audio that this build reads or writes in no form.
constexpr const char* kForeign[] = {"m4a", "mp4", "aac", "alac", "wma", "mka", "webm", "ac3"};

struct Depth {
    const char* word;
    int format;
};
constexpr Depth kDepths[] = {
    {"8", SF_FORMAT_PCM_U8},  {"16", SF_FORMAT_PCM_16},   {"24", SF_FORMAT_PCM_24},
    {"32", SF_FORMAT_PCM_32}, {"float", SF_FORMAT_FLOAT}, {"double", SF_FORMAT_DOUBLE},
};

std::string Lower(std::string s) {
    for (char& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool Valid(int format, int channels, int rate) {
    if (WavWriter::Writes(format))
        return channels > 0 && rate > 0;
    SF_INFO info{};
    info.format = format;
    info.channels = channels;
    info.samplerate = rate;
    return Sf().sf_format_check(&info) != 0;
}

bool IsCodec(int sub) {
    return sub == SF_FORMAT_VORBIS || sub == SF_FORMAT_OPUS || sub == SF_FORMAT_MPEG_LAYER_I ||
           sub == SF_FORMAT_MPEG_LAYER_II || sub == SF_FORMAT_MPEG_LAYER_III;
}

} // namespace

const char* OutputFormat::Words() {
    return "wav, aiff, flac, ogg, opus, mp3, caf, w64, rf64 or au";
}

int OutputFormat::FromWord(const std::string& word) {
    const std::string w = Lower(word);
    for (const Container& c : kContainers)
        if (w == c.word)
            return c.format;
    for (const char* f : kForeign)
        if (w == f)
            throw UsageError("this build cannot write ." + w + " files; write one of " +
                             std::string(Words()) + " and convert it");
    return 0;
}

int OutputFormat::FromName(const std::string& path) {
    const size_t slash = path.rfind('/');
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
        dot == (slash == std::string::npos ? 0 : slash + 1))
        return 0;
    return FromWord(path.substr(dot + 1));
}

int OutputFormat::Depth(const std::string& word) {
    for (const auto& d : kDepths)
        if (word == d.word)
            return d.format;
    throw UsageError("--bits takes 8, 16, 24, 32, float or double");
}

int OutputFormat::Choose(int wanted, int depth, int input, int channels, int rate) {
    const int container = wanted ? wanted & SF_FORMAT_TYPEMASK : input & SF_FORMAT_TYPEMASK;
    if (depth)
        return container | depth; // checked when the file is opened, with a clear message
    int implied = wanted & SF_FORMAT_SUBMASK;
    if (implied)
        return container | implied;
    // A codec goes only into its own container (libsndfile's check lets MP3 into WAV, its
    // writer does not).
    int from = input & SF_FORMAT_SUBMASK;
    if (IsCodec(from) && container != (input & SF_FORMAT_TYPEMASK))
        from = SF_FORMAT_PCM_16;
    // The input's samples when the container holds them, else the nearest it does.
    const int pcm = IsCodec(from) ? SF_FORMAT_PCM_16 : from;
    const int u8s8 = pcm == SF_FORMAT_PCM_U8   ? SF_FORMAT_PCM_S8
                     : pcm == SF_FORMAT_PCM_S8 ? SF_FORMAT_PCM_U8
                                               : pcm;
    for (int sub : {from, pcm, u8s8, int{SF_FORMAT_PCM_24}, int{SF_FORMAT_PCM_16}})
        if (Valid(container | sub, channels, rate))
            return container | sub;
    if (container == SF_FORMAT_OGG)
        return container | SF_FORMAT_VORBIS;
    if (container == SF_FORMAT_MPEG)
        return container | SF_FORMAT_MPEG_LAYER_III;
    return container | SF_FORMAT_PCM_24;
}

std::string OutputFormat::Extension(int format) {
    const int container = format & SF_FORMAT_TYPEMASK;
    if (container == SF_FORMAT_OGG && (format & SF_FORMAT_SUBMASK) == SF_FORMAT_OPUS)
        return "opus";
    for (const Container& c : kContainers)
        if ((c.format & SF_FORMAT_TYPEMASK) == container)
            return c.word;
    return "wav";
}

std::string OutputFormat::Describe(int format) {
    // plain WAV's words as libsndfile has them, without loading it
    const int container = format & SF_FORMAT_TYPEMASK, sub = format & SF_FORMAT_SUBMASK;
    if (container == SF_FORMAT_WAV || container == SF_FORMAT_WAVEX) {
        const char* depth = sub == SF_FORMAT_PCM_16   ? "Signed 16 bit PCM"
                            : sub == SF_FORMAT_PCM_24 ? "Signed 24 bit PCM"
                            : sub == SF_FORMAT_PCM_32 ? "Signed 32 bit PCM"
                            : sub == SF_FORMAT_FLOAT  ? "32 bit float"
                                                      : nullptr;
        if (depth)
            return std::string(container == SF_FORMAT_WAV ? "WAV" : "WAVEX") + " (Microsoft), " +
                   depth;
    }
    SF_FORMAT_INFO major{format & SF_FORMAT_TYPEMASK, nullptr, nullptr};
    SF_FORMAT_INFO minor{format & SF_FORMAT_SUBMASK, nullptr, nullptr};
    std::string text = Sf().sf_command(nullptr, SFC_GET_FORMAT_INFO, &major, sizeof(major)) == 0
                           ? major.name
                           : "unknown";
    if (Sf().sf_command(nullptr, SFC_GET_FORMAT_INFO, &minor, sizeof(minor)) == 0)
        text += std::string(", ") + minor.name;
    return text;
}
