#include "public/common/SpeedTracker.h"

#include <algorithm>

namespace skein {

namespace {

constexpr std::chrono::milliseconds sampleLength{250};
/// A first burst measured over microseconds would look like a rate that nobody has.
constexpr std::chrono::milliseconds shortestSpan{500};

}  // namespace

void SpeedTracker::add(std::int64_t bytes, Clock::TimePoint now) {
    if (total_ == 0) first_ = now;
    total_ += bytes;
    if (!samples_.empty() && now - samples_.back().start < sampleLength) {
        samples_.back().bytes += bytes;
        return;
    }
    while (!samples_.empty() && now - samples_.front().start > window) samples_.pop_front();
    samples_.push_back({now, bytes});
}

double SpeedTracker::bytesPerSecond(Clock::TimePoint now) const {
    std::int64_t sum = 0;
    for (auto sample = samples_.rbegin(); sample != samples_.rend() && now - sample->start <= window; ++sample)
        sum += sample->bytes;
    if (sum == 0) return 0;
    const auto span = std::clamp<Clock::Duration>(now - first_, shortestSpan, window);
    return static_cast<double>(sum) / std::chrono::duration<double>(span).count();
}

}  // namespace skein
