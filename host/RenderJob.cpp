#include "RenderJob.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "AudioReader.h"
#include "AudioWriter.h"
#include "CAsyncReader.h"
#include "CAsyncWriter.h"
#include "LevelGuard.h"
#include "MorvaneEngine.h"
#include "MorvaneParameters.h"
#include "OutputFormat.h"
#include "SettingText.h"
#include "VstPlugin.h"

using namespace MorvaneParameters;

namespace {

constexpr int kMinRate = 8000;
constexpr int kMaxRate = 192000;

// Formats whose coding costs enough to run on a thread of its own beside the plug-in, even when
// every core is busy; plain PCM (and the like) then costs less to convert than to hand over.
bool CodedOnAThread(int format) {
    const int major = format & SF_FORMAT_TYPEMASK, sub = format & SF_FORMAT_SUBMASK;
    return major == SF_FORMAT_FLAC || major == SF_FORMAT_OGG || major == SF_FORMAT_MPEG ||
           (sub >= SF_FORMAT_ALAC_16 && sub <= SF_FORMAT_ALAC_32);
}

// The file's frames split into the two channels the plug-in takes; mono goes through both.
void Deinterleave(const float* frames, int channels, sf_count_t n, float* left, float* right) {
    sf_count_t i = 0;
#if defined(__SSE2__)
    if (channels == 2) {
        for (; i + 4 <= n; i += 4) {
            const __m128 a = _mm_loadu_ps(frames + 2 * i);
            const __m128 b = _mm_loadu_ps(frames + 2 * i + 4);
            _mm_storeu_ps(left + i, _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)));
            _mm_storeu_ps(right + i, _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
        }
    }
#endif
    for (; i < n; ++i) {
        left[i] = frames[i * channels];
        right[i] = frames[i * channels + channels - 1];
    }
}

// The plug-in's output as the file's frames (left only for mono); returns the larger of peak and
// every sample's magnitude. NaN never counts: maxps keeps its second operand then, as std::max
// keeps its first.
float Interleave(const float* left, const float* right, int channels, sf_count_t n, float* frames,
                 float peak) {
    sf_count_t i = 0;
#if defined(__SSE2__)
    if (channels == 2) {
        const __m128 magnitude = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
        __m128 p = _mm_set1_ps(peak);
        for (; i + 4 <= n; i += 4) {
            const __m128 l = _mm_loadu_ps(left + i);
            const __m128 r = _mm_loadu_ps(right + i);
            p = _mm_max_ps(_mm_and_ps(l, magnitude), p);
            p = _mm_max_ps(_mm_and_ps(r, magnitude), p);
            _mm_storeu_ps(frames + 2 * i, _mm_unpacklo_ps(l, r));
            _mm_storeu_ps(frames + 2 * i + 4, _mm_unpackhi_ps(l, r));
        }
        alignas(16) float lanes[4];
        _mm_store_ps(lanes, p);
        for (float x : lanes)
            peak = std::max(peak, x);
    }
#endif
    for (; i < n; ++i) {
        const float l = left[i], r = right[i];
        peak = std::max({peak, std::fabs(l), std::fabs(r)});
        if (channels == 2) {
            frames[2 * i] = l;
            frames[2 * i + 1] = r;
        } else {
            frames[i] = l;
        }
    }
    return peak;
}

} // namespace

double RenderSettings::PitchRate() const {
    return std::pow(2.0, pitchCents / 1200.0);
}

std::string RenderSettings::BoundAdvice(double time, double cents, bool timeGiven) const {
    const auto pitch = [&](double c) {
        return pitchInSemitones ? SettingText::Number(c / 100, true) + " semitones"
                                : SettingText::Number(c, true) + " cents";
    };
    if (timeGiven)
        return "at time " + SettingText::Number(time) + " % the pitch may rise at most " +
               pitch(1200.0 * std::log2(2.0 / (time / 100)));
    return "at pitch " + pitch(cents) + " the time may be at most " +
           SettingText::Number(std::floor(200.0 / std::pow(2.0, cents / 1200.0) * 100) / 100) +
           " %";
}

