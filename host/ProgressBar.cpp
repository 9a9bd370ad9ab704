#include "ProgressBar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

ProgressBar::ProgressBar(std::string label)
    : m_label(std::move(label)), m_enabled(isatty(2) != 0) {}

ProgressBar::~ProgressBar() {
    if (m_enabled && m_shown >= 0)
        std::fputc('\n', stderr);
}

void ProgressBar::Update(double fraction) {
    if (!m_enabled)
        return;
    const int percent = static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 100);
    if (percent == m_shown)
        return;
    m_shown = percent;
    const int width = 30, filled = percent * width / 100;
    std::fprintf(stderr, "\r%-24.24s [%.*s%*s] %3d%%", m_label.c_str(), filled,
                 "##############################", width - filled, "", percent);
    std::fflush(stderr);
}
