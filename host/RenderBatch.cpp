#include "RenderBatch.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <thread>

#include "AudioReader.h"
#include "BaseName.h"
#include "HelperThread.h"
#include "HostError.h"
#include "OutputFormat.h"

namespace fs = std::filesystem;

namespace {

void WarnIfClipping(const std::string& output, const RenderResult& r, double levelDb) {
    if (r.guardDb > 0)
        std::fprintf(stderr, "morvane: --guard lowered %s by %.2f dB, so that it does not clip\n",
                     output.c_str(), r.guardDb);
    if (r.peak <= 1.0f)
        return;
    const double dbfs = 20 * std::log10(r.peak);
    // the plug-in's level is 6 per doubling: the peak's ratio in its units, rounded down
    const double suggest = std::floor((levelDb - 6 * std::log2(r.peak)) * 10) / 10;
    const int sub = r.format & SF_FORMAT_SUBMASK;
    if (sub == SF_FORMAT_FLOAT || sub == SF_FORMAT_DOUBLE) // beyond full scale is kept; nothing cut
        std::fprintf(stderr,
                     "morvane: note: %s peaks at %+.1f dBFS, above full scale; its float samples "
                     "keep the peaks. For a file that plays without clipping, use --level %.1f\n",
                     output.c_str(), dbfs, suggest);
    else
        std::fprintf(stderr,
                     "morvane: warning: %s clips (peak %+.1f dBFS). Render again with --level "
                     "%.1f, or keep the peaks with --bits float\n",
                     output.c_str(), dbfs, suggest);
}

void WarnIfSilenced(const std::string& output, const RenderResult& r) {
    // sustained sounds at strong stretches, by the splice engine's design
    if (const std::string note = r.SilenceNote("--engine crisp"); !note.empty())
        std::fprintf(stderr,
                     "morvane: note: the splice engine leaves short silences in sustained sounds "
                     "at strong stretches, by design; %s has %s\n",
                     output.c_str(), note.c_str());
}

void WarnIfCutShort(const std::string& input, const RenderResult& r) {
    if (r.missingFrames > 0)
        std::fprintf(stderr,
                     "morvane: warning: %s is cut short: its header promises %lld more frames "
                     "than it holds (%.3f s); rendered the %lld that are there\n",
                     input.c_str(), static_cast<long long>(r.missingFrames),
                     double(r.missingFrames) / r.sampleRate, static_cast<long long>(r.inputFrames));
}

} // namespace

RenderBatch::RenderBatch(RenderSettings settings, Work work, int container, int depth, int jobs,
                         bool quiet)
    : m_settings(std::move(settings)), m_work(std::move(work)), m_container(container),
      m_depth(depth), m_jobs(jobs), m_quiet(quiet), m_single(m_work.size() == 1),
      m_lengths(m_work.size(), 0) {}

void RenderBatch::CheckCollisions(const Work& work, bool force) {
    // A file is known by its canonical path and, when it exists, by its device and inode (a hard
    // link or a bind mount has another path); looked up, not compared pair by pair, so that a
    // batch of thousands of files is checked at once.
    struct Key {
        std::string path;
        std::pair<dev_t, ino_t> inode{};
        bool exists = false;
        explicit Key(const std::string& file) {
            std::error_code ec;
            const fs::path canonical = fs::weakly_canonical(file, ec);
            path = ec ? file : canonical.string();
            struct stat st {};
            exists = ::stat(file.c_str(), &st) == 0;
            inode = {st.st_dev, st.st_ino};
        }
    };
    struct Names {
        std::map<std::string, size_t> paths;
        std::map<std::pair<dev_t, ino_t>, size_t> inodes;
        // The index the file was added under, or npos.
        size_t Find(const Key& k) const {
            if (auto it = paths.find(k.path); it != paths.end())
                return it->second;
            if (auto it = inodes.find(k.inode); k.exists && it != inodes.end())
                return it->second;
            return std::string::npos;
        }
        void Add(const Key& k, size_t index) {
            paths.emplace(k.path, index);
            if (k.exists)
                inodes.emplace(k.inode, index);
        }
    };
    Names inputs, outputs;
    for (size_t i = 0; i < work.size(); ++i)
        inputs.Add(Key(work[i].first), i);
    for (size_t i = 0; i < work.size(); ++i) {
        const std::string& out = work[i].second;
        if (out == "-")
            continue;
        const Key key(out);
        if (!force && inputs.Find(key) != std::string::npos)
            throw UsageError(out + " is also an input; rendering would replace the "
                                   "original. Choose another output, or add --force");
        if (const size_t j = outputs.Find(key); j != std::string::npos)
            throw UsageError(work[j].first + " and " + work[i].first +
                             " would both be written to " + out +
                             "; render them into different folders");
        outputs.Add(key, i);
    }
}

