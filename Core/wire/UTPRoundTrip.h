#pragma once

#include "public/common/Clock.h"

#include <chrono>

namespace skein {

/// How long an attempt waits for its acknowledgement, by the round trips measured so far. Source: RFC 6298.
class UTPRoundTrip {
public:
    /// BEP 29's time-out before anything was measured.
    static constexpr std::chrono::seconds initialTimeout{1};
    /// Above what a peer may hold an acknowledgement back for.
    static constexpr std::chrono::milliseconds minTimeout{200};
    static constexpr std::chrono::seconds maxTimeout{3};

    /// Only of packets that were sent once: of others it is not known which of them is acknowledged.
    void observe(Clock::Duration roundTrip);
    /// Of the first attempt; each further one waits twice as long, `maxTimeout` at most.
    Clock::Duration timeout(int attempt) const;

private:
    bool isMeasured_ = false;
    Clock::Duration smoothed_{};
    Clock::Duration variation_{};
};

}  // namespace skein
