#include "Core/wire/UTPRoundTrip.h"

#include <algorithm>

namespace skein {

void UTPRoundTrip::observe(Clock::Duration roundTrip) {
    if (isMeasured_) {
        variation_ = (variation_ * 3 + std::chrono::abs(smoothed_ - roundTrip)) / 4;
        smoothed_ = (smoothed_ * 7 + roundTrip) / 8;
    } else {
        smoothed_ = roundTrip;
        variation_ = roundTrip / 2;
        isMeasured_ = true;
    }
}

Clock::Duration UTPRoundTrip::timeout(int attempt) const {
    Clock::Duration timeout = initialTimeout;
    if (isMeasured_) timeout = std::clamp<Clock::Duration>(smoothed_ + variation_ * 4, minTimeout, maxTimeout);
    for (; attempt > 1 && timeout < maxTimeout; --attempt) timeout *= 2;
    return std::min<Clock::Duration>(timeout, maxTimeout);
}

}  // namespace skein
