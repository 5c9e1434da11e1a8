#pragma once

#include "Core/engine/PeerPool.h"
#include "Core/engine/ResourceGateway.h"
#include "Core/wire/PeerWireTransport.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// The peers that the resource service knows for a torrent: dials them, reaches those behind NAT through the relay,
/// and lets go of the relay where direct connections are fast enough.
///
/// Owner: the session's service side, which awaits `stop()`. Thread: the session's strand.
class ServicePeers {
public:
    /// No relay link is opened while the download is as fast as this. Bytes a second.
    static constexpr std::int64_t relaySpeedThreshold = 1'048'576;
    /// Relay links are closed once direct connections are as fast as this. Bytes a second.
    static constexpr std::int64_t relayRetireDirectSpeedThreshold = 524'288;
    static constexpr std::chrono::seconds discoveryInterval{60};
    static constexpr std::chrono::seconds hungryDiscoveryInterval{20};
    static constexpr std::size_t fewPeers = 5;
    /// Between two lookups, however often leechers come and go.
    static constexpr std::chrono::seconds shortestInterval{10};
    /// Of one answer; the service is not to make us dial the world.
    static constexpr std::size_t maxListedPeers = 100;
    /// To be paired, and to shake hands then.
    static constexpr std::chrono::seconds relayTimeout{45};

    /// A link waits for whomever the service finds for it: more of them do not find more.
    static constexpr std::size_t maxRelaysInFlight = 4;

    /// Makes a relay link that pairs when it is started. Throws what says that there cannot be one.
    using MakeRelay = std::function<std::unique_ptr<PeerWireTransport>(const ServiceAccess& access, std::string role,
                                                                       std::string mode)>;

    /// What the session is about, at this moment.
    struct Facts {
        std::string name;
        bool isDownloading = false;
        bool isSeeding = false;
        std::int64_t downloadSpeed = 0;  ///< bytes a second
    };

    struct Environment {
        Strand strand;
        Clock& clock;
        FileLogger& log;
        ResourceGateway& gateway;
        PeerPool& pool;
        std::string infoHash;
        UploadMode uploadMode = UploadMode::paid;
        bool allowsLocalPeers = false;  ///< the service may name loopback and private addresses
        MakeRelay makeRelay;
        std::function<Facts()> facts;
        /// What is known of a connected peer has changed.
        std::function<void(const PeerPool::Peer&)> onPolicyChanged;
    };

    explicit ServicePeers(Environment environment);

    void setUploadMode(UploadMode mode) { environment_.uploadMode = mode; }

    /// From here on, peers are looked for from time to time. May be called again.
    void startSkeinServerDiscoveryLoop();
    void setAccelerate(bool isEnabled) noexcept { accelerateEnabled_ = isEnabled; }
    bool accelerates() const noexcept { return accelerateEnabled_; }
    /// A dial of a peer that the service listed came to nothing.
    void handleFailedDial(const DialRequest& request);
    /// The listed peer that somebody who dialled us from `host` must be; nothing when that is not certain.
    std::optional<ServicePeer> peerAt(const std::string& host) const;
    /// The last peer of a seeding session left: others may be there by now.
    void handleLastLeecherGone();
    void retireRelayConnectionsIfDirectIsFast(std::int64_t directSpeed);
    asio::awaitable<void> stop() { return tasks_.stop(); }

private:
    asio::awaitable<void> discoveryLoop();
    asio::awaitable<void> waitForTurn();
    bool isLookupDue() const;
    asio::awaitable<void> findPeersFromSkeinServer();
    asio::awaitable<std::vector<SkeinPeerInfo>> svcQueryPeers();
    void connectTo(const SkeinPeerInfo& info, const ServiceAccess& access, const Facts& facts);
    std::vector<PeerAddress> addressesOf(const SkeinPeerInfo& info, bool allowsLocal) const;
    void connectDirectly(const DialRequest& request);
    void connectViaRelay(const DialRequest& request);
    bool isConnectedToUser(const std::string& userID) const;
    asio::awaitable<void> connectToPeerViaRelay(DialRequest request);
    asio::awaitable<void> connectAsSeederViaRelay(DialRequest request);
    asio::awaitable<std::string> openRelay(DialRequest request, std::string role, std::string mode);

    Environment environment_;
    bool accelerateEnabled_ = false;
    bool loopRuns_ = false;
    std::optional<Clock::TimePoint> lastLookupAt_;
    std::map<std::string, std::vector<PeerAddress>> otherAddresses_;  // by user: to try when the first fails
    std::map<std::string, std::vector<ServicePeer>> listedAt_;        // by host
    std::set<std::string> relaysInFlight_;                            // by user
    Notifier wake_;
    TaskGroup tasks_;
};

}  // namespace skein
