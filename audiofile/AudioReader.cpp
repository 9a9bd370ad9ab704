#include "AudioReader.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "AudioLibraries.h"
#include "CChunkFile.h"
#include "CFileType.h"
#include "WavReader.h"

namespace {

const AudioLibraries::SndfileTable& Sf() {
    return AudioLibraries::Sndfile();
}

const AudioLibraries::Mpg123Table& Mp3() {
    return AudioLibraries::Mpg123();
}

std::runtime_error Refuse(const std::string& path, CFileType::Kind kind) {
    using K = CFileType;
    switch (kind) {
    case K::Missing:
        return std::runtime_error("cannot read " + path + ": there is no such file");
    case K::Unreadable:
        return std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    case K::Folder:
        return std::runtime_error(path + " is a folder; name the audio files in it");
    case K::Empty:
        return std::runtime_error("cannot read " + path + ": the file is empty");
    default:
        break;
    }
    if (K::IsAudio(kind))
        return std::runtime_error(path + " is " + K::Describe(kind) +
                                  ", which this build cannot read; convert it first (to WAV, "
                                  "FLAC, Ogg or MP3)");
    return std::runtime_error(path + " is " + K::Describe(kind) + ", not audio");
}

void AddTag(std::map<int, std::string>& tags, int id, const mpg123_string* s) {
    if (s && s->fill > 1)
        tags[id] = std::string(s->p, s->fill - 1);
}

} // namespace

std::string AudioReader::Clause(const char* text) {
    std::string out;
    for (const char* p = text ? text : ""; *p; ++p) {
        const bool space = std::isspace(static_cast<unsigned char>(*p));
        if (space && (out.empty() || out.back() == ' '))
            continue;
        out += space ? ' ' : *p;
    }
    while (!out.empty() && (out.back() == ' ' || out.back() == '.'))
        out.pop_back();
    if (!out.empty() && out.size() > 1 && std::islower(static_cast<unsigned char>(out[1])))
        out[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(out[0])));
    return out.empty() ? "unknown error" : out;
}

AudioReader::AudioReader(const std::string& path) : m_path(path) {
    const CFileType::Kind kind = CFileType::OfFile(path);
    if (kind == CFileType::Mp3) {
        OpenMp3();
        return;
    }
    if (!CFileType::IsReadableAudio(kind) && kind != CFileType::Unknown)
        throw Refuse(path, kind);
    if (kind == CFileType::Wav && (m_wav = WavReader::Open(path))) {
        m_info = m_wav->Info();
        m_tags = m_wav->Tags();
        if (m_wav->Declared() > m_info.frames)
            m_missing = m_wav->Declared() - m_info.frames;
        return;
    }
    m_file = Sf().sf_open(path.c_str(), SFM_READ, &m_info);
    if (!m_file) {
        if (kind == CFileType::Unknown)
            throw std::runtime_error(path + " is not audio this build can read");
        throw std::runtime_error("cannot read " + path + ": " + Clause(Sf().sf_strerror(nullptr)));
    }
    for (int id = SF_STR_FIRST; id <= SF_STR_LAST; ++id)
        if (const char* s = Sf().sf_get_string(m_file, id); s && *s)
            m_tags[id] = s;
    // libsndfile reads a file cut short as far as it goes; its header still tells how far it
    // should have gone.
    if (kind == CFileType::Wav || kind == CFileType::Rf64 || kind == CFileType::Aiff) {
        CChunkFile chunks;
        if (chunks.Open(path)) {
            const uint64_t declared = chunks.DeclaredFrames();
            if (declared > static_cast<uint64_t>(m_info.frames))
                m_missing = static_cast<sf_count_t>(declared) - m_info.frames;
        }
    }
}

void AudioReader::OpenMp3() {
    int err = MPG123_OK;
    m_mp3 = Mp3().mpg123_new(nullptr, &err);
    if (!m_mp3)
        throw std::runtime_error("cannot read " + m_path + ": " + Mp3().mpg123_plain_strerror(err));
    Mp3().mpg123_param(m_mp3, MPG123_ADD_FLAGS, MPG123_QUIET, 0);
    long rate = 0;
    int channels = 0, encoding = 0;
    const auto fail = [&] {
        std::string why = Clause(Mp3().mpg123_strerror(m_mp3));
        Mp3().mpg123_delete(m_mp3);
        m_mp3 = nullptr;
        return std::runtime_error("cannot read " + m_path + ": " + why);
    };
    // Float output in the stream's own channels, and the exact length from a scan of every
    // frame (gapless: the encoder's delay and padding are not counted).
    if (Mp3().mpg123_open_fixed(m_mp3, m_path.c_str(), MPG123_MONO | MPG123_STEREO,
                                MPG123_ENC_FLOAT_32) != MPG123_OK ||
        Mp3().mpg123_scan(m_mp3) != MPG123_OK ||
        Mp3().mpg123_getformat(m_mp3, &rate, &channels, &encoding) != MPG123_OK)
        throw fail();
    const off_t length = Mp3().mpg123_length(m_mp3);
    if (length < 0)
        throw fail();
    m_info.channels = channels;
    m_info.samplerate = static_cast<int>(rate);
    m_info.frames = length;
    m_info.format = SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III;
    m_info.seekable = 1;

    mpg123_id3v1* v1 = nullptr;
    mpg123_id3v2* v2 = nullptr;
    if (Mp3().mpg123_id3(m_mp3, &v1, &v2) == MPG123_OK && v2) {
        AddTag(m_tags, SF_STR_TITLE, v2->title);
        AddTag(m_tags, SF_STR_ARTIST, v2->artist);
        AddTag(m_tags, SF_STR_ALBUM, v2->album);
        AddTag(m_tags, SF_STR_DATE, v2->year);
        AddTag(m_tags, SF_STR_GENRE, v2->genre);
        AddTag(m_tags, SF_STR_COMMENT, v2->comment);
    }
}

AudioReader::~AudioReader() {
    if (m_file)
        Sf().sf_close(m_file);
    if (m_mp3) {
        Mp3().mpg123_close(m_mp3);
        Mp3().mpg123_delete(m_mp3);
    }
}

sf_count_t AudioReader::Read(float* interleaved, sf_count_t frames) {
    if (frames <= 0)
        return 0;
    if (m_mp3) {
        // To the end of the stream, whatever any header said.
        const size_t frameBytes = sizeof(float) * static_cast<size_t>(m_info.channels);
        size_t got = 0;
        auto* out = reinterpret_cast<unsigned char*>(interleaved);
        while (got < static_cast<size_t>(frames) * frameBytes) {
            size_t done = 0;
            const int r = Mp3().mpg123_read(m_mp3, out + got, frames * frameBytes - got, &done);
            got += done;
            if (r == MPG123_DONE)
                break;
            if (r != MPG123_OK && r != MPG123_NEW_FORMAT)
                throw std::runtime_error("cannot read " + m_path + ": " +
                                         Clause(Mp3().mpg123_strerror(m_mp3)));
        }
        return static_cast<sf_count_t>(got / frameBytes);
    }
    if (m_wav)
        return m_wav->Read(interleaved, frames);
    return Sf().sf_readf_float(m_file, interleaved, frames);
}

bool AudioReader::Seek(sf_count_t frame) {
    frame = std::clamp<sf_count_t>(frame, 0, m_info.frames);
    if (m_mp3)
        return Mp3().mpg123_seek(m_mp3, static_cast<off_t>(frame), SEEK_SET) >= 0;
    if (m_wav)
        return m_wav->Seek(frame);
    return Sf().sf_seek(m_file, frame, SEEK_SET) >= 0;
}
