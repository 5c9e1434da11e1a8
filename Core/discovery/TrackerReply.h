#pragma once

#include "Core/discovery/TrackerAnnounce.h"
#include "Core/wire/PeerTraits.h"
#include "public/common/Bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

/// Reading what trackers answer. Source: BEP 3, BEP 7, BEP 15, BEP 23. Stateless; any thread.
///
/// A negative count is read as 0, a negative interval as `defaultInterval`. Of one list at most `maxPeers` are taken.
namespace skein::TrackerReply {

/// A swarm's worth; a reply with more serves nobody.
inline constexpr std::size_t maxPeers = 2000;
/// Half an hour, in seconds: what trackers commonly ask for.
inline constexpr std::int64_t defaultInterval = 1800;

/// 6 bytes a peer; a partial entry at the end is ignored.
std::vector<PeerAddress> parseCompactIPv4Peers(ByteView bytes);
/// 18 bytes a peer; a partial entry at the end is ignored.
std::vector<PeerAddress> parseCompactIPv6Peers(ByteView bytes);

struct HTTPAnnounceReply {
    TrackerAnnounceResult result;
    std::optional<std::size_t> peers6;  ///< how many of the peers came in the list of that name, where there was one
};
/// The body of an HTTP reply. Throws TrackerException (invalidResponse, trackerError).
HTTPAnnounceReply parseHTTPAnnounceReply(ByteView body);

/// The connection id. Action and transaction are not compared. Throws TrackerException (invalidResponse).
std::uint64_t parseUDPConnectReply(ByteView datagram);
/// `family` is that of the socket: over IPv6 the peers have 18 bytes. Action and transaction are not compared.
/// Throws TrackerException (invalidResponse).
TrackerAnnounceResult parseUDPAnnounceReply(ByteView datagram, PeerAddressFamily family);

}  // namespace skein::TrackerReply
