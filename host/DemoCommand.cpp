#include "DemoCommand.h"

#include <CLI/CLI.hpp>

#include "AudioWriter.h"
#include "DemoSong.h"
#include "HostError.h"

DemoCommand::DemoCommand(CLI::App& parent)
    : Command(parent, "demo", "Write the 12-second demo piece (stereo, 24-bit WAV)") {
    m_cmd->add_option("output", m_path, "File to write")->required();
}

int DemoCommand::Run() {
    constexpr int kRate = 44100;
    try {
        const auto song = DemoSong::Render(kRate);
        AudioWriter w(m_path, SF_FORMAT_WAV | SF_FORMAT_PCM_24, 2, kRate);
        w.Write(song.data(), static_cast<sf_count_t>(song.size() / 2));
        w.Commit();
    } catch (const std::exception& e) {
        throw OutputError(e.what());
    }
    return kExitOk;
}
