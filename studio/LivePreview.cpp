#include "LivePreview.h"

#include <algorithm>

#include "AudioReader.h"
#include "HelperThread.h"
#include "MorvaneParameters.h"

namespace {

// Rendered ahead of what is heard; a change of settings throws it away, so a few seconds do.
constexpr int kAheadSeconds = 4;

} // namespace

double LivePreview::Settings::TimeRate() const {
    return parameters[MorvaneParameters::kTime];
}

LivePreview::~LivePreview() {
    {
        std::lock_guard lock(m_lock);
        m_bQuit = true;
        m_next.reset();
        if (m_rendering)
            m_rendering->Cancel();
    }
    m_asked.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

std::shared_ptr<PreviewStream> LivePreview::Start(const std::string& input,
                                                  const Settings& settings, double from,
                                                  double loopFrom, double loopTo) {
    if (input != m_format.path) {
        // the format is read once for each input, on the window's thread: a header
        try {
            AudioReader r(input);
            m_format = {input, r.Channels(), r.SampleRate(), r.Frames()};
        } catch (const std::exception&) {
            m_format = {};
            return nullptr;
        }
    }
    auto stream = std::make_shared<PreviewStream>(m_format.channels, m_format.rate, m_format.frames,
                                                  kAheadSeconds * m_format.rate);
    {
        std::lock_guard lock(m_lock);
        if (m_rendering)
            m_rendering->Cancel();
        const auto frame = [&](double share) {
            return share < 0 ? int64_t{-1}
                             : static_cast<int64_t>(std::min(share, 1.0) * m_format.frames);
        };
        m_next = Request{input, settings, frame(from), frame(loopFrom), frame(loopTo), stream};
        if (!m_thread.joinable())
            m_thread = StartHelperThread([this] { Work(); });
    }
    m_asked.notify_all();
    return stream;
}

void LivePreview::Stop() {
    std::lock_guard lock(m_lock);
    m_next.reset();
    if (m_rendering)
        m_rendering->Cancel();
}

void LivePreview::Work() {
    for (;;) {
        Request r;
        {
            std::unique_lock lock(m_lock);
            m_rendering.reset();
            m_asked.wait(lock, [&] { return m_bQuit || m_next; });
            if (m_bQuit)
                return;
            r = std::move(*m_next);
            m_next.reset();
            m_rendering = r.stream;
        }
        const int64_t frames = r.stream->SourceFrames();
        // as a file plays: a start past the loop's end plays on
        const bool loop = r.loopFrom >= 0 && r.loopTo > r.loopFrom && r.from < r.loopTo;
        if (!loop) {
            if (Render(r, r.from, frames))
                r.stream->End();
            continue;
        }
        // up to the loop's end, then the loop until the stream is no longer wanted
        bool going = Render(r, r.from, std::max(r.from, r.loopTo));
        while (going)
            going = Render(r, r.loopFrom, r.loopTo);
    }
}

bool LivePreview::Render(const Request& r, int64_t from, int64_t to) {
    MorvaneStudioPreview request{.input = r.input.c_str(),
                                 .parameters = {},
                                 .engine = r.settings.engine,
                                 .from = from,
                                 .to = to,
                                 .deliver = &LivePreview::Deliver,
                                 .user = r.stream.get()};
    std::copy(std::begin(r.settings.parameters), std::end(r.settings.parameters),
              request.parameters);
    r.stream->Begin(from, r.settings.TimeRate());
    char why[1024] = "";
    if (m_host.preview(m_host.context, &request, why, sizeof why) != 0) {
        r.stream->End(why);
        return false;
    }
    return !r.stream->Cancelled();
}

int LivePreview::Deliver(void* stream, const float* left, const float* right, int frames) {
    return static_cast<PreviewStream*>(stream)->Push(left, right, frames) ? 1 : 0;
}