void RenderSettings::Validate() const {
    if (!(timePercent >= kPercentMin && timePercent <= kPercentMax))
        throw UsageError("time must be 50 to 200 percent (0.5 to 2 as a ratio)");
    if (!(pitchCents >= kCentsMin && pitchCents <= kCentsMax))
        throw UsageError(pitchInSemitones ? "pitch must be -12 to +12 semitones"
                                          : "pitch must be -1200 to +1200 cents");
    // the plug-in would lower one of the rates silently to keep the bound
    if (!WithinBound(static_cast<float>(PitchRate()), static_cast<float>(TimeRate())))
        throw UsageError("time x pitch above 2: " + BoundAdvice(timePercent, pitchCents, true));
    if (!(outputDb >= GainToDb(kGainMin) && outputDb <= GainToDb(kGainMax)))
        throw UsageError("output level must be -59.79 to +6 dB (6 dB per doubling of gain)");
    if (blockSize < 1 || blockSize > (1 << 22))
        throw UsageError("block size must be 1 to 4194304 frames");
}

void RenderSettings::ChooseEngine(const VstPlugin& p, int engine) {
    if (p.Dispatch(effVendorSpecific, MorvaneEngine::kTag, engine) != engine)
        throw PluginError(p.Path() + " has no " + MorvaneEngine::kNames[engine] +
                          " engine; it is older than this morvane");
}

std::string RenderSettings::Describe(const VstPlugin& p, int program) {
    const double gain = HostToGain(p.GetParameter(kOutput));
    std::string text = "time " + SettingText::Number(p.GetParameter(kTime) * 100.0) + " %, pitch " +
                       SettingText::Number(1200.0 * std::log2(p.GetParameter(kPitch)), true) +
                       " cents, level " + SettingText::Number(6.0 * std::log2(gain), true) +
                       " dB, LowSound " +
                       (p.GetParameter(kLowSound) == kLowSoundOff ? "off" : "on");
    const VstIntPtr engine =
        p.Dispatch(effVendorSpecific, MorvaneEngine::kTag, MorvaneEngine::kAsk);
    if (engine == MorvaneEngine::kSplice || engine == MorvaneEngine::kCrisp)
        text += std::string(", engine ") + MorvaneEngine::kNames[engine];
    if (program)
        text += ", program " + std::to_string(program) + " \"" +
                p.Text(effGetProgramNameIndexed, program - 1) + "\"";
    return text;
}

std::unique_ptr<AudioReader> RenderJob::OpenInput(const std::string& input) {
    std::unique_ptr<AudioReader> reader;
    try {
        reader = std::make_unique<AudioReader>(input);
    } catch (const std::exception& e) {
        throw InputError(e.what());
    }
    const int channels = reader->Channels();
    const int rate = reader->SampleRate();
    if (channels < 1 || channels > 2)
        throw InputError(input + " has " + std::to_string(channels) +
                         " channels; Morvane takes mono or stereo");
    if (rate < kMinRate || rate > kMaxRate)
        throw InputError(input + " is at " + std::to_string(rate) +
                         " Hz; Morvane takes 8000 to 192000 Hz");
    if (reader->Frames() > INT32_MAX)
        throw InputError(input + " is too long for one job");
    return reader;
}

