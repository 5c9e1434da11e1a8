#pragma once

#include "Core/engine/PeerDialer.h"
#include "Core/engine/RequestScheduler.h"
#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerConnection.h"
#include "Core/wire/PeerRuntimeInfo.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"
#include "public/common/Throttle.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace skein {

/// The connections of one session: who is connected, who left and why. Whom to dial and how is its dialer's business.
///
/// Owner: the session. Thread: the session's strand, on which callbacks come too.
class PeerPool {
public:
    static constexpr std::chrono::hours badPeerCooldown{1};
    /// Who moved no bytes for so long, in either direction, makes room when others wait.
    static constexpr std::chrono::minutes uselessLimit{5};
    /// So does who was asked for blocks, and sent none for so long.
    static constexpr std::chrono::seconds silenceLimit{60};

    struct Environment {
        Strand strand;
        Clock& clock;
        FileLogger& log;
        PeerConnection::Identity identity;
        std::size_t maxConnections = 50;
        DialOptions dialOptions;
        PeerDialer::Dial dial;
        LocalBinding binding = {};
        DescriptorBudget descriptors = DescriptorBudget();
    };

    /// A connected peer. Lives until `onPeerGone` returned.
    struct Peer {
        PeerKey key = 0;
        PeerSource source = PeerSource::incoming;
        bool isNamedByUser = false;
        bool isOfOwnSource = false;  ///< as its DialRequest says
        int badPieces = 0;
        std::int64_t bytesMoved = 0;  ///< both ways, when that was last looked at
        Clock::TimePoint lastUsefulAt{};
        std::optional<ServicePeer> servicePeer;  ///< who it is to the resource service, if that is known
        std::unique_ptr<PeerConnection> connection;

        DialRequest origin() const {
            return {connection->address(), source, isNamedByUser, servicePeer, isOfOwnSource};
        }
        bool isRelayed() const { return connection->transportKind() == PeerTransport::relay; }
    };

    struct Callbacks {
        /// What a peer that is taken in will report to.
        std::function<PeerConnection::Callbacks(PeerKey)> connectionCallbacks;
        /// The handshake is done; messages flow once this returned.
        std::function<void(Peer&)> onPeerReady;
        /// A dial came to nothing.
        std::function<void(const DialRequest&)> onDialFailed;
        /// A peer was not dialled: there is no way to it from where traffic may leave.
        std::function<void(const DialRequest&)> onOutOfReach;
        /// An established peer left.
        std::function<void(const Peer&)> onPeerGone;
    };

    PeerPool(const Environment& environment, Callbacks callbacks);
    ~PeerPool();

    void connectToPeer(const DialRequest& request) { dialer_.connectToPeer(request); }
    /// Shakes hands over `transport`, which with its start takes at most `timeout`, and takes the peer in. Returns why
    /// that failed, or nothing. The caller is cancelled before the pool stops.
    asio::awaitable<std::string> connectOver(std::unique_ptr<PeerWireTransport> transport, DialRequest origin,
                                             std::chrono::seconds timeout);
    void handleIncomingConnection(std::unique_ptr<PeerWireTransport> transport, PeerAddress address);
    /// The torrent's, once it is known.
    void setPieceCount(int count);
    /// Asks anew what the connected peers report to.
    void renewCallbacks();
    /// Drops the peer; with a cooldown it is not dialled again until that is over.
    void drop(PeerKey key, const std::string& reason, Clock::Duration cooldown = Clock::Duration::zero());
    /// Notes who is of use, and lets one go who is not when dials wait for room. From time to time.
    void review();
    /// The torrent is private: peers of public sources are dropped, and not dialled again. Whoever dialled us stays.
    void dropPublicPeers();
    /// Closes all but the best `keepAtMost` peers: those that move most bytes, the longest connected among equals.
    void shedPeers(std::size_t keepAtMost);
    /// Closes every connection and forgets queued dials; until `allowPeers`, nobody gets in.
    asio::awaitable<void> disconnectAll();
    void allowPeers() noexcept;
    asio::awaitable<void> stop();

    void setSpeedLimits(std::int64_t download, std::int64_t upload);
    /// What the pool moves counts towards `rates` too, which outlive it.
    void shareSpeedLimits(SharedRates& rates);
    const std::unordered_map<PeerKey, std::unique_ptr<Peer>>& connected() const noexcept { return connected_; }
    Peer* find(PeerKey key);
    /// Whom we are connected to at that address, other than over the relay.
    Peer* findDirect(const PeerAddress& address);
    /// How many connections more there may be.
    std::size_t room() const noexcept;
    static void setServicePeer(Peer& peer, const ServicePeer& servicePeer);
    const PeerDialer& dialer() const noexcept { return dialer_; }
    /// The connected peers and those that left or failed lately.
    std::vector<PeerRuntimeInfo> makePeerRuntimeInfos(const std::function<double(PeerKey)>& progressOf) const;

private:
    PeerDialer::Callbacks dialerCallbacks();
    asio::awaitable<void> acceptPeer(std::unique_ptr<Peer> peer);
    std::unique_ptr<PeerConnection> makeConnection(const PeerAddress& address,
                                                   std::unique_ptr<PeerWireTransport> transport,
                                                   PeerDirection direction);
    std::unique_ptr<Peer> makePeer(const DialRequest& origin, std::unique_ptr<PeerConnection> connection);
    void admit(std::unique_ptr<Peer> peer);
    void setCallbacks(Peer& peer);
    bool isOurselves(const Peer& peer) const;
    Peer* otherConnectionTo(const Peer& peer);
    void handlePeerDisconnect(PeerKey key, const std::string& reason);
    void retire(std::unique_ptr<Peer> peer);
    asio::awaitable<void> retireSlowly(std::unique_ptr<Peer> peer);
    bool wasSetUpAsLeecher(const Peer& peer) const;
    void rememberDisconnectedPeer(const Peer& peer, const std::string& error);
    void remember(PeerRuntimeInfo info);
    void forgetRow(const PeerAddress& address);
    bool isFull() const noexcept { return room() <= dialer_.dialsInFlight(); }
    void noteUse();
    /// On whose behalf somebody may have to leave.
    enum class Claim : std::uint8_t { ofAStranger, ofTheUser };
    void makeRoom(Claim claim);
    const char* uselessness(const Peer& peer) const;
    PeerRuntimeInfo infoOf(const Peer& peer) const;

    const Environment environment_;
    const Callbacks callbacks_;
    Throttle download_;
    Throttle upload_;
    PeerKey nextKey_ = 1;
    std::unordered_map<PeerKey, std::unique_ptr<Peer>> connected_;
    std::deque<PeerRuntimeInfo> recentDisconnectedPeers_;
    std::size_t accepting_ = 0;
    bool isOpen_ = true;
    std::optional<int> pieceCount_;
    PeerDialer dialer_;
    std::size_t retiring_ = 0;  // peers that left and whose connections have yet to stop
    Notifier retired_;
    TaskGroup tasks_;
};

}  // namespace skein
