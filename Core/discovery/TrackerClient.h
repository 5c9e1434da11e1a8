#pragma once

#include "Core/discovery/DatagramConnection.h"
#include "Core/discovery/TrackerAnnounce.h"
#include "Core/discovery/UDPHelper.h"
#include "public/common/Bytes.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Gate.h"
#include "public/common/HTTPFetcher.h"
#include "public/common/NameResolver.h"
#include "public/common/Random.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// What tracker clients work with; all of it outlives them.
struct TrackerServices {
    HTTPFetcher& http;
    NameResolver& resolver;
    DatagramConnector& datagrams;
    Clock& clock;
    Random& random;
    FileLogger& log;
    Gate udpExchanges = {};  ///< each has a socket of its own
};

/// Asks the trackers of one torrent for peers, over HTTP, HTTPS and UDP.
///
/// It keeps nothing between announces, repeats none, and does not look at the peers that it hands out: when to announce
/// is AnnounceSchedule's to say, whom to dial the session's.
/// Owner: the session, which awaits `stop()` before it lets go. Thread: any; the state lives on the strand of `tasks_`.
/// Source: BEP 3, BEP 7, BEP 15, BEP 23.
class TrackerClient {
public:
    using TrackerEvent = skein::TrackerEvent;
    using AnnounceResult = TrackerAnnounceResult;
    using AnnounceOutcome = TrackerAnnounceOutcome;
    using Tiers = std::vector<std::vector<std::string>>;

    static constexpr std::uint16_t defaultPort = 6881;
    /// For the answer to the connect request, and again for that to the announce.
    static constexpr std::chrono::seconds udpTimeout{15};
    static constexpr std::chrono::seconds httpConnectTimeout{15};
    static constexpr std::chrono::seconds httpTimeout{60};
    /// Enough for the most peers that are taken from a reply, each as a dictionary with every known key.
    static constexpr std::size_t maxReplyBytes = std::size_t{1} << 20U;

    /// `peerID` has 20 bytes, `port` is where we listen.
    TrackerClient(const asio::any_io_executor& pool, const TrackerServices& services, Bytes peerID,
                  std::uint16_t port = defaultPort);

    /// Announces to every tracker of every tier at once and returns each peer found, once. A tracker that fails
    /// contributes nothing. Throws only boost::system::system_error (operation_aborted) when cancelled or stopped.
    asio::awaitable<std::vector<PeerAddress>> announceAll(Tiers trackers, TrackerAnnounce what);
    /// One tracker's peers; none when it failed. Throws like `announceAll`.
    asio::awaitable<std::vector<PeerAddress>> announceOne(std::string tracker, TrackerAnnounce what);
    /// One tracker's answer, or the text of its failure. Throws like `announceAll`.
    asio::awaitable<AnnounceOutcome> announceOneDetailed(std::string tracker, TrackerAnnounce what);
    /// Returns when nothing of the client runs any more; calls that still wait end with operation_aborted.
    asio::awaitable<void> stop();

private:
    class Merge;

    asio::awaitable<std::vector<PeerAddress>> announceToAll(Tiers trackers, TrackerAnnounce what);
    asio::awaitable<void> announceInto(Merge& merge, std::string tracker, TrackerAnnounce what);
    asio::awaitable<std::vector<PeerAddress>> peersOf(std::string tracker, TrackerAnnounce what);
    asio::awaitable<AnnounceOutcome> announceDetailed(std::string tracker, TrackerAnnounce what);
    void logOutcome(const AnnounceOutcome& outcome) const;
    asio::awaitable<AnnounceResult> announce(std::string tracker, TrackerAnnounce what);
    asio::awaitable<AnnounceResult> announceHTTP(std::string tracker, TrackerAnnounce what);
    asio::awaitable<HTTPResponse> fetch(HTTPRequest request);
    asio::awaitable<AnnounceResult> announceUDP(std::string tracker, TrackerAnnounce what);

    const TrackerServices services_;
    const Bytes peerID_;
    const std::uint16_t port_;
    UDPHelper udp_;
    TaskGroup tasks_;  // last, so that it goes first
};

}  // namespace skein
