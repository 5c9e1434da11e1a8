#pragma once

#include "public/common/Clock.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>

namespace skein {

/// One rate for a direction of all the process's traffic, on whichever strand it flows. Thread: any.
///
/// The lock is held for a few instructions, and not at all while there is no limit.
class SharedThrottle {
public:
    /// 0 or less = unlimited. What was booked under another limit is forgotten.
    void setLimit(std::int64_t bytesPerSecond) {
        const std::lock_guard lock(mutex_);
        if (limit_.exchange(bytesPerSecond) != bytesPerSecond) next_ = {};
    }
    std::int64_t limit() const noexcept { return limit_.load(std::memory_order_relaxed); }

    /// Books `bytes` that are about to move, or just have, and returns how long to wait before the next move.
    Clock::Duration book(std::int64_t bytes, Clock::TimePoint now) {
        if (bytes <= 0 || limit() <= 0) return Clock::Duration::zero();
        const std::lock_guard lock(mutex_);
        const std::int64_t limit = limit_.load(std::memory_order_relaxed);
        if (limit <= 0) return Clock::Duration::zero();
        const std::chrono::duration<double> cost(static_cast<double>(bytes) / static_cast<double>(limit));
        next_ = std::max(next_, now) + std::chrono::duration_cast<Clock::Duration>(cost);
        return next_ - now;
    }

private:
    std::mutex mutex_;
    std::atomic<std::int64_t> limit_ = 0;
    Clock::TimePoint next_{};
};

/// The rates of everything that the process moves.
struct SharedRates {
    SharedThrottle download;
    SharedThrottle upload;
};

}  // namespace skein
