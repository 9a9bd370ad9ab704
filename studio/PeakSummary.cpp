#include "PeakSummary.h"

#include <algorithm>
#include <cmath>
#include <exception>

#include "AudioReader.h"
#include "HelperThread.h"

namespace {

// Frames read at a time: a stop is seen within one of these.
constexpr int64_t kChunkFrames = 1 << 14;

// The largest magnitude an integer format holds, 1 - 2^-(bits - 1); float and compressed
// formats hold more, and only what goes beyond 1 clipped.
float ClipLevelOf(int format) {
    switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
        return 127.0f / 128;
    case SF_FORMAT_PCM_16:
        return 32767.0f / 32768;
    case SF_FORMAT_PCM_24:
        return 8388607.0f / 8388608;
    case SF_FORMAT_PCM_32:
        return 1.0f; // the top code is 1 in float
    default:
        return std::nextafter(1.0f, 2.0f);
    }
}

} // namespace

PeakSummary::PeakSummary(const std::string& path)
    : m_path(path), m_thread(StartHelperThread([this] { Read(); })) {}

PeakSummary::~PeakSummary() {
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
}

void PeakSummary::Reap() {
    if (Finished() && m_thread.joinable())
        m_thread.join();
}

double PeakSummary::Progress() const {
    if (Finished())
        return 1.0;
    const int64_t bins = Bins();
    return bins > 0 ? static_cast<double>(m_binsRead.load(std::memory_order_acquire)) / bins : 0.0;
}

void PeakSummary::Read() {
    try {
        AudioReader in(m_path);
        const int channels = std::max(1, in.Channels());
        m_frames = std::max<sf_count_t>(0, in.Frames());
        m_rate = in.SampleRate();
        m_clipLevel = in.Format() == 0 ? ClipLevelOf(SF_FORMAT_FLOAT) : ClipLevelOf(in.Format());
        // as few frames a bin as make at most kMaxBins, and never fewer than kMinBinFrames
        m_binFrames = std::max(kMinBinFrames, (m_frames + kMaxBins - 1) / kMaxBins);
        m_bins.assign(static_cast<size_t>((m_frames + m_binFrames - 1) / m_binFrames),
                      Bin{0, 0, 0, 0});
        m_opened.store(true, std::memory_order_release);

        std::vector<float> chunk(static_cast<size_t>(kChunkFrames) * channels);
        int64_t at = 0; // frames summarised
        while (at < m_frames && !m_stop) {
            const sf_count_t got = in.Read(chunk.data(), std::min(kChunkFrames, m_frames - at));
            if (got <= 0)
                break; // a file shorter than its header: the rest stays silent
            for (sf_count_t i = 0; i < got; ++i) {
                Bin& b = m_bins[static_cast<size_t>((at + i) / m_binFrames)];
                for (int c = 0; c < channels; ++c) {
                    float x = chunk[static_cast<size_t>(i * channels + c)];
                    if (!std::isfinite(x))
                        x = 0; // as playback takes it
                    if (b.count == 0) {
                        b.low = b.high = x;
                    } else {
                        b.low = std::min(b.low, x);
                        b.high = std::max(b.high, x);
                    }
                    b.squares += x * x;
                    b.count += 1;
                }
            }
            at += got;
            // the bins wholly read are drawn while the rest is read
            m_binsRead.store(at >= m_frames ? static_cast<int64_t>(m_bins.size())
                                            : at / m_binFrames,
                             std::memory_order_release);
        }
        m_binsRead.store(static_cast<int64_t>(m_bins.size()), std::memory_order_release);
    } catch (const std::exception& e) {
        m_error = e.what();
    }
    m_finished.store(true, std::memory_order_release);
}

void PeakSummary::BinsOf(double from, double to, int64_t& first, int64_t& last) const {
    const int64_t bins = Bins();
    const double frames = static_cast<double>(Frames());
    first = std::clamp<int64_t>(static_cast<int64_t>(std::floor(from * frames / m_binFrames)), 0,
                                std::max<int64_t>(0, bins - 1));
    last = std::clamp<int64_t>(static_cast<int64_t>(std::ceil(to * frames / m_binFrames)),
                               first + 1, std::max<int64_t>(1, bins));
}

PeakSummary::Peak PeakSummary::Span(int64_t first, int64_t last) const {
    Peak p;
    last = std::min(last, m_binsRead.load(std::memory_order_acquire));
    double squares = 0, count = 0;
    for (int64_t i = std::max<int64_t>(0, first); i < last; ++i) {
        const Bin& b = m_bins[static_cast<size_t>(i)];
        if (b.count == 0)
            continue;
        p.low = p.read ? std::min(p.low, b.low) : b.low;
        p.high = p.read ? std::max(p.high, b.high) : b.high;
        p.read = true;
        squares += b.squares;
        count += b.count;
    }
    if (count > 0)
        p.rms = static_cast<float>(std::sqrt(squares / count));
    p.clips = p.read && std::max(-p.low, p.high) >= ClipLevel();
    return p;
}

std::vector<PeakSummary::Peak> PeakSummary::Columns(int columns) const {
    std::vector<Peak> out(static_cast<size_t>(std::max(0, columns)));
    if (!Opened() || Bins() == 0)
        return out;
    for (int c = 0; c < columns; ++c) {
        int64_t first = 0, last = 0;
        BinsOf(static_cast<double>(c) / columns, static_cast<double>(c + 1) / columns, first, last);
        out[static_cast<size_t>(c)] = Span(first, last);
    }
    return out;
}
