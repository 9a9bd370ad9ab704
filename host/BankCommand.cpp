#include "BankCommand.h"

#include <CLI/CLI.hpp>

#include "BankTool.h"
#include "HostError.h"
#include "VstPlugin.h"

BankCommand::BankCommand(CLI::App& parent)
    : Command(parent, "bank",
              "List a bank file's programs, or export or import the plug-in's bank") {
    m_cmd->add_option("file", m_list, "A bank file (.fxb) to list");
    m_cmd->add_option("--export", m_export, "Write the plug-in's current bank to this .fxb");
    m_cmd->add_option("--import", m_import,
                      "Make this .fxb the user's bank, which the plug-in loads from now on");
    m_cmd->add_option("--plugin", m_plugin, "The plug-in file (default: found)");
}

int BankCommand::Run() {
    if (m_list.empty() == (m_export.empty() && m_import.empty()) ||
        (!m_export.empty() && !m_import.empty()))
        throw UsageError("bank takes a FILE to list, or --export FILE, or --import FILE");
    BankTool tool(VstPlugin::Locate(m_plugin));
    if (!m_list.empty())
        tool.List(m_list);
    else if (!m_export.empty())
        tool.Export(m_export);
    else
        tool.Import(m_import);
    return kExitOk;
}
