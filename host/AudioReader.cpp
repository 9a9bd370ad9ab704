#include "AudioReader.h"

#include <stdexcept>

AudioReader::AudioReader(const std::string& path) {
    m_file = sf_open(path.c_str(), SFM_READ, &m_info);
    if (!m_file)
        throw std::runtime_error("cannot read " + path + ": " + sf_strerror(nullptr));
}

AudioReader::~AudioReader() {
    if (m_file)
        sf_close(m_file);
}

sf_count_t AudioReader::Read(float* interleaved, sf_count_t frames) {
    return sf_readf_float(m_file, interleaved, frames);
}