RenderResult RenderJob::Run(const std::string& input, const std::string& output,
                            const std::function<void(double)>& progress) {
    m_settings.Validate();
    std::unique_ptr<AudioReader> reader = OpenInput(input);
    const int rate = reader->SampleRate();

    std::unique_ptr<VstPlugin> plugin;
    try {
        plugin = std::make_unique<VstPlugin>(m_settings.pluginPath);
    } catch (const std::exception& e) {
        throw PluginError(e.what());
    }
    const VstPlugin& p = *plugin;
    if (const std::string other = p.NotMorvane(); !other.empty())
        throw PluginError(other);
    p.Dispatch(effOpen);
    if (m_settings.engine != MorvaneEngine::kSplice)
        RenderSettings::ChooseEngine(p, m_settings.engine);
    p.Dispatch(effSetSampleRate, 0, 0, nullptr, static_cast<float>(rate));
    p.Dispatch(effSetBlockSize, 0, m_settings.blockSize);
    p.Dispatch(effMainsChanged, 0, 1);
    if (m_settings.program) {
        if (m_settings.program < 1 || m_settings.program > p.Effect()->numPrograms)
            throw UsageError("program must be 1 to " + std::to_string(p.Effect()->numPrograms));
        p.Dispatch(effSetProgram, 0, m_settings.program - 1);
        // The program's own rate with the user's other one may break the bound, which the
        // plug-in would keep by lowering one of them silently.
        const double time = m_settings.hasTime ? m_settings.TimeRate() : p.GetParameter(kTime);
        const double pitch = m_settings.hasPitch ? m_settings.PitchRate() : p.GetParameter(kPitch);
        if (!WithinBound(static_cast<float>(pitch), static_cast<float>(time))) {
            const std::string name = p.Text(effGetProgramNameIndexed, m_settings.program - 1);
            const double cents = 1200.0 * std::log2(pitch);
            const bool timeGiven = m_settings.hasTime;
            const std::string programs =
                timeGiven ? (m_settings.pitchInSemitones
                                 ? "pitch " + SettingText::Number(cents / 100, true) + " semitones"
                                 : "pitch " + SettingText::Number(cents, true) + " cents")
                          : "time " + SettingText::Number(time * 100) + " %";
            throw UsageError("time x pitch above 2 with program " +
                             std::to_string(m_settings.program) + " \"" + name + "\" (" + programs +
                             "): " + m_settings.BoundAdvice(time * 100, cents, timeGiven));
        }
    }
    p.SetParameter(kOnOff, 1.0f);
    // Time before pitch, so that a lower time rate makes room for a higher pitch.
    if (m_settings.hasTime)
        p.SetParameter(kTime, static_cast<float>(m_settings.TimeRate()));
    if (m_settings.hasPitch)
        p.SetParameter(kPitch, static_cast<float>(m_settings.PitchRate()));
    // As the plug-in converts it, so that 0 dB comes back as a gain of exactly 1 and unit rates
    // return the input to the bit.
    if (m_settings.hasLevel)
        p.SetParameter(kOutput,
                       GainToHost(static_cast<float>(std::pow(2.0, m_settings.outputDb / 6.0))));
    if (m_settings.hasLowSound)
        p.SetParameter(kLowSound, m_settings.lowSound ? kLowSoundOn : kLowSoundOff);
    // The plug-in lowers a rate silently to keep time x pitch at or below 2: a program's rate
    // with the user's other one may not fit.
    if ((m_settings.hasTime &&
         p.GetParameter(kTime) != static_cast<float>(m_settings.TimeRate())) ||
        (m_settings.hasPitch &&
         p.GetParameter(kPitch) != static_cast<float>(m_settings.PitchRate())))
        throw UsageError("time x pitch above 2 with program " + std::to_string(m_settings.program));
    RenderResult result = Process(p, *reader, output, progress);
    if (m_settings.lastInProcess) {
        // (never destroyed, and held where a leak checker still finds them)
        static auto* const kept = new std::vector<std::shared_ptr<void>>;
        kept->emplace_back(std::move(plugin));
        kept->emplace_back(std::move(reader));
    }
    return result;
}

RenderResult RenderJob::RunOn(const VstPlugin& p, const std::string& input,
                              const std::string& output,
                              const std::function<void(double)>& progress) {
    std::unique_ptr<AudioReader> reader = OpenInput(input);
    Resume(p, reader->SampleRate());
    return Process(p, *reader, output, progress);
}

// A job on a plug-in that has run one before: suspended and resumed around the new rate, as hosts
// do. A rate set after a job has ended and before the suspend (from the panel, between renders)
// was taken by the plug-in as a change within that job, to apply at its next call, which a new
// job's start drops: the engine would run the new job at the old rate while the plug-in shows
// the new one. Sent again once suspended, it applies at once.
void RenderJob::Resume(const VstPlugin& p, int rate) const {
    p.Dispatch(effMainsChanged, 0, 0);
    p.SetParameter(kPitch, p.GetParameter(kPitch));
    p.SetParameter(kTime, p.GetParameter(kTime));
    p.Dispatch(effSetSampleRate, 0, 0, nullptr, static_cast<float>(rate));
    p.Dispatch(effSetBlockSize, 0, m_settings.blockSize);
    p.Dispatch(effMainsChanged, 0, 1);
}

