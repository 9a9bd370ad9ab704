#include "CommandDocs.h"

#include <CLI/CLI.hpp>

#include <set>

namespace {

// roff treats a leading dot or quote as a request and a backslash as an escape.
std::string Roff(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\')
            out += "\\e";
        else if (c == '-')
            out += "\\-";
        else
            out += c;
    }
    if (!out.empty() && (out[0] == '.' || out[0] == '\''))
        out = "\\&" + out;
    return out;
}

std::vector<const CLI::App*> Commands(const CLI::App& app) {
    std::vector<const CLI::App*> list;
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; }))
        list.push_back(sub);
    return list;
}

std::vector<const CLI::Option*> Shown(const CLI::App& app) {
    std::vector<const CLI::Option*> list;
    for (const CLI::Option* o : app.get_options())
        if (!o->get_group().empty())
            list.push_back(o);
    return list;
}

std::string Usage(const CLI::App& cmd) {
    std::string text = "morvane " + cmd.get_name() + " [OPTIONS]";
    for (const CLI::Option* o : Shown(cmd))
        if (o->get_positional())
            text += " " + std::string(o->get_required() ? "" : "[") + o->get_name() +
                    (o->get_expected_max() > 1 ? "..." : "") + (o->get_required() ? "" : "]");
    return text;
}

} // namespace

std::string CommandDocs::Man(const CLI::App& app, const std::string& version) {
    std::string m = ".TH MORVANE 1 \"\" \"morvane " + version + "\" \"User Commands\"\n";
    m += ".SH NAME\nmorvane \\- " + Roff(app.get_description()) + "\n";
    m += ".SH SYNOPSIS\n";
    for (const CLI::App* cmd : Commands(app))
        m += ".B " + Roff(Usage(*cmd)) + "\n.br\n";
    m += ".SH DESCRIPTION\nmorvane renders audio files through the Morvane VST 2.4 plug-in, as an "
         "offline host does, and shows what an audio file or a plug-in holds. Output files are "
         "written whole or not at all.\n";
    for (const CLI::App* cmd : Commands(app)) {
        m += ".SH " + Roff(cmd->get_name()) + "\n" + Roff(cmd->get_description()) + "\n";
        for (const CLI::Option* o : Shown(*cmd)) {
            if (o->get_name() == "--help")
                continue;
            std::string names = o->get_positional() ? o->get_name() : o->get_name(false, true);
            if (!o->get_positional() && o->get_type_size() != 0)
                names +=
                    " " + (o->get_type_name().empty() ? std::string("VALUE") : o->get_type_name());
            m += ".TP\n.B " + Roff(names) + "\n" + Roff(o->get_description()) + "\n";
        }
    }
    m += ".SH EXIT STATUS\n0 done; 1 some files of a batch failed; 2 a wrong command line; 3 an "
         "input that cannot be read; 4 an output that cannot be written; 5 no usable plug-in; "
         "128 + the signal when interrupted (130 for Ctrl-C, 143 for SIGTERM).\n";
    m += ".SH ENVIRONMENT\n.TP\n.B MORVANE_PLUGIN\nThe plug-in file to load instead of the one "
         "found.\n.TP\n.B XDG_CONFIG_HOME\nWhere the user's bank, Morvane.fxb, is kept.\n";
    m += ".SH EXAMPLES\n.nf\nmorvane render \\-t 150 in.wav out.flac\nmorvane render \\-s \\-3 "
         "\\-d slower *.mp3\nmorvane render \\-\\-program 46 in.wav \\- | aplay\nmorvane info "
         "out.flac\n.fi\n";
    return m;
}

std::string CommandDocs::BashCompletion(const CLI::App& app) {
    std::string commands;
    std::string cases;
    for (const CLI::App* cmd : Commands(app)) {
        commands += (commands.empty() ? "" : " ") + cmd->get_name();
        std::string words;
        for (const CLI::Option* o : Shown(*cmd)) {
            if (o->get_positional())
                continue;
            for (const std::string& s : o->get_snames())
                words += " -" + s;
            for (const std::string& l : o->get_lnames())
                words += " --" + l;
        }
        cases += "        " + cmd->get_name() + ") opts=\"" + words.substr(1) + "\" ;;\n";
    }
    std::string s = "# bash completion for morvane\n_morvane() {\n"
                    "    local cur prev cmd opts i\n"
                    "    cur=${COMP_WORDS[COMP_CWORD]}\n    prev=${COMP_WORDS[COMP_CWORD-1]}\n"
                    "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
                    "        case ${COMP_WORDS[i]} in -*) ;; *) cmd=${COMP_WORDS[i]}; break ;; "
                    "esac\n    done\n"
                    "    if [[ -z $cmd ]]; then\n"
                    "        COMPREPLY=($(compgen -W \"" +
                    commands +
                    " --help --version\" -- \"$cur\"))\n        return\n    fi\n"
                    "    case $prev in\n"
                    "        -f|--format) COMPREPLY=($(compgen -W \"wav aiff flac ogg opus mp3 "
                    "caf w64 rf64 au\" -- \"$cur\")); return ;;\n"
                    "        --bits) COMPREPLY=($(compgen -W \"8 16 24 32 float double\" -- "
                    "\"$cur\")); return ;;\n"
                    "        --low-sound) COMPREPLY=($(compgen -W \"on off\" -- \"$cur\")); "
                    "return ;;\n"
                    "        -d|--dir) COMPREPLY=($(compgen -d -- \"$cur\")); return ;;\n"
                    "        -t|--time|-p|--pitch|-s|--semitones|--ratio|-l|--level|-b|--block|"
                    "-j|--jobs|--program) return ;;\n"
                    "    esac\n"
                    "    case $cmd in\n" +
                    cases + "        help) COMPREPLY=($(compgen -W \"" + commands +
                    "\" -- \"$cur\")); return ;;\n"
                    "    esac\n"
                    "    if [[ $cur == -* ]]; then\n"
                    "        COMPREPLY=($(compgen -W \"$opts\" -- \"$cur\"))\n"
                    "    else\n"
                    "        COMPREPLY=($(compgen -f -- \"$cur\"))\n"
                    "    fi\n"
                    "}\ncomplete -o filenames -F _morvane morvane\n";
    return s;
}
