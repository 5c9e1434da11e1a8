#include "app/RowJSON.h"

#include "public/common/ShownURL.h"

#include <boost/json/value.hpp>

#include <chrono>
#include <optional>

namespace skein {

namespace json = boost::json;

namespace {

json::value dateOrNull(const std::optional<TrackerRuntimeInfo::Date>& date) {
    return date ? json::value(secondsSince1970(*date)) : json::value(nullptr);
}

}  // namespace

double secondsSince1970(Clock::WallTime date) { return std::chrono::duration<double>(date.time_since_epoch()).count(); }

json::object toJSON(const PeerRuntimeInfo& peer) {
    return {{"address", peer.address.description()},
            {"source", textOf(peer.source)},
            {"direction", textOf(peer.direction)},
            {"transport", textOf(peer.transport)},
            {"encryption", textOf(peer.encryption)},
            {"client", peer.clientName},
            {"downloaded", peer.downloaded},
            {"uploaded", peer.uploaded},
            {"downloadRate", peer.downloadRate},
            {"uploadRate", peer.uploadRate},
            {"progress", peer.progress},
            {"connected", peer.isConnected},
            {"isChokingUs", peer.peerChoking},
            {"isChoked", peer.amChoking},
            {"isInterested", peer.peerInterested},
            {"isEncrypted", peer.encryption == PeerEncryptionStatus::encrypted},
            {"lastError", peer.lastError ? json::value(*peer.lastError) : json::value(nullptr)}};
}

json::object toJSON(const TrackerRuntimeInfo& tracker) {
    return {{"id", shownURL(tracker.id)},
            {"url", shownURL(tracker.url)},
            {"scheme", tracker.scheme},
            {"status", textOf(tracker.status)},
            {"peersFound", tracker.peersFound},
            {"seeders", tracker.seeders},
            {"leechers", tracker.leechers},
            {"interval", tracker.interval ? json::value(*tracker.interval) : json::value(nullptr)},
            {"failureCount", tracker.failureCount},
            {"lastAnnounceAt", dateOrNull(tracker.lastAnnounceAt)},
            {"nextAnnounceAt", dateOrNull(tracker.nextAnnounceAt)},
            {"lastError", tracker.lastError ? json::value(*tracker.lastError) : json::value(nullptr)}};
}

}  // namespace skein
