#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

// What a waveform lane draws of an audio file: its samples read once, on a thread of its own, into
// a fixed number of bins (at most kMaxBins, each the lowest and highest sample of every channel
// and their mean square), from which any number of pixel columns is taken without reading the
// file again. A long file never holds the window up: the bins read so far can be drawn while the
// rest is read.
class PeakSummary {
public:
    static constexpr int64_t kMaxBins = 1 << 16;
    static constexpr int64_t kMinBinFrames = 16;

    struct Peak {
        float low = 0, high = 0; // the lowest and highest sample
        float rms = 0;
        bool clips = false; // a sample reaches full scale (see ClipLevel)
        bool read = false;  // false for a column whose bins are not read yet
    };

    // Starts reading path.
    explicit PeakSummary(const std::string& path);
    ~PeakSummary(); // stops reading and waits for the thread
    // Asks the thread to stop reading, without waiting for it: Finished soon after.
    void Stop() { m_stop = true; }
    // Joins the thread once it has finished: a thread left unjoined when the process ends on a
    // signal (morvane's handler ends it at once) counts as leaked.
    void Reap();
    PeakSummary(const PeakSummary&) = delete;
    PeakSummary& operator=(const PeakSummary&) = delete;

    const std::string& Path() const { return m_path; }
    // Reading has ended, whole or with an error.
    bool Finished() const { return m_finished.load(std::memory_order_acquire); }
    // Why the file could not be read (once Finished), or empty.
    std::string Error() const { return Finished() ? m_error : std::string(); }
    // The share of the file read, 0..1.
    double Progress() const;

    // The file's shape, known once it is open (Opened); zero before.
    bool Opened() const { return m_opened.load(std::memory_order_acquire); }
    int64_t Frames() const { return Opened() ? m_frames : 0; }
    int SampleRate() const { return Opened() ? m_rate : 0; }
    double Seconds() const { return Opened() && m_rate > 0 ? double(m_frames) / m_rate : 0.0; }
    int64_t BinFrames() const { return Opened() ? m_binFrames : 0; }
    int64_t Bins() const { return Opened() ? static_cast<int64_t>(m_bins.size()) : 0; }
    // The magnitude from which a sample is taken as clipped: the largest an integer file holds
    // (a render that clipped was held there), or beyond 1 in a float file, whose samples go on.
    float ClipLevel() const { return Opened() ? m_clipLevel : 1.0f; }

    // Bins first..last-1 taken together (those read so far); first < last.
    Peak Span(int64_t first, int64_t last) const;
    // The bins that the share from..to of the file falls in: at least one.
    void BinsOf(double from, double to, int64_t& first, int64_t& last) const;
    // columns columns across the whole file, each the bins its share falls in.
    std::vector<Peak> Columns(int columns) const;

private:
    struct Bin {
        float low, high;
        float squares; // sum of the squares of the bin's samples, over every channel
        float count;   // samples in the bin
    };
    void Read();

    std::string m_path;
    std::atomic<bool> m_stop{false};
    // written by the thread before the flag that makes them visible
    std::atomic<bool> m_opened{false}, m_finished{false};
    std::atomic<int64_t> m_binsRead{0};
    int64_t m_frames = 0, m_binFrames = 1;
    int m_rate = 0;
    float m_clipLevel = 1.0f;
    std::vector<Bin> m_bins;
    std::string m_error;
    std::thread m_thread; // last: starts once everything above is made
};
