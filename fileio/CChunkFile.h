#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A file made of tagged chunks, four-character id and length before each body: RIFF and RF64
// (little-endian lengths) and IFF's FORM (big-endian), as WAV and AIFF are. Lists the chunks
// with the length each one declares and the length the file really holds, so that a header
// that promises more than is there can be told apart from a whole file.
class CChunkFile {
public:
    struct Chunk {
        std::string id;         // four characters
        uint64_t offset = 0;    // of the body
        uint64_t declared = 0;  // the length its header gives
        uint64_t available = 0; // what the file holds of it
    };

    // False when the file cannot be read or is not made of chunks.
    bool Open(const std::string& path);

    const std::string& Form() const { return m_form; } // "WAVE", "AIFF", "AIFC"
    const std::vector<Chunk>& Chunks() const { return m_chunks; }
    const Chunk* Find(const char* id) const;
    // Up to n bytes of a chunk's body.
    std::vector<unsigned char> Body(const Chunk& c, size_t n) const;

    // Frames that the sound chunk's header promises (data for WAV, COMM for AIFF); 0 unknown.
    uint64_t DeclaredFrames() const;
    // Frames the file really holds in it.
    uint64_t AvailableFrames() const;

private:
    uint64_t FrameBytes() const;

    std::string m_path;
    std::string m_form;
    bool m_bigEndian = false;
    std::vector<Chunk> m_chunks;
};
