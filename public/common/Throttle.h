#pragma once

#include "public/common/Clock.h"

#include <algorithm>
#include <cstdint>

namespace skein {

/// Paces one direction of traffic to a rate; several connections may share one. Not thread-safe.
class Throttle {
public:
    /// 0 or less = unlimited.
    void setLimit(std::int64_t bytesPerSecond) noexcept { limit_ = bytesPerSecond; }
    std::int64_t limit() const noexcept { return limit_; }

    /// Books `bytes` that are about to move, or just have, and returns how long to wait before the next move.
    Clock::Duration book(std::int64_t bytes, Clock::TimePoint now) {
        if (bytes <= 0 || limit_ <= 0) return Clock::Duration::zero();
        const std::chrono::duration<double> cost(static_cast<double>(bytes) / static_cast<double>(limit_));
        next_ = std::max(next_, now) + std::chrono::duration_cast<Clock::Duration>(cost);
        return next_ - now;
    }

    /// The most to move at once, so that a limited stream flows instead of coming in gusts.
    std::int64_t portion(std::int64_t unlimited) const noexcept {
        return limit_ <= 0 ? unlimited : std::min(unlimited, limit_ / 4);
    }

private:
    std::int64_t limit_ = 0;
    Clock::TimePoint next_{};
};

}  // namespace skein
