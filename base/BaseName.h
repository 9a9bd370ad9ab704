#pragma once

#include <string>

// A file's name without its folder, as messages name it: "in.wav" for "/takes/in.wav".
inline std::string BaseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1); // npos + 1: no folder at all
}
