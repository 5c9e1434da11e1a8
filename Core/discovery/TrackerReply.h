#pragma once

#include "Core/discovery/TrackerAnnounce.h"
#include "Core/wire/PeerTraits.h"
#include "public/common/Bytes.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

/// Reading what trackers answer. Source: BEP 3, BEP 7, BEP 15, BEP 23. Stateless; any thread.
///
/// Numbers that make no sense are not believed: a count below 0 is read as 0 and one above `largestCount` as that, an
/// interval below 0 as `defaultInterval` and one above `longestInterval` as that. Of one list at most `maxPeers` are
/// taken.
namespace skein::TrackerReply {

/// A swarm's worth; a reply with more serves nobody.
inline constexpr std::size_t maxPeers = 2000;
/// Half an hour, in seconds: what trackers commonly ask for.
inline constexpr std::int64_t defaultInterval = 1800;
/// A day, in seconds: no tracker means to be asked more rarely.
inline constexpr std::int64_t longestInterval = 86'400;
/// What the numbers of UDP replies go up to.
inline constexpr std::int64_t largestCount = std::numeric_limits<std::int32_t>::max();

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

/// Whether `datagram` is the tracker's answer to `request`, either of the two of TrackerRequest: it is of the same
/// transaction, and of the same action or an error. Anything else is somebody's who does not know what was asked.
bool isAnswerTo(ByteView request, ByteView datagram);
/// The connection id in an answer to the connect request. Throws TrackerException (invalidResponse, trackerError).
std::uint64_t parseUDPConnectReply(ByteView datagram);
/// An answer to the announce. `family` is that of the socket: over IPv6 the peers have 18 bytes. Throws
/// TrackerException (invalidResponse, trackerError).
TrackerAnnounceResult parseUDPAnnounceReply(ByteView datagram, PeerAddressFamily family);

}  // namespace skein::TrackerReply
