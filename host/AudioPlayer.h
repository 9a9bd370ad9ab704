#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

// Plays an audio file through the desktop's sound server (PulseAudio, or PipeWire's PulseAudio
// service) on a thread of its own, so that the window never waits for the sound card. One file
// plays at a time; playing another replaces it at once.
class AudioPlayer {
public:
    AudioPlayer() = default;
    ~AudioPlayer();
    AudioPlayer(const AudioPlayer&) = delete;
    AudioPlayer& operator=(const AudioPlayer&) = delete;

    // Starts path at a fraction (0..1) of its length. Returns at once: a file that cannot be
    // read, or no sound server, shows in Error() as playback ends.
    void Play(const std::string& path, double fraction);
    void Stop();

    bool Playing() const { return m_bPlaying; }
    // What is playing (or played last), and where it is as a fraction of its length: the frame
    // being heard, not the one being sent.
    std::string Path() const;
    double Position() const { return m_fPosition; }
    // Why the last playback stopped early, or empty; taken once.
    std::string TakeError();

private:
    void Run(std::string path, double fraction);

    std::thread m_thread;
    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bPlaying{false};
    std::atomic<double> m_fPosition{0};
    mutable std::mutex m_lock; // guards the strings
    std::string m_path;
    std::string m_error;
};
