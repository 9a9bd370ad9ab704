#pragma once

#include <mpg123.h>
#include <sndfile.h>

// libsndfile and libmpg123, loaded when audio is first read or written rather than when the
// program starts: a command that never touches audio (help, bank, info on a plug-in) does not
// pay for mapping them, and libsndfile's codecs with them. Each table's members are named as
// the library's functions (after its header's own renaming), so a call reads
// AudioLibraries::Sndfile().sf_open(...). Loading is thread-safe; a library that cannot be
// loaded throws std::runtime_error naming it and its Debian package, at every use.
#define MORVANE_SNDFILE_FUNCTIONS(X)                                                               \
    X(sf_open)                                                                                     \
    X(sf_open_fd)                                                                                  \
    X(sf_close)                                                                                    \
    X(sf_strerror)                                                                                 \
    X(sf_error_number)                                                                             \
    X(sf_format_check)                                                                             \
    X(sf_command)                                                                                  \
    X(sf_get_string)                                                                               \
    X(sf_set_string)                                                                               \
    X(sf_seek)                                                                                     \
    X(sf_readf_short)                                                                              \
    X(sf_readf_float)                                                                              \
    X(sf_writef_short)                                                                             \
    X(sf_writef_float)                                                                             \
    X(sf_version_string)

#define MORVANE_MPG123_FUNCTIONS(X)                                                                \
    X(mpg123_init)                                                                                 \
    X(mpg123_new)                                                                                  \
    X(mpg123_delete)                                                                               \
    X(mpg123_param)                                                                                \
    X(mpg123_plain_strerror)                                                                       \
    X(mpg123_strerror)                                                                             \
    X(mpg123_open_fixed)                                                                           \
    X(mpg123_close)                                                                                \
    X(mpg123_scan)                                                                                 \
    X(mpg123_getformat)                                                                            \
    X(mpg123_length)                                                                               \
    X(mpg123_id3)                                                                                  \
    X(mpg123_read)                                                                                 \
    X(mpg123_seek)

class AudioLibraries {
public:
#define MORVANE_AUDIO_MEMBER(name) decltype(&::name) name = nullptr;
    struct SndfileTable {
        MORVANE_SNDFILE_FUNCTIONS(MORVANE_AUDIO_MEMBER)
    };
    struct Mpg123Table {
        MORVANE_MPG123_FUNCTIONS(MORVANE_AUDIO_MEMBER)
    };
#undef MORVANE_AUDIO_MEMBER

    static const SndfileTable& Sndfile();
    static const Mpg123Table& Mpg123();
};
