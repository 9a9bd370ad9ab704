#pragma once

#include <chrono>
#include <string>

// A one-line progress bar on standard error, drawn only when that is a terminal: a label, the
// bar, the percentage and, once it can be told, the time left.
class ProgressBar {
public:
    explicit ProgressBar(std::string label);
    ~ProgressBar(); // ends the line
    void SetLabel(std::string label);
    void Update(double fraction);

private:
    std::string m_label;
    bool m_enabled;
    int m_shown = -1;
    long m_shownLeft = -1;
    bool m_relabelled = false;
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};
