#pragma once

#include <string>

// A one-line progress bar on standard error, drawn only when that is a terminal.
class ProgressBar {
public:
    explicit ProgressBar(std::string label);
    ~ProgressBar(); // ends the line
    void Update(double fraction);

private:
    std::string m_label;
    bool m_enabled;
    int m_shown = -1;
};
