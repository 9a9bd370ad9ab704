#pragma once

// Periodic Hann windows, w[i] = 0.5 - 0.5 cos(2 pi i / n) rounded to float, one table a size
// for the process: the vocoders and the onset finder of every instance read the same pages, and
// each size is worked out once.
class CCrispHann {
public:
    // n points (n > 0); the table lives until the process ends. Allocates the first time a size
    // is asked for, so ask outside processing.
    static const float* Periodic(int n);
};
