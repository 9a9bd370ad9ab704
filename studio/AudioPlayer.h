#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// Plays an audio file through the desktop's sound server (PulseAudio, or PipeWire's PulseAudio
// service) on a thread of its own, so that the window never waits for the sound card or the
// server: stopping only asks the thread to end, and a thread that has not ended yet (a server
// slow to answer) finishes beside the next one. One file is heard at a time.
class AudioPlayer {
public:
    // A stretch of the file, as shares of its length, repeated once playback reaches its end: a
    // playback that starts before to goes round from..to until stopped, one that starts after
    // it plays on. Empty (to <= from) when nothing repeats.
    struct Loop {
        double from = 0, to = 0;
        bool Active() const { return to > from; }
    };

    AudioPlayer() = default;
    ~AudioPlayer(); // waits for every thread
    AudioPlayer(const AudioPlayer&) = delete;
    AudioPlayer& operator=(const AudioPlayer&) = delete;

    // Starts path at a fraction (0..1) of its length, in place of what plays, repeating loop.
    // Returns at once: a file that cannot be read, or no sound server, shows in TakeError() as
    // playback ends.
    void Play(const std::string& path, double fraction, Loop loop);
    void Play(const std::string& path, double fraction); // nothing repeats
    void Stop();

    bool Playing() const;
    // What is playing (or played last), and where it is as a share of its length: the frame
    // being heard, not the one being sent.
    const std::string& Path() const { return m_lastPath; }
    double Position() const;
    // Why the last playback stopped early, or empty; taken once.
    std::string TakeError();

private:
    // One playback: one thread reading path from a frame and writing it to a stream of its own,
    // until the file ends or stop is set. Only the atomics are shared with the window's thread;
    // path, loop and start are set before the thread starts, error before done.
    struct Session {
        std::string path;
        Loop loop;
        double start = 0;
        std::atomic<bool> stop{false};
        std::atomic<bool> done{false};
        std::atomic<double> position{0};
        std::string error;
        std::thread thread;
    };
    // Where the frames written so far came from in the file, in runs: a loop makes the stream
    // jump back, so the frame being heard is looked up through these (the thread's own).
    struct Runs {
        struct Run {
            int64_t stream, file, frames; // the run's first frame in the stream and in the file
        };
        std::deque<Run> runs;
        int64_t written = 0;
        void Add(int64_t file, int64_t frames);
        // The file's frame at the stream's frame heard, dropping the runs before it.
        int64_t FileFrame(int64_t heard);
    };
    static void Run(Session& s);
    void Reap(); // joins the threads that have ended

    std::unique_ptr<Session> m_current;
    std::vector<std::unique_ptr<Session>> m_stopping;
    std::string m_error;
    std::string m_lastPath;
};