bool RenderJob::RunExcerpt(const VstPlugin& p, const std::string& input, sf_count_t from,
                           sf_count_t to, double leadSeconds, const Giver& give) {
    std::unique_ptr<AudioReader> reader = OpenInput(input);
    const int rate = reader->SampleRate();
    to = std::clamp<sf_count_t>(to, 0, reader->Frames());
    from = std::clamp<sf_count_t>(from, 0, to);
    const sf_count_t start = std::max<sf_count_t>(0, from - std::llround(leadSeconds * rate));
    if (!reader->Seek(start)) {
        // a stream that cannot seek is read up to the start
        std::vector<float> skipped(static_cast<size_t>(8192) * reader->Channels());
        for (sf_count_t left = start; left > 0;) {
            const sf_count_t got = reader->Read(skipped.data(), std::min<sf_count_t>(left, 8192));
            if (got <= 0)
                throw InputError("cannot read " + input + ": the file ends early");
            left -= got;
        }
    }
    Resume(p, rate);
    const double timeRate = p.GetParameter(kTime);
    const sf_count_t leadOut = std::llround((from - start) * timeRate);
    const sf_count_t length = std::llround((to - start) * timeRate) - leadOut;
    return Drive(
        p, reader->Channels(), rate, to - start, p.Effect()->initialDelay + leadOut, length,
        [&](float* f, sf_count_t n) {
            try {
                return reader->Read(f, n);
            } catch (const std::exception& e) {
                throw InputError(e.what());
            }
        },
        give);
}

