#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "MorvaneStudio.h"
#include "PreviewStream.h"

// Renders what the result would sound like with the panel as it is now, through the host's
// preview, on a thread of its own: the window asks and goes on, and the player takes the frames
// as they come. The latest request wins: one still rendering is stopped as the next is asked.
class LivePreview {
public:
    // What a preview is made with: the plug-in's parameters and engine.
    struct Settings {
        float parameters[MORVANE_STUDIO_PARAMETERS] = {};
        int engine = 0;
        bool operator==(const Settings&) const = default;
        double TimeRate() const;
    };

    explicit LivePreview(const MorvaneStudioHost& host) : m_host(host) {}
    ~LivePreview(); // stops what renders and waits for the thread
    LivePreview(const LivePreview&) = delete;
    LivePreview& operator=(const LivePreview&) = delete;

    // input with settings from a share of its length on, to its end or, with a loop (from the
    // share loopFrom up to loopTo), to the loop's end and then the loop over and over. Returns
    // the stream the frames go to, or null when input cannot be read.
    std::shared_ptr<PreviewStream> Start(const std::string& input, const Settings& settings,
                                         double from, double loopFrom = -1, double loopTo = -1);
    void Stop();

private:
    struct Request {
        std::string input;
        Settings settings;
        int64_t from, loopFrom, loopTo;
        std::shared_ptr<PreviewStream> stream;
    };
    struct Format {
        std::string path;
        int channels = 0, rate = 0;
        int64_t frames = 0;
    };
    void Work();
    // One run of the stream: [from, to) of the input; false when stopped or failed.
    bool Render(const Request& r, int64_t from, int64_t to);
    static int Deliver(void* self, const float* left, const float* right, int frames);

    const MorvaneStudioHost& m_host;
    Format m_format; // of the last input asked for

    std::mutex m_lock;
    std::condition_variable m_asked;
    std::optional<Request> m_next;
    std::shared_ptr<PreviewStream> m_rendering; // the stream being filled
    bool m_bQuit = false;
    std::thread m_thread; // started at the first request
};
