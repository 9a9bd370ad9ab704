#pragma once

#include <string>

#include "VstPlugin.h"

// Bank files through the plug-in's own bank chunk, as a DAW loads and saves .fxb files: the
// plug-in reads the chunk and hands it back, so only what it accepts is ever written.
class BankTool {
public:
    explicit BankTool(const std::string& pluginPath);

    // Prints the programs of a bank file with their settings. Throws InputError.
    void List(const std::string& path);
    // Writes the plug-in's current bank (the user's, else the factory bank). Throws OutputError.
    void Export(const std::string& path);
    // Checks the file through the plug-in and makes it the user's bank. Throws on failure.
    void Import(const std::string& path);

private:
    void Load(const std::string& path); // into the plug-in, through setChunk
    void Write(const std::string& path);

    VstPlugin m_plugin;
};
