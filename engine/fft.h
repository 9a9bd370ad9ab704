#pragma once

// In-place radix-2 complex DFT of n points stored as interleaved (re, im) pairs. n must be a
// power of two; n <= 0 does nothing. Both directions divide by sqrt(n), so forward followed by
// inverse returns the input: forward computes X[k] = 1/sqrt(n) * sum x[j] e^(-2 pi i jk/n).
void fft(double* data, int n, bool forward);

// The same transform in single precision throughout (angles, twiddles, divisor).
void fft_float(float* data, int n, bool forward);
