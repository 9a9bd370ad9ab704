// libFuzzer target: any bytes as an audio file for the command-line host's reader.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "AudioReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = [] {
        char name[] = "/tmp/morvane-fuzz-audio-XXXXXX";
        const int fd = mkstemp(name);
        close(fd);
        static std::string made = name;
        std::atexit([] { unlink(made.c_str()); });
        return made;
    }();
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    try {
        AudioReader reader(path);
        std::vector<float> buffer(4096 * 8);
        const int channels = reader.Channels();
        if (channels < 1 || channels > 8)
            return 0; // the host refuses these before reading
        sf_count_t total = 0;
        for (sf_count_t n; (n = reader.Read(buffer.data(), 4096)) > 0 && total < 1 << 22;)
            total += n;
    } catch (const std::exception&) {
        // an unreadable file is reported, never a crash
    }
    return 0;
}
