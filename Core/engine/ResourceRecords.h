#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace skein {

/// What a torrent is to the resource service.
enum class ResourceStatus : std::uint8_t { offline, leeching, leechingSeeding, seeding };

/// What the user wants of serving others: earn credit, give for free, or not serve at all.
enum class UploadMode : std::uint8_t { paid, free, disabled };

/// What the service is told of a torrent that is held here.
struct ResourceRegistration {
    std::string infoHash;  ///< 40 lower-case hex digits
    ResourceStatus status = ResourceStatus::offline;
    UploadMode uploadMode = UploadMode::paid;
    std::vector<std::string> localIP;  ///< the machine's addresses on its own network
    std::uint16_t port = 0;            ///< of the peer-wire listener
    std::int64_t totalBytes = 0;
};

/// What went to and came from one user since the last report that was confirmed.
struct PeerReport {
    std::string peerUserId;
    std::int64_t verifiedBytes = 0;  ///< received, in pieces that passed their hash check
    std::int64_t sentBytes = 0;
};

/// A connection's counters when a report was drawn up: so much of them is settled once the report is confirmed.
struct PeerTrafficSnapshot {
    std::uint64_t conn = 0;       ///< the connection, by the number that its session knows it by
    std::int64_t downloaded = 0;  ///< in pieces that passed their hash check
    std::int64_t uploaded = 0;
};

/// Bytes received, by how their connection came about.
struct BytesBySource {
    std::int64_t platform = 0;  ///< a peer that the service listed
    std::int64_t publicBT = 0;
    std::int64_t relay = 0;

    BytesBySource& operator+=(const BytesBySource& other) noexcept {
        platform += other.platform;
        publicBT += other.publicBT;
        relay += other.relay;
        return *this;
    }
    BytesBySource& operator-=(const BytesBySource& other) noexcept {
        platform -= other.platform;
        publicBT -= other.publicBT;
        relay -= other.relay;
        return *this;
    }
    std::int64_t sum() const noexcept { return platform + publicBT + relay; }
    friend bool operator==(const BytesBySource&, const BytesBySource&) = default;
};

/// What one session adds to a heartbeat. All figures count from the last report that was confirmed.
struct HeartbeatPayload {
    std::string userID;   ///< whose bytes these are; stays here
    std::string eventID;  ///< unique; the service counts no report twice
    std::string infoHash;
    ResourceStatus status = ResourceStatus::offline;
    UploadMode uploadMode = UploadMode::paid;
    std::int64_t uploadDelta = 0;
    std::int64_t downloadDelta = 0;     ///< as charged: of pieces that passed their hash check
    std::int64_t rawDownloadDelta = 0;  ///< as received; stays here
    std::vector<PeerReport> peers;
    std::vector<PeerTrafficSnapshot> peerSnapshots;  ///< stays here
    BytesBySource downloadedBySource;                ///< stays here
};

/// A peer that the service knows for a torrent.
struct SkeinPeerInfo {
    std::string userId;
    std::string ip;
    std::uint16_t port = 0;
    std::string localIP;  ///< on that peer's own network
    UploadMode uploadMode = UploadMode::paid;
    std::int64_t speedLimit = 0;  ///< bytes a second, 0 = none
    bool selfLAN = false;         ///< another device of the same user, on the same network
    bool preferLocal = false;     ///< `localIP` is to be tried first
};

/// Where the service is and who is signed in. Without a user or a URL the service is not used.
struct ServiceAccess {
    std::string serverURL;
    std::string userID;
    std::string token;     ///< the stored credential; never logged
    std::string deviceId;  ///< of this installation

    bool isUsable() const noexcept { return !serverURL.empty() && !userID.empty(); }
};

}  // namespace skein
