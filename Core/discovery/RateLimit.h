#pragma once

#include <algorithm>
#include <chrono>

namespace skein {

/// Counts events against a steady rate with room for a burst of one second. Plain code; not locked.
class RateLimit {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    explicit RateLimit(double perSecond) : perSecond_(perSecond), left_(perSecond) {}

    /// Whether one more may happen at `now`; if so, it is counted.
    bool admits(TimePoint now) noexcept {
        const std::chrono::duration<double> passed = now - lastAsked_;
        left_ = std::min(perSecond_, left_ + std::max(passed.count(), 0.0) * perSecond_);
        lastAsked_ = now;
        if (left_ < 1) return false;
        left_ -= 1;
        return true;
    }

private:
    double perSecond_;
    double left_;
    TimePoint lastAsked_{};
};

}  // namespace skein
