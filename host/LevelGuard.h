#pragma once

#include <sndfile.h>

#include <functional>

#include "CReplaceFile.h"

// --guard: a render's output held until its end, so that its level can be lowered by just enough
// that no sample goes beyond full scale. The frames wait in an unnamed file in $TMPDIR, which
// goes with the process however it ends.
class LevelGuard {
public:
    // Throws OutputError when the file cannot be made.
    explicit LevelGuard(int channels);

    // Throws OutputError when the frames cannot be kept (a full disk).
    void Write(const float* interleaved, sf_count_t frames);
    // What brings the largest magnitude to full scale, or 1 when it is not beyond it.
    float Gain() const;
    float Peak() const { return m_peak; }
    // Everything written, in order and at Gain(), handed to sink a buffer at a time.
    void Replay(const std::function<void(const float*, sf_count_t)>& sink) const;

private:
    CReplaceFile m_spool;
    int m_channels;
    float m_peak = 0.0f;
    sf_count_t m_frames = 0;
};
