#pragma once

#include "public/common/Clock.h"

#include <cstdint>
#include <deque>

namespace skein {

/// A rate of bytes over the last seconds, and the total. Not thread-safe.
class SpeedTracker {
public:
    /// Long enough to be calm to look at, short enough to follow a change.
    static constexpr std::chrono::seconds window{5};

    void add(std::int64_t bytes, Clock::TimePoint now);
    /// Bytes a second over the window, or over the time since the first byte while that is shorter.
    double bytesPerSecond(Clock::TimePoint now) const;
    std::int64_t total() const noexcept { return total_; }

private:
    struct Sample {
        Clock::TimePoint start;
        std::int64_t bytes = 0;
    };
    std::deque<Sample> samples_;  // oldest first, each over `sampleLength`
    Clock::TimePoint first_{};
    std::int64_t total_ = 0;
};

}  // namespace skein
