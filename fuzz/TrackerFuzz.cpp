#include "Core/discovery/TrackerError.h"
#include "Core/discovery/TrackerReply.h"
#include "Core/discovery/TrackerURL.h"
#include "fuzz/Check.h"

#include <cstddef>
#include <cstdint>

namespace skein {
namespace {

/// What is handed out is within its limits, and every literal host is in its one canonical form.
void judge(const TrackerAnnounceResult& result, std::size_t maxPeers) {
    check(result.interval >= 0 && result.interval <= TrackerReply::longestInterval);
    for (const std::int64_t count : {result.complete, result.incomplete})
        check(count >= 0 && count <= TrackerReply::largestCount);
    check(result.peers.size() <= maxPeers);
    for (const PeerAddress& peer : result.peers) {
        check(!peer.host.empty() && peer.host.size() <= 255);
        const auto literal = peer.literal();
        check(literal.has_value() == (peer.addressFamily() != PeerAddressFamily::hostname));
        if (literal && peer.port != 0) check(PeerAddress::parse(peer.description()) == peer);
        check(literal || !peer.isUsableHistory());
    }
}

void httpReply(ByteView data) {
    const auto reply = TrackerReply::parseHTTPAnnounceReply(data);
    judge(reply.result, 2 * TrackerReply::maxPeers);
    check(reply.peers6.value_or(0) <= reply.result.peers.size());
}

void udpReplies(ByteView data) {
    judge(TrackerReply::parseUDPAnnounceReply(data, PeerAddressFamily::ipv4), TrackerReply::maxPeers);
    judge(TrackerReply::parseUDPAnnounceReply(data, PeerAddressFamily::ipv6), TrackerReply::maxPeers);
}

/// A URL that was understood is understood again once a query was appended, and leads to the same place.
void url(ByteView data) {
    const auto tracker = TrackerURL::parse(asText(data));
    if (!tracker) return;
    const auto again = TrackerURL::parse(tracker->withQuery("a=b"));
    // Only the length may be in the way.
    check(again || data.size() > 4000);
    if (again) check(again->host == tracker->host && again->port == tracker->port && again->path == tracker->path);
}

void peerText(ByteView data) {
    const auto peer = PeerAddress::parse(asText(data));
    if (peer) check(PeerAddress::parse(peer->description()) == peer);
}

}  // namespace
}  // namespace skein

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    for (const auto property : {skein::httpReply, skein::udpReplies, skein::url, skein::peerText}) {
        try {
            property({data, size});
        } catch (const skein::TrackerException& failure) {
            skein::check(failure.what()[0] != '\0');
        }
    }
    return 0;
}
