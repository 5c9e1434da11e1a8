#pragma once

#include "Core/wire/PeerAddress.h"
#include "public/common/Clock.h"

#include <chrono>
#include <cstddef>
#include <deque>

namespace skein {

/// Which of the announced peers are passed on: each address once a minute, and never many. Announces are neither
/// authenticated nor paced by anyone, so what a flood of them can cause is bounded here. Not thread-safe.
class LSDPeerLimit {
public:
    static constexpr std::chrono::seconds window{60};
    static constexpr std::size_t maxPeers = 100;
    /// Several programs may run on one host; one host that makes up ports must not crowd out the others.
    static constexpr std::size_t maxPeersOfHost = 8;

    /// True when `peer` may be passed on; it then counts as passed on at `now`.
    bool admit(const PeerAddress& peer, Clock::TimePoint now);

private:
    struct Admitted {
        Clock::TimePoint when;
        PeerAddress peer;
    };
    std::deque<Admitted> admitted_;  ///< within the window, the oldest first
};

}  // namespace skein
