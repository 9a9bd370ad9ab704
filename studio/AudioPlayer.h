#pragma once

#include <atomic>
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
    AudioPlayer() = default;
    ~AudioPlayer(); // waits for every thread
    AudioPlayer(const AudioPlayer&) = delete;
    AudioPlayer& operator=(const AudioPlayer&) = delete;

    // Starts path at a fraction (0..1) of its length, in place of what plays. Returns at once: a
    // file that cannot be read, or no sound server, shows in TakeError() as playback ends.
    void Play(const std::string& path, double fraction);
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
    struct Session {
        std::string path;
        std::atomic<bool> stop{false};
        std::atomic<bool> done{false};
        std::atomic<double> position{0};
        std::string error;                     // written by the thread before done
        std::shared_ptr<PreviewStream> stream; // what plays instead of the file
        std::mutex lock;                       // for next
        std::shared_ptr<PreviewStream> next;   // what to cross over to
        std::thread thread;
    };
    void Start(std::unique_ptr<Session> session); // in place of what plays
    static void Run(Session& s);
    void Reap(); // joins the threads that have ended

    std::unique_ptr<Session> m_current;
    std::vector<std::unique_ptr<Session>> m_stopping;
    std::string m_error;
    std::string m_lastPath;
};
