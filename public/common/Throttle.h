#pragma once

#include "public/common/SharedThrottle.h"

#include <algorithm>
#include <cstdint>

namespace skein {

/// Paces one direction of traffic to a rate; several connections may share one. Not thread-safe.
class Throttle {
public:
    /// 0 or less = unlimited.
    void setLimit(std::int64_t bytesPerSecond) noexcept { limit_ = bytesPerSecond; }
    bool isLimited() const noexcept { return limit_ > 0 || (shared_ != nullptr && shared_->limit() > 0); }
    /// Has what moves here count towards `shared` too, which outlives this.
    void share(SharedThrottle* shared) noexcept { shared_ = shared; }

    /// Books `bytes` that are about to move, or just have, and returns how long to wait before the next move.
    Clock::Duration book(std::int64_t bytes, Clock::TimePoint now) {
        const Clock::Duration ofAll = shared_ == nullptr ? Clock::Duration::zero() : shared_->book(bytes, now);
        if (bytes <= 0 || limit_ <= 0) return ofAll;
        const std::chrono::duration<double> cost(static_cast<double>(bytes) / static_cast<double>(limit_));
        next_ = std::max(next_, now) + std::chrono::duration_cast<Clock::Duration>(cost);
        return std::max(next_ - now, ofAll);
    }

    /// The most to move at once, so that a limited stream flows instead of coming in gusts.
    std::int64_t portion(std::int64_t unlimited) const noexcept {
        const std::int64_t portion = limit_ <= 0 ? unlimited : std::min(unlimited, limit_ / 4);
        const std::int64_t limitOfAll = shared_ == nullptr ? 0 : shared_->limit();
        return limitOfAll <= 0 ? portion : std::min(portion, limitOfAll / 4);
    }

private:
    std::int64_t limit_ = 0;
    SharedThrottle* shared_ = nullptr;
    Clock::TimePoint next_{};
};

}  // namespace skein
