#pragma once

#include "Core/engine/RequestScheduler.h"
#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerConnection.h"
#include "Core/wire/PeerRuntimeInfo.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/TaskGroup.h"
#include "public/common/Throttle.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace skein {

/// A peer that may be dialled, and how.
struct DialRequest {
    PeerAddress address;
    PeerSource source = PeerSource::publicTracker;
    bool isNamedByUser = false;  ///< dialled whatever the cooldown and the address rules say
};

/// The connections of one session: whom to dial and when, who is connected, who left and why.
///
/// Owner: the session. Thread: the session's strand, on which callbacks come too.
class PeerPool {
public:
    static constexpr std::size_t maxPublicPeerDialInFlight = 16;
    static constexpr std::size_t maxPendingPublicPeerDials = 256;
    static constexpr std::chrono::seconds publicBTConnectTimeout{15};
    static constexpr std::chrono::seconds publicPeerFailureCooldown{600};
    static constexpr std::chrono::seconds namedPeerRetry{5};
    static constexpr std::chrono::hours badPeerCooldown{1};

    /// Makes the transport of a dial.
    using Dial = std::function<std::unique_ptr<PeerWireTransport>(const PeerAddress& address)>;

    struct Environment {
        Strand strand;
        Clock& clock;
        FileLogger& log;
        PeerConnection::Identity identity;
        std::size_t maxConnections = 50;
        Dial dial;
    };

    /// A connected peer. Lives until `onPeerGone` returned.
    struct Peer {
        PeerKey key = 0;
        PeerSource source = PeerSource::incoming;
        bool isNamedByUser = false;
        int badPieces = 0;
        std::unique_ptr<PeerConnection> connection;
    };

    struct Callbacks {
        /// What a peer that is taken in will report to.
        std::function<PeerConnection::Callbacks(PeerKey)> connectionCallbacks;
        /// The handshake is done; messages flow once this returned.
        std::function<void(Peer&)> onPeerReady;
        /// A dial came to nothing.
        std::function<void(const DialRequest&)> onDialFailed;
        /// An established peer left.
        std::function<void(const Peer&)> onPeerGone;
    };

    PeerPool(const Environment& environment, Callbacks callbacks);
    ~PeerPool();

    void connectToPeer(const DialRequest& request);
    void handleIncomingConnection(std::unique_ptr<PeerWireTransport> transport, PeerAddress address);
    /// Asks anew what the connected peers report to.
    void renewCallbacks();
    /// Drops the peer; with a cooldown it is not dialled again until that is over.
    void drop(PeerKey key, const std::string& reason, Clock::Duration cooldown = Clock::Duration::zero());
    /// Closes all but the best `keepAtMost` peers: those that move most bytes, the longest connected among equals.
    void shedPeers(std::size_t keepAtMost);
    /// Closes every connection and forgets queued dials; until `allowPeers`, nobody gets in.
    asio::awaitable<void> disconnectAll();
    void allowPeers() noexcept { isOpen_ = true; }
    asio::awaitable<void> stop();

    void setSpeedLimits(std::int64_t download, std::int64_t upload);
    const std::unordered_map<PeerKey, std::unique_ptr<Peer>>& connected() const noexcept { return connected_; }
    Peer* find(PeerKey key);
    /// Addresses that any source named and that were new then: an address is counted again once it was forgotten.
    std::size_t addressesOffered() const noexcept { return addressesOffered_; }
    std::size_t dialsInFlight() const noexcept { return publicPeerDialInFlight_.size(); }
    std::size_t pendingDials() const noexcept { return pendingPublicPeerDials_.size(); }
    /// The connected peers and those that left or failed lately.
    std::vector<PeerRuntimeInfo> makePeerRuntimeInfos(const std::function<double(PeerKey)>& progressOf) const;

private:
    bool isConnectedTo(const PeerAddress& address) const;
    bool isFull() const noexcept;
    void enqueuePendingPublicPeerDial(const DialRequest& request);
    void drainPendingPublicPeerDials();
    asio::awaitable<void> dial(DialRequest request);
    asio::awaitable<void> acceptPeer(std::unique_ptr<Peer> peer);
    asio::awaitable<std::string> establish(Peer& peer);
    std::unique_ptr<Peer> makePeer(const DialRequest& request, std::unique_ptr<PeerWireTransport> transport,
                                   PeerDirection direction);
    void admit(std::unique_ptr<Peer> peer);
    void setCallbacks(Peer& peer);
    bool isOurselves(const Peer& peer) const;
    Peer* otherConnectionTo(const Peer& peer);
    void handlePeerDisconnect(PeerKey key, const std::string& reason);
    void retire(std::unique_ptr<Peer> peer);
    asio::awaitable<void> retireSlowly(std::unique_ptr<Peer> peer);
    void rememberDisconnectedPeer(const Peer& peer, const std::string& error);
    void rememberFailedDial(const DialRequest& request, const std::string& error);
    void remember(PeerRuntimeInfo info);
    asio::awaitable<void> retryNamedPeer(DialRequest request);
    PeerRuntimeInfo infoOf(const Peer& peer) const;

    const Environment environment_;
    const Callbacks callbacks_;
    Throttle download_;
    Throttle upload_;
    PeerKey nextKey_ = 1;
    std::unordered_map<PeerKey, std::unique_ptr<Peer>> connected_;
    std::unordered_set<PeerAddress> publicPeerDialInFlight_;
    std::deque<DialRequest> pendingPublicPeerDials_;
    std::unordered_set<PeerAddress> pendingPublicPeerDialAddresses_;
    std::unordered_map<PeerAddress, Clock::TimePoint> publicPeerRetryAfter_;
    std::deque<PeerRuntimeInfo> recentDisconnectedPeers_;
    std::size_t accepting_ = 0;
    std::size_t addressesOffered_ = 0;
    bool isOpen_ = true;
    TaskGroup tasks_;
};

}  // namespace skein
