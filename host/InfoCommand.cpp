#include "InfoCommand.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <vector>

#include "AudioReader.h"
#include "CChunkFile.h"
#include "CFileType.h"
#include "HostError.h"
#include "OutputFormat.h"
#include "VstPlugin.h"

InfoCommand::InfoCommand(CLI::App& parent)
    : Command(parent, "info",
              "Show what an audio file holds (and how Morvane made it), or a VST 2.4 plug-in") {
    m_cmd->add_option("file", m_path, "An audio file or a plug-in (default: Morvane)");
}

int InfoCommand::Run() {
    // an audio file, told by its contents; anything else is taken for a plug-in
    const CFileType::Kind kind = m_path.empty() ? CFileType::Unknown : CFileType::OfFile(m_path);
    if (kind == CFileType::Missing)
        throw InputError(m_path + ": there is no such file");
    if (kind == CFileType::Folder)
        throw InputError(m_path + " is a folder; name a file in it");
    if (CFileType::IsAudio(kind)) {
        try {
            PrintAudio(m_path);
        } catch (const std::exception& e) {
            throw InputError(e.what());
        }
        return kExitOk;
    }
    const std::string path = VstPlugin::Locate(m_path);
    try {
        VstPlugin p(path);
        p.Dispatch(effOpen);
        PrintPlugin(p);
    } catch (const std::exception& e) {
        throw PluginError(e.what());
    }
    return kExitOk;
}

void InfoCommand::PrintAudio(const std::string& path) {
    AudioReader r(path);
    static const std::pair<int, const char*> kTags[] = {
        {SF_STR_TITLE, "Title"},       {SF_STR_ARTIST, "Artist"},   {SF_STR_ALBUM, "Album"},
        {SF_STR_DATE, "Date"},         {SF_STR_GENRE, "Genre"},     {SF_STR_COPYRIGHT, "Copyright"},
        {SF_STR_SOFTWARE, "Software"}, {SF_STR_COMMENT, "Comment"},
    };
    const double seconds = r.SampleRate() ? double(r.Frames()) / r.SampleRate() : 0;
    std::printf("File         %s\n", path.c_str());
    std::printf("Format       %s\n", OutputFormat::Describe(r.Format()).c_str());
    std::printf("Channels     %d\n", r.Channels());
    std::printf("Rate         %d Hz\n", r.SampleRate());
    std::printf("Length       %d:%06.3f (%lld frames)\n", static_cast<int>(seconds / 60),
                std::fmod(seconds, 60.0), static_cast<long long>(r.Frames()));
    if (r.MissingFrames())
        std::printf("Cut short    %lld frames missing\n",
                    static_cast<long long>(r.MissingFrames()));
    if (CChunkFile chunks; chunks.Open(path)) { // where WAV and AIFF keep their tags
        std::string list;
        for (const auto& c : chunks.Chunks())
            list += (list.empty() ? "" : ", ") + c.id + " " + std::to_string(c.declared);
        std::printf("Chunks       %s\n", list.c_str());
    }
    for (const auto& [id, name] : kTags) {
        const auto it = r.Tags().find(id);
        if (it == r.Tags().end())
            continue;
        std::string text = it->second;
        for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 14)
            text.replace(at, 1, "\n             "); // later lines under the first
        std::printf("%-12s %s\n", name, text.c_str());
    }
}

void InfoCommand::PrintPlugin(const VstPlugin& p) {
    const AEffect* e = p.Effect();
    const VstInt32 id = e->uniqueID;
    char code[5] = {char(id >> 24), char(id >> 16), char(id >> 8), char(id), 0};
    for (char& c : code)
        if (c && (c < 32 || c > 126))
            c = '?';
    static const char* const kCategories[] = {"unknown",     "effect",  "instrument", "analysis",
                                              "mastering",   "spatial", "room",       "surround",
                                              "restoration", "offline", "shell",      "generator"};
    const VstIntPtr category = p.Dispatch(effGetPlugCategory);
    std::printf("Plug-in      %s\n", p.Path().c_str());
    std::printf("Effect       %s\n", p.Text(effGetEffectName).c_str());
    std::printf("Vendor       %s\n", p.Text(effGetVendorString).c_str());
    std::printf("Product      %s\n", p.Text(effGetProductString).c_str());
    std::printf("Version      %ld (vendor), %d (record), VST %ld\n",
                static_cast<long>(p.Dispatch(effGetVendorVersion)), e->version,
                static_cast<long>(p.Dispatch(effGetVstVersion)));
    std::printf("Unique ID    '%s' (0x%08X)\n", code, static_cast<unsigned>(id));
    std::printf("Category     %s\n",
                category >= 0 && category < 12 ? kCategories[category] : "unknown");
    std::printf("Channels     %d in, %d out\n", e->numInputs, e->numOutputs);
    std::printf("Delay        %d frames\n", e->initialDelay);
    std::printf("Flags        %s%s%s%s%s\n", e->flags & effFlagsHasEditor ? "editor " : "",
                e->flags & effFlagsCanReplacing ? "replacing " : "",
                e->flags & effFlagsCanDoubleReplacing ? "double " : "",
                e->flags & effFlagsProgramChunks ? "chunks " : "",
                e->flags & effFlagsIsSynth ? "synth " : "");

    std::printf("\nParameters (%d)\n", e->numParams);
    for (int i = 0; i < e->numParams; ++i)
        std::printf("  %3d  %-24s %12s %-8s (value %.6g)\n", i, p.Text(effGetParamName, i).c_str(),
                    p.Text(effGetParamDisplay, i).c_str(), p.Text(effGetParamLabel, i).c_str(),
                    p.GetParameter(i));

    std::printf("\nPrograms (%d)\n", e->numPrograms);
    for (int i = 0; i < e->numPrograms; ++i) {
        std::vector<char> name(1024, 0);
        if (!p.Dispatch(effGetProgramNameIndexed, i, 0, name.data()))
            break;
        std::printf("  %3d  %s\n", i + 1, name.data());
    }

    std::printf("\nCapabilities\n");
    for (const char* can :
         {"offline", "bypass", "receiveVstEvents", "receiveVstMidiEvent", "sendVstEvents",
          "sendVstMidiEvent", "receiveVstTimeInfo", "midiProgramNames"}) {
        const VstIntPtr answer = p.Dispatch(effCanDo, 0, 0, const_cast<char*>(can));
        std::printf("  %-22s %s\n", can, answer > 0 ? "yes" : answer < 0 ? "no" : "-");
    }
}
