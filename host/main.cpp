// morvane: renders audio files through the Morvane plug-in, the way a VST 2.4 offline host does,
// and shows what a plug-in file holds. Each command lives in its own file.
#include <CLI/CLI.hpp>

#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>

#include "AudioWriter.h"
#include "BankCommand.h"
#include "CommandDocs.h"
#include "DemoCommand.h"
#include "GuiCommand.h"
#include "HelpCommand.h"
#include "HostError.h"
#include "InfoCommand.h"
#include "RenderCommand.h"
#include "VstPlugin.h"

namespace {

// Interrupted (Ctrl-C, a service manager's SIGTERM, a closed terminal or dropped connection's
// SIGHUP): 128 + the signal, as shells report it. Only async-signal-safe calls.
void OnSignal(int sig) {
    AudioWriter::RemoveAllTemporary();
    const char msg[] = "\nmorvane: interrupted; no partial output was left\n";
    (void)!write(2, msg, sizeof(msg) - 1);
    _exit(128 + sig);
}

std::string Versions() {
    std::string text = "morvane " MORVANE_VERSION "\n";
    try {
        const std::string path = VstPlugin::FindMorvane();
        if (path.empty()) {
            text += "plug-in      not found\n";
        } else {
            VstPlugin p(path);
            text += "plug-in      " + path + " (" + p.Text(effGetEffectName) + ", version " +
                    std::to_string(p.Dispatch(effGetVendorVersion)) + ")\n";
        }
    } catch (const std::exception& e) {
        text += std::string("plug-in      ") + e.what() + "\n";
    }
    // (named, not loaded: a plain WAV job never needs it)
    return text + "audio files  plain WAV read and written here; other formats through "
                  "libsndfile.so.1 and, for MP3, libmpg123.so.0";
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Morvane: stretch or shorten audio without changing its pitch, transpose it "
                 "without changing its length, or both.",
                 "morvane"};
    app.require_subcommand(0, 1);
    // Every error in one voice, with the usage of the command it belongs to.
    app.failure_message([](const CLI::App* a, const CLI::Error& e) {
        std::string what = e.what();
        if (!what.empty())
            what[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(what[0])));
        const CLI::App* shown = a;
        for (const CLI::App* sub : a->get_subcommands())
            shown = sub;
        return "morvane: " + what + "\n\n" + Command::HelpOf(shown);
    });
    app.set_version_flag("-V,--version", Versions);

    RenderCommand render(app);
    InfoCommand info(app);
    BankCommand bank(app);
    DemoCommand demo(app);
    GuiCommand gui(app);
    HelpCommand help(app);
    // The manual page and the shell completion are made from these same texts at build time.
    std::string docs;
    app.add_option("--generate", docs, "man or bash-completion")
        ->check(CLI::IsMember({"man", "bash-completion"}))
        ->group("");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kExitOk : kExitUsage;
    }
    if (!docs.empty()) {
        std::fputs((docs == "man" ? CommandDocs::Man(app, MORVANE_VERSION)
                                  : CommandDocs::BashCompletion(app))
                       .c_str(),
                   stdout);
        return kExitOk;
    }

    struct sigaction fatal {};
    fatal.sa_handler = OnSignal;
    sigfillset(&fatal.sa_mask); // one handler at a time
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &fatal, nullptr);
    signal(SIGPIPE, SIG_IGN); // a closed standard output is a write error, said as one

    for (Command* command :
         std::initializer_list<Command*>{&render, &info, &bank, &demo, &gui, &help}) {
        if (!command->Chosen())
            continue;
        try {
            return command->Run();
        } catch (const std::exception& e) {
            return Fail(e);
        }
    }
    return help.RunUnasked();
}
