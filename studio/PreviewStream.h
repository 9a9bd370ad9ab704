#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

// Audio rendered for listening while it is heard: a bounded queue of frames between the thread
// that renders them and the player's, which knows where in the source each frame comes from, so
// that the point of the music being heard can be told, and found again in another rendering.
// The frames are the source's from some point on, stretched at a time rate; a loop starts
// another run of them from its start.
class PreviewStream {
public:
    PreviewStream(int channels, int rate, int64_t sourceFrames, int capacity);
    PreviewStream(const PreviewStream&) = delete;
    PreviewStream& operator=(const PreviewStream&) = delete;

    int Channels() const { return m_nChannels; }
    int Rate() const { return m_nRate; }
    int64_t SourceFrames() const { return m_nSourceFrames; }

    // The renderer's side. The frames pushed next are the source's from sourceFrom on, at
    // timeRate output frames per source frame.
    void Begin(int64_t sourceFrom, double timeRate);
    // Waits while the queue is full; false once the stream is cancelled (nothing more is wanted).
    bool Push(const float* left, const float* right, int frames);
    // Nothing more comes; error says why when it ended early.
    void End(const std::string& error = {});

    // The player's side. Frames from the next unread one on, interleaved, waiting up to waitMs
    // for the first; returns how many.
    int Read(float* interleaved, int frames, int waitMs);
    // The next frame read will be frame (counted from the stream's start); frames not made yet
    // are dropped as they come.
    void SeekTo(int64_t frame);
    int64_t ReadAt() const;
    // Frames made so far.
    int64_t Made() const;
    // Ended and read to the end.
    bool Finished() const;
    std::string Error() const;
    // Stops the renderer's pushes, and wakes a reader.
    void Cancel();
    bool Cancelled() const;

    // The source frame heard at frame of the stream (-1 before its first run), and the frame of
    // the stream's latest run at the source frame (its start for a point before it; -1 before
    // the renderer has begun).
    double SourceAt(double frame) const;
    int64_t FrameAt(double sourceFrame) const;

private:
    struct Run {
        int64_t frame;  // of the stream where it starts
        int64_t source; // the source frame it starts at
        double rate;    // output frames per source frame
    };
    const int m_nChannels, m_nRate;
    const int64_t m_nSourceFrames;
    const int m_nCapacity;

    mutable std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<float> m_ring; // m_nCapacity frames, interleaved
    std::vector<Run> m_runs;
    int64_t m_nMade = 0, m_nRead = 0;
    bool m_bEnded = false, m_bCancelled = false;
    std::string m_error;
};