RenderResult RenderJob::Process(const VstPlugin& p, AudioReader& reader, const std::string& output,
                                const std::function<void(double)>& progress) {
    const std::string& input = reader.Path();
    const int channels = reader.Channels();
    const int rate = reader.SampleRate();
    const sf_count_t total = reader.Frames();
    // the rate the plug-in holds, which a program may have set
    const double timeRate = p.GetParameter(kTime);
    const sf_count_t target = static_cast<sf_count_t>(std::llround(total * timeRate));
    const sf_count_t latency = m_settings.keepLatency ? 0 : p.Effect()->initialDelay;
    const sf_count_t length = target + (m_settings.keepLatency ? p.Effect()->initialDelay : 0);

    const int format = OutputFormat::Choose(m_settings.container, m_settings.depth, reader.Format(),
                                            channels, rate);
    std::unique_ptr<AudioWriter> writer;
    try {
        writer = std::make_unique<AudioWriter>(output, format, channels, rate, m_settings.durable);
        // The input's tags go on; the comment says how this file was made.
        std::map<int, std::string> tags = reader.Tags();
        const std::string made =
            "Morvane " MORVANE_VERSION ": " + RenderSettings::Describe(p, m_settings.program);
        tags[SF_STR_COMMENT] =
            tags.count(SF_STR_COMMENT) ? tags[SF_STR_COMMENT] + "\n" + made : made;
        tags[SF_STR_SOFTWARE] = "Morvane " MORVANE_VERSION;
        writer->SetTags(tags);
    } catch (const std::exception& e) {
        throw OutputError(e.what());
    }

    // Decoding and encoding run on threads of their own, beside the plug-in's work here. Plain
    // PCM does only where a core would otherwise idle, for a file long enough to repay the
    // threads' start and hand-over, and for the splice engine, whose work is light enough that
    // reading and writing are a good share of the job. Crisp's transforms, run beside those
    // threads on a two-core machine, took 8 % longer, more than the overlap saved: its long
    // renders cost 6 to 17 % more CPU that way and finished at most 4 % sooner.
    constexpr sf_count_t kOverlapSeconds = 10;
    const bool overlap = m_settings.spareCores && m_settings.engine != MorvaneEngine::kCrisp &&
                         total >= kOverlapSeconds * rate;
    std::optional<CAsyncReader> source;
    if (overlap || CodedOnAThread(reader.Format()))
        source.emplace([&](float* f, long n) { return static_cast<long>(reader.Read(f, n)); },
                       channels);
    std::optional<CAsyncWriter> sink;
    if (overlap || CodedOnAThread(format))
        sink.emplace([&](const float* f, long n) { writer->Write(f, n); }, channels);
    const auto read = [&](float* f, sf_count_t n) {
        sf_count_t got = 0;
        try {
            got = source ? source->Read(f, static_cast<long>(n)) : reader.Read(f, n);
        } catch (const std::exception& e) {
            throw InputError(e.what());
        }
        if (got <= 0)
            throw InputError("cannot read " + input + ": the file ends early");
        return got;
    };
    const auto store = [&](const float* f, sf_count_t n) {
        try {
            if (sink)
                sink->Write(f, static_cast<long>(n));
            else
                writer->Write(f, n);
        } catch (const std::exception& e) {
            throw OutputError(e.what());
        }
    };
    // With --guard the output waits until the end, when its peak is known.
    std::optional<LevelGuard> guard;
    if (m_settings.guard)
        guard.emplace(channels);
    const auto write = [&](const float* f, sf_count_t n) {
        if (guard)
            guard->Write(f, n);
        else
            store(f, n);
    };

    RenderResult result;
    result.inputFrames = total;
    result.sampleRate = rate;
    result.missingFrames = reader.MissingFrames();
    // The plug-in's output goes to the file a small piece at a time, through one buffer whose
    // pages stay warm however much a call gives.
    constexpr sf_count_t kPiece = 1024;
    const auto interleaved = std::make_unique<float[]>(kPiece * channels);
    sf_count_t written = 0;
    const bool whole =
        Drive(p, channels, rate, total, latency, length, read,
              [&](const float* left, const float* right, sf_count_t n, sf_count_t taken) {
                  for (sf_count_t at = 0; at < n;) {
                      sf_count_t k = std::min(kPiece, n - at);
                      if (sink && !guard) {
                          // straight into the writing thread's block: one pass over the frames
                          try {
                              long room = 0;
                              float* to = sink->Room(&room);
                              k = std::min<sf_count_t>(room, n - at);
                              result.peak =
                                  Interleave(left + at, right + at, channels, k, to, result.peak);
                              sink->Commit(static_cast<long>(k));
                          } catch (const std::exception& e) {
                              throw OutputError(e.what());
                          }
                      } else {
                          result.peak = Interleave(left + at, right + at, channels, k,
                                                   interleaved.get(), result.peak);
                          write(interleaved.get(), k);
                      }
                      at += k;
                  }
                  written += n;
                  if (progress)
                      progress(total ? double(taken) / total : 1.0);
                  return !(m_stop && m_stop->load(std::memory_order_relaxed));
              });
    // the writer, never committed, removes what it wrote
    if (!whole)
        throw StoppedError("stopped: nothing was written");

    // The engine's length is right to a few milliseconds; the file is right to the frame.
    std::fill(interleaved.get(), interleaved.get() + kPiece * channels, 0.0f);
    while (written < length) {
        const sf_count_t n = std::min(length - written, kPiece);
        write(interleaved.get(), n);
        written += n;
    }
    if (guard) {
        const float gain = guard->Gain();
        result.guardDb = -20.0 * std::log10(static_cast<double>(gain));
        result.peak = guard->Peak() * gain;
        guard->Replay(store);
    }
    try {
        if (sink)
            sink->Finish();
        writer->Commit();
    } catch (const std::exception& e) {
        throw OutputError(e.what());
    }
    result.outputFrames = written;
    result.format = format;
    result.silencedFrames = p.Dispatch(effVendorSpecific, MorvaneEngine::kSilencedTag, 0);
    return result;
}

sf_count_t RenderJob::Room(int rate) const {
    // Output room per call: twice what a block can become at a time rate of 2, twice over, and
    // four seconds for the announced delay and what a plug-in gives at once when it flushes.
    // What does not fit comes with the next calls.
    constexpr int kRoomBlocks = 4, kRoomSeconds = 4;
    return sf_count_t{kRoomBlocks} * m_settings.blockSize + sf_count_t{kRoomSeconds} * rate;
}

