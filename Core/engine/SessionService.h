#pragma once

#include "Core/engine/ServicePeers.h"
#include "Core/engine/ServiceRegistration.h"
#include "Core/engine/TrafficLedger.h"
#include "public/common/Random.h"
#include "public/common/SpeedTracker.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// A session's dealings with the resource service: what it is told of the torrent, the account of what was moved, the
/// peers that it knows, and the relay.
///
/// Without a signed-in user it does nothing but keep the account, which the next `start` with one closes.
/// Owner: the session, which awaits `stop()`. Thread: the session's strand.
class SessionService {
public:
    static constexpr std::chrono::seconds skipHeartbeatLogInterval{30};

    /// What the session is about, at this moment.
    struct Facts {
        std::string name;
        std::int64_t totalBytes = 0;
        bool isDownloading = false;
        bool isSeeding = false;
        bool canServe = false;           ///< a piece is there
        std::int64_t downloadSpeed = 0;  ///< bytes a second
    };

    struct Environment {
        Strand strand;
        asio::any_io_executor disk;
        Clock& clock;
        FileLogger& log;
        Random& random;
        ResourceGateway& gateway;
        PeerPool& pool;
        std::string infoHash;
        std::uint16_t listenPort = 0;
        LocalBinding binding;
        UploadMode uploadMode = UploadMode::paid;
        bool allowsLocalPeers = false;
        bool accelerates = false;
        ServicePeers::MakeRelay makeRelay;
        std::function<Facts()> facts;
    };

    explicit SessionService(Environment environment);

    /// Tells the service that the torrent downloads or seeds, whichever it does, and looks for its peers. Called again
    /// when that has changed, or the user has: then what was moved so far is nobody's, or was reported.
    asio::awaitable<void> start();
    void svcStartDownload();
    void svcStartSeeding();
    void svcGoOffline();
    void setAccelerate(bool isEnabled);
    /// The service is told at once.
    void setUploadMode(UploadMode mode);

    /// What the next heartbeat is to say; nothing while the service does not know of the torrent.
    std::optional<HeartbeatPayload> svcDrainDeltas();
    /// False when the report was confirmed before.
    bool svcCommitDeltas(const HeartbeatPayload& payload) { return ledger_.commit(payload); }
    /// The reports that were never confirmed, registered or not. Of a session that has stopped.
    std::vector<HeartbeatPayload> takeRest();
    const BytesBySource& svcUncommittedDeltas() const noexcept { return ledger_.uncommitted(); }
    std::int64_t uncommittedUpload() const noexcept { return ledger_.uncommittedUpload(); }
    const BytesBySource& received() const noexcept { return ledger_.received(); }

    void onPeerReady(PeerPool::Peer& peer);
    void onPeerGone(const PeerPool::Peer& peer);
    void onDialFailed(const DialRequest& request) { peers_.handleFailedDial(request); }
    void onReceived(PeerKey peer, std::int64_t bytes);
    void onVerified(PeerKey supplier, std::int64_t bytes);
    void onSent(PeerKey peer, std::int64_t bytes) { ledger_.addSent(peer, bytes); }
    /// Once a second while bytes may move.
    void onTick();
    asio::awaitable<void> stop();

private:
    asio::awaitable<void> signIn();
    void announce();
    void queueRegister(std::string_view reason);
    void setParty(const PeerPool::Peer& peer);
    TrafficLedger::Heading heading();
    ServicePeers::Environment peersEnvironment();

    Environment environment_;
    ResourceStatus svcStatus_ = ResourceStatus::offline;
    std::string userID_;  // whose bytes the ledger counts; empty while nobody is signed in
    std::vector<std::string> localIP_;
    std::optional<Clock::TimePoint> svcLastUnregisteredHeartbeatLogAt_;
    SpeedTracker directDownloadSpeedTracker_;
    TrafficLedger ledger_;
    ServiceRegistration registration_;
    ServicePeers peers_;
    TaskGroup tasks_;
};

}  // namespace skein
