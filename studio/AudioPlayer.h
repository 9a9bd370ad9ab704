#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PreviewStream.h"

// Plays an audio file through the desktop's sound server (PulseAudio, or PipeWire's PulseAudio
// service) on a thread of its own, so that the window never waits for the sound card or the
// server: stopping only asks the thread to end, and a thread that has not ended yet (a server
// slow to answer) finishes beside the next one. One file is heard at a time, or a stream of
// audio rendered while it plays (PreviewStream), into which what plays can also cross over at the
// same point of the music.
class AudioPlayer {
public:
    // A stretch of the file, as shares of its length, repeated once playback reaches its end: a
    // playback that starts before to goes round from..to until stopped, one that starts after
    // it plays on. Empty (to <= from) when nothing repeats. A stream loops by itself.
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
    // Plays stream from where its reader stands; path names what it is a rendering of.
    void Play(std::shared_ptr<PreviewStream> stream, const std::string& path);
    // What plays crosses over to stream at the same point of the music, in about a chunk's time,
    // as soon as stream holds that point; false when nothing plays that it could follow.
    bool CrossTo(std::shared_ptr<PreviewStream> stream);
    void Stop();

    bool Playing() const;
    // What is playing (or played last), and where it is as a share of its length: the frame
    // being heard, not the one being sent. For a stream, the share of its source's length.
    const std::string& Path() const { return m_lastPath; }
    double Position() const;
    // Why the last playback stopped early, or empty; taken once.
    std::string TakeError();

private:
    // One playback: one thread reading path (or stream) from a frame and writing it to a stream
    // of the server's, until it ends or stop is set. Only the atomics and next (under lock) are
    // shared with the window's thread; path, loop, start and stream are set before the thread
    // starts, error before done.
    struct Session {
        std::string path;
        Loop loop;
        double start = 0;
        std::atomic<bool> stop{false};
        std::atomic<bool> done{false};
        std::atomic<double> position{0};
        std::string error;
        std::shared_ptr<PreviewStream> stream; // what plays instead of the file
        std::mutex lock;                       // for next
        std::shared_ptr<PreviewStream> next;   // what to cross over to
        std::thread thread;
    };
    // Which point of the music the frames written so far hold, a chunk at a time: a loop or a
    // crossing makes the music jump, so the frame being heard is looked up through these (the
    // thread's own).
    struct Runs {
        struct Run {
            int64_t stream, frames; // the run's first frame in what was written, and its length
            double from, to;        // the shares of the music at its ends
        };
        std::deque<Run> runs;
        int64_t written = 0;
        void Add(int64_t frames, double from, double to);
        // The share of the music at the frame heard, dropping the runs before it.
        double At(double heard);
    };
    void Start(std::unique_ptr<Session> session); // in place of what plays
    static void Run(Session& s);
    void Reap(); // joins the threads that have ended

    std::unique_ptr<Session> m_current;
    std::vector<std::unique_ptr<Session>> m_stopping;
    std::string m_error;
    std::string m_lastPath;
};
