#pragma once

#include "Core/engine/RequestScheduler.h"
#include "Core/engine/ResourceRecords.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace skein {

/// How a connection came about, as far as its bytes are accounted differently.
enum class LinkKind : std::uint8_t { platform, publicBT, relay };

/// What a session moved, to and from whom, and how much of it the resource service has confirmed.
///
/// Every byte is in one of three places: confirmed, in the report that waits for its answer, or in the one after it.
/// A report whose answer was lost is given out again as it was, event id and all, so that the service can tell.
/// Owner: the session's service side. Thread: the session's strand.
class TrafficLedger {
public:
    /// Who is at the other end of a connection.
    struct Party {
        LinkKind link = LinkKind::publicBT;
        std::string userID;              ///< empty: nobody that the service knows
        bool hasFreeAccounting = false;  ///< what is sent to it is not charged to it
    };

    /// What a report says beside the figures.
    struct Heading {
        std::string userID;
        std::string eventID;  ///< fresh
        std::string infoHash;
        ResourceStatus status = ResourceStatus::offline;
        UploadMode uploadMode = UploadMode::paid;
    };

    /// Said again, it changes what is known of the peer.
    void setParty(PeerKey peer, Party party);
    /// Its unreported bytes stay.
    void removePeer(PeerKey peer);
    /// Any block of the torrent, wanted or not.
    void addReceived(PeerKey peer, std::int64_t bytes);
    /// A piece of so many bytes that `supplier` sent has passed its hash check.
    void addVerified(PeerKey supplier, std::int64_t bytes);
    void addSent(PeerKey peer, std::int64_t bytes);

    /// The report that still waits for its answer, else a new one.
    HeartbeatPayload drain(const Heading& heading);
    /// The service has confirmed it. False, and nothing changes, when it is not the report that waits.
    bool commit(const HeartbeatPayload& payload);
    /// True while a report waits for its answer.
    bool isReporting() const noexcept { return reported_.has_value(); }
    /// Received and not confirmed.
    const BytesBySource& uncommitted() const noexcept { return svcUncommitted_; }
    /// Sent and not confirmed.
    std::int64_t uncommittedUpload() const noexcept { return uploaded_ - svcLastUploadBytes_; }
    /// Received since the ledger began.
    const BytesBySource& received() const noexcept { return received_; }
    /// Forgets the figures, not the peers: they belong to someone else.
    void forget();

private:
    struct Account {
        Party party;
        std::int64_t downloaded = 0;  // verified; neither confirmed nor forgotten, as all here
        std::int64_t uploaded = 0;
        bool hasLeft = false;
    };

    static std::int64_t& sourceIn(BytesBySource& bytes, LinkKind link) noexcept;

    std::map<PeerKey, Account> accounts_;
    BytesBySource received_;
    BytesBySource svcUncommitted_;
    std::int64_t uploaded_ = 0;
    std::int64_t svcLastUploadBytes_ = 0;  // of `uploaded_`, confirmed
    std::int64_t svcVerifiedDownloadBytes_ = 0;
    std::int64_t svcLastVerifiedDownloadBytes_ = 0;  // of `svcVerifiedDownloadBytes_`, confirmed
    std::optional<HeartbeatPayload> reported_;
};

}  // namespace skein
