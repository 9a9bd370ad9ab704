#pragma once

#include <cstdint>
#include <string_view>

// Which time-pitch engine runs a job. A host chooses it with the interface's vendor-specific
// call, never through a parameter, so programs, chunks and banks are the same for both:
//   dispatcher(effVendorSpecific, kTag, value, nullptr, 0)
// value kSplice or kCrisp chooses, kAsk only asks; either way the answer is the engine chosen
// (1 or 2), and 0 means the call was not understood. The choice takes effect at the next
// effStartProcess. canDo(kCanDo) answers 1. Header-only, so a host can include it.
namespace MorvaneEngine {

constexpr int32_t kTag = ('M' << 24) | ('v' << 16) | ('E' << 8) | 'n';
constexpr char kCanDo[] = "morvaneEngine";
constexpr int kAsk = 0;
constexpr int kSplice = 1; // cuts at onsets and splices sub-blocks: the default
constexpr int kCrisp = 2;  // phase vocoder that keeps each attack once

// dispatcher(effVendorSpecific, kSilencedTag, 0, nullptr, 0) answers how many output frames of
// the present or last job the splice engine wrote as silence where the input sounded, because a
// piece's splice source lay before the audio it holds (strong stretches of steady sounds with
// LowSound on). The crisp engine never does; it answers 0.
constexpr int32_t kSilencedTag = ('M' << 24) | ('v' << 16) | ('S' << 8) | 'i';

// dispatcher(effVendorSpecific, kLeadInTag, 0, nullptr, 0) before effStartProcess leaves the
// announced delay's silence out of that job's output, for a host that would only drop it (it
// never needs the pages); answers 1. The job after it has the delay again.
constexpr int32_t kLeadInTag = ('M' << 24) | ('v' << 16) | ('L' << 8) | 'd';

// dispatcher(effVendorSpecific, kMonoTag, 1, nullptr, 0) before effStartProcess says that the
// job's two inputs are one and the same (a mono recording): an engine that can then does its
// work once and gives the right output the left's, the same to the bit as for two identical
// inputs, and does not read the right input. Answers 1. The job after it is stereo again.
constexpr int32_t kMonoTag = ('M' << 24) | ('v' << 16) | ('M' << 8) | 'o';

// dispatcher(effVendorSpecific, kStepTag, frames, nullptr, 0) before effStartProcess asks for
// that job's flush in steps: the block that ends the input, and each call after it, gives about
// `frames` frames (a little more, or less when the host's room is short) of what the engine
// still holds, made as it goes, so that a host whose room per call is large still sees its
// output pass through the same few pages. Every frame of such a job leaves at the output level
// and is metered, also those after the input has ended. Answers 1. The job after it flushes at
// once again.
constexpr int32_t kStepTag = ('M' << 24) | ('v' << 16) | ('S' << 8) | 't';

// The command line's names, indexed by value.
constexpr const char* kNames[] = {"", "splice", "crisp"};

// The value a name stands for; 0 for none.
inline int FromName(std::string_view name) {
    for (int value = kSplice; value <= kCrisp; ++value)
        if (name == kNames[value])
            return value;
    return 0;
}

} // namespace MorvaneEngine
