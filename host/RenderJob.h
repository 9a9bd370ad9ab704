#pragma once

#include <sndfile.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "HostError.h"

class AudioReader;
class VstPlugin;

// What the user asked for, in the units of the command line.
struct RenderSettings {
    double timePercent = 100.0; // 50 .. 200
    double pitchCents = 0.0;    // -1200 .. 1200
    double outputDb = 0.0;      // the plug-in's scale: 6 per doubling of gain, -59.79 .. +6
    bool lowSound = true;
    int engine = 1;                // MorvaneEngine::kSplice or kCrisp
    bool pitchInSemitones = false; // the user gave semitones: answer in semitones
    int blockSize = 1024;          // (a short job's output then passes through a few pages)
    bool keepLatency = false;
    bool durable = false; // the output reaches the disk before it is named (--sync)
    bool guard = false;   // the level lowered by just enough that nothing passes full scale
    // Plain PCM of a long file read and written on threads of their own too, for cores that
    // would otherwise idle; coded formats always are.
    bool spareCores = true;
    // The process ends with this job: its plug-in and input are left open for the exit, which
    // hands their memory back at once (closing them frees it a buffer at a time).
    bool lastInProcess = false;
    // The output's libsndfile container (with its codec) and sample format; 0 for either is
    // chosen from the input's (OutputFormat::Choose).
    int container = 0, depth = 0;
    std::string pluginPath;
    int program = 0; // 1 .. 64: start from that program of the plug-in's bank; 0: none
    // Which settings the user gave; with a program, only those override it.
    bool hasTime = true, hasPitch = true, hasLevel = true, hasLowSound = true;

    // Chooses the engine on a plug-in; throws PluginError when the plug-in has no such engine.
    static void ChooseEngine(const class VstPlugin& plugin, int engine);
    // Throws UsageError with a sentence for the user when a value is out of range.
    void Validate() const;
    // Why a time and pitch break the plug-in's bound, and the largest value that fits: of the
    // pitch when the time was given (or both were), else of the time.
    std::string BoundAdvice(double timePercent, double pitchCents, bool timeGiven) const;
    // How a file was made, for its metadata: "time 150 %, pitch +300 cents, ...".
    static std::string Describe(const class VstPlugin& plugin, int program);
    double TimeRate() const { return timePercent / 100.0; }
    double PitchRate() const;
};

struct RenderResult {
    sf_count_t inputFrames = 0;
    sf_count_t outputFrames = 0;
    int sampleRate = 0;
    float peak = 0.0f;            // largest |sample| written
    double guardDb = 0.0;         // how far --guard lowered the level
    int format = 0;               // libsndfile format of the file written
    sf_count_t missingFrames = 0; // promised by the input's header but not in the file
    // output frames the splice engine made silent where the input sounded (by its design)
    sf_count_t silencedFrames = 0;
    // "120 ms of silent gaps: --engine crisp avoids them", or empty when there are none
    std::string SilenceNote(const char* crispHint) const;
};

// One input file through the plug-in into one output file, as a VST 2.4 offline host runs a
// job. The announced delay is removed (unless kept) and the result is exactly
// round(input frames x time rate) long.
class RenderJob {
public:
    // A job with a stop flag ends at the first block after it is set, with StoppedError and no
    // file written; whoever sets it (a progress callback, another thread) owns it.
    explicit RenderJob(RenderSettings settings, const std::atomic<bool>* stop = nullptr)
        : m_settings(std::move(settings)), m_stop(stop) {}

    // progress receives the share of input taken, 0 .. 1. Throws one of the errors above.
    RenderResult Run(const std::string& input, const std::string& output,
                     const std::function<void(double)>& progress = {});
    // The same on a plug-in already open, with the settings it holds (the panel's).
    RenderResult RunOn(const VstPlugin& plugin, const std::string& input, const std::string& output,
                       const std::function<void(double)>& progress = {});

    // Output frames as the plug-in makes them, left and right, with the input frames taken so
    // far; returning false stops the job.
    using Giver = std::function<bool(const float* left, const float* right, sf_count_t frames,
                                     sf_count_t taken)>;
    // Input frames [from, to) of input through a plug-in already open and set, as a job of its
    // own that starts leadSeconds earlier so that the engine has settled by from: what it makes
    // for [from, to) goes to give as it comes. False when give stopped it; throws as Run does.
    bool RunExcerpt(const VstPlugin& plugin, const std::string& input, sf_count_t from,
                    sf_count_t to, double leadSeconds, const Giver& give);

private:
    static std::unique_ptr<AudioReader> OpenInput(const std::string& input);
    RenderResult Process(const VstPlugin& plugin, AudioReader& reader, const std::string& output,
                         const std::function<void(double)>& progress);
    using Reader = std::function<sf_count_t(float* frames, sf_count_t count)>;
    // Suspends the plug-in and resumes it at rate, with the rates it shows in force.
    void Resume(const VstPlugin& plugin, int rate) const;
    // Output room per call of the plug-in.
    sf_count_t Room(int rate) const;
    // One job through the plug-in: total frames of input from read (interleaved, channels
    // wide); the first skip frames of output dropped, then at most length frames to give.
    // False when give stopped it.
    bool Drive(const VstPlugin& plugin, int channels, int rate, sf_count_t total, sf_count_t skip,
               sf_count_t length, const Reader& read, const Giver& give) const;

    RenderSettings m_settings;
    const std::atomic<bool>* m_stop;
};
