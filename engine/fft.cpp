#include "fft.h"

#include <cmath>
#include <utility>

namespace {

// The transform's numbers are defined by its twiddles: the angle accumulates by one step per
// index k, and cos/sin are taken of that accumulated angle (pi is the 10-digit 3.1415926535).
// Running the groups inside the k loop evaluates each twiddle once per stage instead of once per
// butterfly, with the same angle and so bit for bit the same result.
template <typename T> void Transform(T* data, int n, bool forward) {
    if (n <= 0)
        return;
    int bits = 0;
    while ((1 << bits) < n)
        ++bits;

    for (int i = 0; i < n; ++i) {
        int j = 0;
        for (int b = 0; b < bits; ++b)
            j |= ((i >> b) & 1) << (bits - 1 - b);
        if (i < j) {
            std::swap(data[2 * i], data[2 * j]);
            std::swap(data[2 * i + 1], data[2 * j + 1]);
        }
    }

    for (int m = 1; m < n; m <<= 1) {
        const T step = static_cast<T>(forward ? -3.1415926535 / m : 3.1415926535 / m);
        T theta = 0;
        for (int k = 0; k < m; ++k) {
            const T wr = static_cast<T>(std::cos(static_cast<double>(theta)));
            const T wi = static_cast<T>(std::sin(static_cast<double>(theta)));
            for (int g = 0; g < n; g += 2 * m) {
                T* a = data + 2 * (g + k);
                T* b = data + 2 * (g + k + m);
                const T tr = wr * b[0] - wi * b[1];
                const T ti = wr * b[1] + wi * b[0];
                b[0] = a[0] - tr;
                b[1] = a[1] - ti;
                a[0] = a[0] + tr;
                a[1] = a[1] + ti;
            }
            theta += step;
        }
    }

    const T scale = static_cast<T>(std::sqrt(static_cast<double>(n)));
    for (int i = 0; i < 2 * n; ++i)
        data[i] /= scale;
}

} // namespace

void fft(double* data, int n, bool forward) {
    Transform(data, n, forward);
}

void fft_float(float* data, int n, bool forward) {
    Transform(data, n, forward);
}
