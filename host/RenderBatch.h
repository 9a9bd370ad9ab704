#pragma once

#include <sndfile.h>

#include <atomic>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ProgressBar.h"
#include "RenderJob.h"

// The files of one `morvane render`, each input to its output, rendered on up to `jobs` threads
// at once. A batch keeps going past a failed file and names every failure at the end; one
// progress bar shows the files done, the share of all input frames and the time left.
class RenderBatch {
public:
    using Work = std::vector<std::pair<std::string, std::string>>; // input, output

    // container and depth: what the user asked for, 0 for each to be chosen per output.
    RenderBatch(RenderSettings settings, Work work, int container, int depth, int jobs, bool quiet);
    // The exit status: 0, a single file's own error's, or kExitSomeFailed.
    int Run();

    // Throws UsageError when an output is also an input (unless force) or two inputs would end
    // in the same file, before anything is rendered.
    static void CheckCollisions(const Work& work, bool force);

private:
    void Worker();
    void RenderOne(size_t i);
    void DrawOverall(); // with m_report held

    const RenderSettings m_settings;
    const Work m_work;
    const int m_container, m_depth, m_jobs;
    const bool m_quiet, m_single;
    std::vector<sf_count_t> m_lengths; // each input's frames, for the overall bar; 0 unknown
    sf_count_t m_allFrames = 0;        // 0: no overall bar

    std::atomic<size_t> m_next{0};
    std::mutex m_report; // the counts below, the bar and standard error
    sf_count_t m_framesDone = 0;
    size_t m_filesDone = 0;
    ProgressBar m_overall{""};
    std::vector<std::pair<std::string, int>> m_failures; // input, exit status
};