bool RenderJob::Drive(const VstPlugin& p, int channels, int rate, sf_count_t total, sf_count_t skip,
                      sf_count_t length, const Reader& read, const Giver& give) const {
    const int block = m_settings.blockSize;
    const sf_count_t room = Room(rate);
    // Left uninitialised: each call reads only what was written before it, and the output
    // buffers, sized for the worst case, are mostly never touched.
    const auto buffer = [](size_t n) { return std::unique_ptr<float[]>(new float[n]); };
    // A block is read a piece at a time, so the file's frames pass through a few warm pages.
    constexpr sf_count_t kPiece = 1024;
    const auto fileBuf =
        buffer(static_cast<size_t>(std::min<sf_count_t>(block, kPiece)) * channels);
    const auto inL = buffer(block), inR = buffer(block), outL = buffer(room), outR = buffer(room);

    // Our plug-in can leave out the delay that would only be dropped here: a short job's output
    // buffers are then touched only by what it keeps.
    const VstIntPtr delay = p.Effect()->initialDelay;
    if (delay > 0 && skip >= delay && p.Dispatch(effVendorSpecific, MorvaneEngine::kLeadInTag) == 1)
        skip -= delay;
    // and work once for both channels of a mono file (both still get its frames)
    if (channels == 1)
        p.Dispatch(effVendorSpecific, MorvaneEngine::kMonoTag, 1);
    // and give what it holds at the end a block at a time, made as it goes: a short job's output
    // then passes through the pages of one block, not through a buffer as long as itself
    p.Dispatch(effVendorSpecific, MorvaneEngine::kStepTag, block);
    p.Dispatch(effStartProcess);
    p.Dispatch(effSetTotalSampleToProcess, 0, static_cast<VstIntPtr>(total));
    sf_count_t taken = 0, held = 0, heldAt = 0, given = 0;
    // A plug-in that neither takes nor gives a frame, call after call, will never finish.
    constexpr int kMaxIdleCalls = 1000;
    for (int idle = 0;;) {
        if (heldAt == held && taken < total) {
            const sf_count_t want = std::min<sf_count_t>(block, total - taken);
            for (held = heldAt = 0; held < want;) {
                const sf_count_t got = read(fileBuf.get(), std::min(kPiece, want - held));
                if (got <= 0)
                    throw InputError("cannot read the input: the file ends early");
                Deinterleave(fileBuf.get(), channels, got, inL.get() + held, inR.get() + held);
                held += got;
            }
        }
        const VstInt32 offer = static_cast<VstInt32>(held - heldAt);
        VstInt32 in = 0, out = 0;
        float* ins[2] = {inL.get() + heldAt, inR.get() + heldAt};
        float* outs[2] = {outL.get(), outR.get()};
        VstVariableIo io{ins, outs, offer, static_cast<VstInt32>(room), &in, &out};
        in = offer; // a plug-in that does not say takes everything
        p.Dispatch(effProcessVarIo, 0, 0, &io);
        in = std::clamp(in, 0, offer);
        out = std::clamp(out, 0, static_cast<VstInt32>(room));
        heldAt += in;
        taken += in;

        const sf_count_t from = std::min<sf_count_t>(skip, out);
        skip -= from;
        const sf_count_t n = std::min<sf_count_t>(out - from, length - given);
        given += n;
        if (!give(outL.get() + from, outR.get() + from, n, taken))
            return false;
        if (taken == total && offer == 0 && out == 0)
            return true;
        idle = in == 0 && out == 0 ? idle + 1 : 0;
        if (idle > kMaxIdleCalls)
            throw PluginError("the plug-in did not finish the job");
    }
}

std::string RenderResult::SilenceNote(const char* crispHint) const {
    if (silencedFrames <= 0 || sampleRate <= 0)
        return {};
    const long long ms = std::max(1LL, std::llround(1000.0 * silencedFrames / sampleRate));
    return std::to_string(ms) + " ms of silent gaps: " + crispHint + " avoids them";
}
