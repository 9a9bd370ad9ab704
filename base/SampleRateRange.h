#pragma once

// The sampling rates both engines run at. A rate outside is taken as the nearest bound for
// buffer sizes and frame lengths; the command line accepts a narrower range of files.
namespace SampleRateRange {

constexpr int kMin = 1000;
constexpr int kMax = 768000;

} // namespace SampleRateRange
