#include "CCrispHann.h"

#include <cmath>
#include <map>
#include <memory>
#include <mutex>
#include <numbers>

const float* CCrispHann::Periodic(int n) {
    static std::mutex mutex;
    static std::map<int, std::unique_ptr<float[]>> made;
    std::lock_guard lock(mutex);
    std::unique_ptr<float[]>& w = made[n];
    if (!w) {
        w = std::make_unique<float[]>(static_cast<size_t>(n));
        constexpr double kTwoPi = 2 * std::numbers::pi;
        for (int i = 0; i < n; ++i)
            w[i] = static_cast<float>(0.5 - 0.5 * std::cos(kTwoPi * i / n));
    }
    return w.get();
}