int RenderBatch::Run() {
    if (!m_single && !m_quiet && isatty(2))
        for (size_t i = 0; i < m_work.size(); ++i) {
            try {
                m_lengths[i] = AudioReader(m_work[i].first).Frames();
            } catch (const std::exception&) {
                // reported when its turn comes
            }
            m_allFrames += m_lengths[i];
        }
    // The plug-in stays loaded from one file to the next, so that each file's instance does not
    // map, relocate and initialise the library again; every file still gets an instance of its own.
    const std::unique_ptr<void, int (*)(void*)> keep(
        m_single ? nullptr : dlopen(m_settings.pluginPath.c_str(), RTLD_NOW | RTLD_LOCAL),
        [](void* library) { return library ? dlclose(library) : 0; });
    std::vector<std::thread> threads;
    for (int t = 1; t < std::min<int>(m_jobs, static_cast<int>(m_work.size())); ++t)
        threads.push_back(StartHelperThread([this] { Worker(); }));
    Worker();
    for (auto& t : threads)
        t.join();

    if (m_failures.empty())
        return kExitOk;
    if (m_single)
        return m_failures[0].second;
    std::fprintf(stderr, "morvane: %zu of %zu files failed:", m_failures.size(), m_work.size());
    for (const auto& f : m_failures)
        std::fprintf(stderr, " %s", f.first.c_str());
    std::fputc('\n', stderr);
    return kExitSomeFailed;
}

void RenderBatch::Worker() {
    for (size_t i; (i = m_next++) < m_work.size();)
        RenderOne(i);
}

void RenderBatch::DrawOverall() {
    m_overall.SetLabel(std::to_string(m_filesDone) + " of " + std::to_string(m_work.size()) +
                       " files");
    m_overall.Update(m_allFrames ? double(m_framesDone) / m_allFrames : 0.0);
}

void RenderBatch::RenderOne(size_t i) {
    const auto& [in, out] = m_work[i];
    RenderSettings s = m_settings;
    s.container = m_container ? m_container : (out == "-" ? 0 : OutputFormat::FromName(out));
    s.depth = m_depth;
    s.spareCores = std::min<size_t>(m_jobs, m_work.size()) < std::thread::hardware_concurrency();
    s.lastInProcess = m_single; // the command ends with its batch
    try {
        ProgressBar bar(BaseName(in));
        const bool showBar = m_single && !m_quiet;
        sf_count_t mine = 0; // this file's frames already counted in the overall bar
        const RenderResult r = RenderJob(s).Run(in, out, [&](double f) {
            if (showBar)
                bar.Update(f);
            if (m_allFrames) {
                const sf_count_t now = static_cast<sf_count_t>(f * m_lengths[i]);
                std::lock_guard lock(m_report);
                m_framesDone += now - mine;
                mine = now;
                DrawOverall();
            }
        });
        std::lock_guard lock(m_report);
        m_framesDone += m_lengths[i] - mine;
        ++m_filesDone;
        WarnIfClipping(out, r, s.outputDb);
        WarnIfSilenced(out, r);
        WarnIfCutShort(in, r);
        if (!m_single && !m_quiet && !m_allFrames)
            std::fprintf(stderr, "morvane: %s -> %s\n", in.c_str(), out.c_str());
        if (m_allFrames)
            DrawOverall();
    } catch (const std::exception& e) {
        std::lock_guard lock(m_report);
        ++m_filesDone;
        m_framesDone += m_lengths[i];
        std::fprintf(stderr, "%smorvane: %s\n", m_allFrames ? "\n" : "", e.what());
        m_failures.emplace_back(in, ExitCodeOf(e));
    }
}
