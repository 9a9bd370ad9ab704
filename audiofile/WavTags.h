#pragma once

#include <map>
#include <string>
#include <vector>

// A WAV file's texts (its LIST chunk of form INFO) by libsndfile's SF_STR_ numbers, under the
// same four-letter ids libsndfile reads and writes, so that the two stay interchangeable.
class WavTags {
public:
    // Adds what a LIST chunk's body holds; anything else (another form, a cut-short entry) is
    // passed over.
    static void Parse(const std::vector<unsigned char>& body, std::map<int, std::string>& tags);
    // The whole chunk, header included; empty when no tag has a place in WAV.
    static std::vector<unsigned char> Build(const std::map<int, std::string>& tags);
};
