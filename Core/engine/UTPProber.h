#pragma once

#include "Core/engine/AddressCooldowns.h"
#include "Core/engine/DialRequest.h"
#include "Core/wire/PeerWireTransport.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace skein {

/// Finds out whether peers that TCP does not reach answer over uTP: an ST_SYN each, a few at a time, nobody often.
///
/// Owner: the dialer. Thread: the session's strand.
class UTPProber {
public:
    static constexpr std::size_t maxUTPProbeInFlight = 4;
    /// Those that wait for their turn; the oldest makes room for the newest.
    static constexpr std::size_t maxDeferredProbes = 64;
    /// Shorter than a failed peer's cooldown, so that a probe may follow each failed dial; long for peers that the user
    /// named, which are dialled every few seconds.
    static constexpr std::chrono::seconds utpProbeCooldownSeconds{300};
    /// The SYN goes out at 0, 1 and 3 s.
    static constexpr std::chrono::seconds probeTimeout{5};

    struct Environment {
        Strand strand;
        Clock& clock;
        FileLogger& log;
        /// Makes a uTP transport.
        std::function<std::unique_ptr<PeerWireTransport>(const PeerAddress& address)> dial;
        /// A peer answered.
        std::function<void(const DialRequest& request)> onAnswer;
    };

    explicit UTPProber(Environment environment);

    /// Does nothing for an address that was probed lately.
    void scheduleUTPProbe(const DialRequest& request);
    std::size_t probesInFlight() const noexcept { return utpProbeInFlight_.size(); }
    void forgetDeferred() { deferred_.clear(); }
    /// Ends the probes of those peers, and forgets who of them waits for one.
    void giveUp(const std::function<bool(const DialRequest&)>& whom);
    /// Returns when nothing of the prober runs any more.
    asio::awaitable<void> stop() { return tasks_.stop(); }

private:
    void startDeferred();
    asio::awaitable<void> probe(DialRequest request);
    asio::awaitable<std::string> open(const PeerAddress& address, PeerWireTransport& transport);

    const Environment environment_;
    struct Flight {
        DialRequest request;
        PeerWireTransport* transport = nullptr;
    };
    std::unordered_map<PeerAddress, Flight> utpProbeInFlight_;
    AddressCooldowns utpProbeRetryAfter_;
    std::deque<DialRequest> deferred_;
    TaskGroup tasks_;
};

}  // namespace skein
