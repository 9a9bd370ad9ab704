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

void ProgressBar::SetLabel(std::string label) {
    m_relabelled = label != m_label;
    m_label = std::move(label);
}

void ProgressBar::Update(double fraction) {
    if (!m_enabled)
        return;
    fraction = std::clamp(fraction, 0.0, 1.0);
    const int percent = static_cast<int>(fraction * 100);
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    // the time left, once there is enough behind to tell it
    const long left = fraction >= 0.02 && elapsed >= 1.0
                          ? static_cast<long>(elapsed * (1 - fraction) / fraction + 0.5)
                          : -1;
    if (percent == m_shown && left == m_shownLeft && !m_relabelled)
        return;
    m_shown = percent;
    m_shownLeft = left;
    m_relabelled = false;
    const int width = 30, filled = percent * width / 100;
    char eta[32] = "";
    if (left >= 0)
        std::snprintf(eta, sizeof(eta), "  %ld:%02ld left", left / 60, left % 60);
    std::fprintf(stderr, "\r%-24.24s [%.*s%*s] %3d%%%-12s", m_label.c_str(), filled,
                 "##############################", width - filled, "", percent, eta);
    std::fflush(stderr);
}
