#include "Core/engine/PeerPool.h"

#include "Core/wire/PeerIDClientParser.h"
#include "public/common/ErrorText.h"

#include <boost/asio/this_coro.hpp>

#include <algorithm>

namespace skein {

namespace {

constexpr std::size_t maxRememberedPeers = 50;
/// A conversation that ends so soon and moved nothing counts as a failed dial.
constexpr std::chrono::seconds shortConversation{10};

}  // namespace

PeerPool::PeerPool(const Environment& environment, Callbacks callbacks)
    : environment_(environment),
      callbacks_(std::move(callbacks)),
      dialer_({environment.strand, environment.clock, environment.log, environment.dialOptions, environment.dial,
               environment.binding, environment.descriptors},
              dialerCallbacks()),
      retired_(environment.strand),
      tasks_(environment.strand) {}

PeerPool::~PeerPool() = default;

// --- dialling --------------------------------------------------------------------------------------------------------

PeerDialer::Callbacks PeerPool::dialerCallbacks() {
    PeerDialer::Callbacks callbacks;
    callbacks.makeConnection = [this](const PeerAddress& address, std::unique_ptr<PeerWireTransport> transport) {
        return makeConnection(address, std::move(transport), PeerDirection::outgoing);
    };
    callbacks.isConnectedTo = [this](const PeerAddress& address) { return findDirect(address) != nullptr; };
    callbacks.room = [this] { return room(); };
    callbacks.onRoomNeeded = [this] { makeRoom(Claim::ofTheUser); };
    callbacks.onConnected = [this](const DialRequest& request, std::unique_ptr<PeerConnection> connection) {
        admit(makePeer(request, std::move(connection)));
    };
    callbacks.onFailed = [this](const DialRequest& request) { callbacks_.onDialFailed(request); };
    callbacks.onOutOfReach = [this](const DialRequest& request) { callbacks_.onOutOfReach(request); };
    callbacks.onRow = [this](PeerRuntimeInfo row) { remember(std::move(row)); };
    return callbacks;
}

PeerPool::Peer* PeerPool::findDirect(const PeerAddress& address) {
    for (const auto& [key, peer] : connected_)
        if (!peer->isRelayed() && peer->connection->address() == address) return peer.get();
    return nullptr;
}

std::size_t PeerPool::room() const noexcept {
    const std::size_t taken = connected_.size() + accepting_;
    return taken < environment_.maxConnections ? environment_.maxConnections - taken : 0;
}

asio::awaitable<std::string> PeerPool::connectOver(std::unique_ptr<PeerWireTransport> transport, DialRequest origin,
                                                   std::chrono::seconds timeout) {
    co_await asio::this_coro::throw_if_cancelled(false);  // a cancelled dial still stops its connection
    auto connection = makeConnection(origin.address, std::move(transport), PeerDirection::outgoing);
    std::string failure;
    try {
        co_await connection->connect(timeout);
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    if (failure.empty()) {
        admit(makePeer(origin, std::move(connection)));
    } else {
        co_await connection->stop();
    }
    co_return failure;
}

// --- incoming --------------------------------------------------------------------------------------------------------

void PeerPool::handleIncomingConnection(std::unique_ptr<PeerWireTransport> transport, PeerAddress address) {
    environment_.log.debug("[Session] Incoming peer connecting: ", address.description());
    if (environment_.dialOptions.encryption == EncryptionChoice::mse) {
        // What the listener hands over began with a handshake in plain text.
        environment_.log.info("[Session] Incoming peer ", address.description(),
                              " turned away: only encrypted connections are allowed");
        return transport->cancel();
    }
    if (isFull()) makeRoom(Claim::ofAStranger);
    if (!isOpen_ || tasks_.isStopping() || isFull() || !environment_.descriptors.hasRoom()) return transport->cancel();
    transport->hold(environment_.descriptors.take());
    auto connection = makeConnection(address, std::move(transport), PeerDirection::incoming);
    const DialRequest origin{std::move(address), PeerSource::incoming};
    ++accepting_;
    tasks_.spawn(acceptPeer(makePeer(origin, std::move(connection))));
}

asio::awaitable<void> PeerPool::acceptPeer(std::unique_ptr<Peer> peer) {
    co_await asio::this_coro::throw_if_cancelled(false);
    std::string failure;
    try {
        co_await peer->connection->accept();
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    --accepting_;
    if (tasks_.isStopping()) {
        co_await peer->connection->stop();
        co_return;
    }
    const std::string address = peer->connection->address().description();
    if (failure.empty()) {
        environment_.log.info("[Session] ✓ Accepted peer: ", address);
        admit(std::move(peer));
    } else {
        environment_.log.info("[Session] Incoming peer ", address, " failed: ", failure);
        co_await peer->connection->stop();
    }
}

// --- connected -------------------------------------------------------------------------------------------------------

std::unique_ptr<PeerConnection> PeerPool::makeConnection(const PeerAddress& address,
                                                         std::unique_ptr<PeerWireTransport> transport,
                                                         PeerDirection direction) {
    const PeerConnection::Environment environment{environment_.strand, environment_.clock, environment_.log, download_,
                                                  upload_};
    auto connection =
        std::make_unique<PeerConnection>(environment, address, environment_.identity, std::move(transport), direction);
    if (pieceCount_) connection->setPieceCount(*pieceCount_);
    return connection;
}

void PeerPool::setPieceCount(int count) {
    pieceCount_ = count;
    for (const auto& [key, peer] : connected_) peer->connection->setPieceCount(count);
}

std::unique_ptr<PeerPool::Peer> PeerPool::makePeer(const DialRequest& origin,
                                                   std::unique_ptr<PeerConnection> connection) {
    auto peer = std::make_unique<Peer>();
    peer->key = nextKey_++;
    peer->source = origin.source;
    peer->isNamedByUser = origin.isNamedByUser;
    peer->isOfOwnSource = origin.isOfOwnSource;
    peer->connection = std::move(connection);
    if (origin.servicePeer) setServicePeer(*peer, *origin.servicePeer);
    return peer;
}

void PeerPool::setServicePeer(Peer& peer, const ServicePeer& servicePeer) {
    peer.servicePeer = servicePeer;
    peer.connection->setSpeedLimit(servicePeer.speedLimit);
}

/// Takes the peer in, unless it is ourselves or someone we are connected to already.
void PeerPool::admit(std::unique_ptr<Peer> peer) {
    if (!isOpen_) return retire(std::move(peer));
    if (isOurselves(*peer)) {
        dialer_.leaveAlone(peer->connection->address(), badPeerCooldown);
        return retire(std::move(peer));
    }
    if (const Peer* const other = otherConnectionTo(*peer)) {
        // Two clients that dial each other at once must drop the same one of the two connections: the one that the
        // lower peer id dialled stays.
        const bool weAreLower = environment_.identity.peerID < *peer->connection->remotePeerID();
        const PeerDirection kept = weAreLower ? PeerDirection::outgoing : PeerDirection::incoming;
        if (peer->connection->direction() != kept || other->connection->direction() == kept)
            return retire(std::move(peer));
        drop(other->key, "Connected twice");
    }
    Peer& admitted = *peer;
    admitted.lastUsefulAt = environment_.clock.now();
    forgetRow(admitted.connection->address());
    setCallbacks(admitted);
    connected_.emplace(admitted.key, std::move(peer));
    callbacks_.onPeerReady(admitted);
    admitted.connection->begin();
}

void PeerPool::setCallbacks(Peer& peer) {
    PeerConnection::Callbacks callbacks = callbacks_.connectionCallbacks(peer.key);
    callbacks.onDisconnected = [this, key = peer.key](const std::string& reason) { handlePeerDisconnect(key, reason); };
    peer.connection->setCallbacks(std::move(callbacks));
}

void PeerPool::renewCallbacks() {
    for (const auto& [key, peer] : connected_) setCallbacks(*peer);
}

bool PeerPool::isOurselves(const Peer& peer) const {
    return peer.connection->remotePeerID() == environment_.identity.peerID;
}

/// A relayed connection and a direct one to the same peer stand beside each other until the direct one proves itself.
/// A peer id is no proof: whoever has spoken with a peer can repeat its id, and would keep it out from any other host.
PeerPool::Peer* PeerPool::otherConnectionTo(const Peer& peer) {
    const PeerConnection& connection = *peer.connection;
    for (const auto& [key, other] : connected_)
        if (other->isRelayed() == peer.isRelayed() && other->connection->remotePeerID() == connection.remotePeerID() &&
            (peer.isRelayed() || other->connection->address().host == connection.address().host))
            return other.get();
    return nullptr;
}

PeerPool::Peer* PeerPool::find(PeerKey key) {
    const auto found = connected_.find(key);
    return found == connected_.end() ? nullptr : found->second.get();
}

void PeerPool::drop(PeerKey key, const std::string& reason, Clock::Duration cooldown) {
    const auto found = connected_.find(key);
    if (found == connected_.end()) return;
    if (cooldown > Clock::Duration::zero()) dialer_.leaveAlone(found->second->connection->address(), cooldown);
    handlePeerDisconnect(key, reason);
}

void PeerPool::handlePeerDisconnect(PeerKey key, const std::string& reason) {
    const auto found = connected_.find(key);
    // While the pool stops, the peer stays where `stop` finds it.
    if (found == connected_.end() || tasks_.isStopping()) return;
    std::unique_ptr<Peer> peer = std::move(found->second);
    environment_.log.info("[Session] Peer disconnected: ", peer->connection->address().description());
    connected_.erase(found);
    rememberDisconnectedPeer(*peer, wasSetUpAsLeecher(*peer) ? reason : "Peer disconnected before leecher setup");
    callbacks_.onPeerGone(*peer);
    retire(std::move(peer));
    dialer_.drainPendingPublicPeerDials();
}

/// False, and logged, for a peer that was lost before it heard that we are interested.
bool PeerPool::wasSetUpAsLeecher(const Peer& peer) const {
    const PeerConnection& connection = *peer.connection;
    if (!connection.amInterested() || connection.hasSpoken()) return true;
    const std::string address = connection.address().description();
    if (const auto& failure = connection.writeFailure()) {
        environment_.log.info("[Session] failed to send interested to ", address, ": ", *failure);
    } else {
        environment_.log.info("[Session] skip leecher setup for disconnected peer ", address);
    }
    return false;
}

void PeerPool::rememberDisconnectedPeer(const Peer& peer, const std::string& error) {
    PeerRuntimeInfo info = infoOf(peer);
    info.isConnected = false;
    info.lastError = error;
    const bool isShort = environment_.clock.now() - *peer.connection->connectedAt() < shortConversation;
    if (peer.connection->direction() == PeerDirection::outgoing)
        dialer_.noteDisconnect(peer.origin(), isShort && info.downloaded + info.uploaded == 0);
    remember(std::move(info));
}

void PeerPool::remember(PeerRuntimeInfo info) {
    forgetRow(info.address);
    if (recentDisconnectedPeers_.size() >= maxRememberedPeers) recentDisconnectedPeers_.pop_front();
    recentDisconnectedPeers_.push_back(std::move(info));
}

void PeerPool::forgetRow(const PeerAddress& address) {
    std::erase_if(recentDisconnectedPeers_, [&](const PeerRuntimeInfo& row) { return row.address == address; });
}

/// A connection may be the one that is calling: it ends first and is freed after.
void PeerPool::retire(std::unique_ptr<Peer> peer) {
    ++retiring_;
    tasks_.spawn(retireSlowly(std::move(peer)));
}

asio::awaitable<void> PeerPool::retireSlowly(std::unique_ptr<Peer> peer) {
    co_await asio::this_coro::throw_if_cancelled(false);
    co_await peer->connection->stop();
    peer.reset();
    --retiring_;
    retired_.notify();
}

void PeerPool::review() {
    noteUse();
    if (isFull() && dialer_.pendingDials() > 0) makeRoom(Claim::ofAStranger);
}

void PeerPool::noteUse() {
    for (const auto& [key, peer] : connected_) {
        const PeerConnection::TrafficCounters counters = peer->connection->snapshotTrafficCounters();
        const std::int64_t moved = counters.uiBytesDownloaded + counters.uiBytesUploaded;
        if (std::exchange(peer->bytesMoved, moved) != moved) peer->lastUsefulAt = environment_.clock.now();
    }
}

/// Why the peer may go when others wait; nothing when it may not.
const char* PeerPool::uselessness(const Peer& peer) const {
    const Clock::TimePoint now = environment_.clock.now();
    if (now - peer.lastUsefulAt >= uselessLimit) return "Of no use for 5 minutes while others wait";
    const std::optional<Clock::TimePoint> owingSince = peer.connection->owesBlocksSince();
    if (owingSince && now - *owingSince >= silenceLimit) return "Answered nothing for 60 seconds while others wait";
    return nullptr;
}

/// Lets the peer go that has been of no use for longest, if it has been so for long enough; for a peer that the user
/// named, any peer. Those whom the user named stay.
void PeerPool::makeRoom(Claim claim) {
    noteUse();
    const Peer* least = nullptr;
    for (const auto& [key, peer] : connected_) {
        if (peer->isNamedByUser || (claim == Claim::ofAStranger && uselessness(*peer) == nullptr)) continue;
        if (least == nullptr || peer->lastUsefulAt < least->lastUsefulAt) least = peer.get();
    }
    if (least == nullptr) return;
    const char* const why = uselessness(*least);
    drop(least->key, why != nullptr ? why : "A peer that the user named takes its place",
         PeerDialer::publicPeerFailureCooldown);
}

void PeerPool::dropPublicPeers() {
    dialer_.givePublicPeersUp();
    std::vector<PeerKey> leaving;
    for (const auto& [key, peer] : connected_)
        if (peer->connection->direction() == PeerDirection::outgoing && !peer->origin().mayServePrivate())
            leaving.push_back(key);
    for (const PeerKey key : leaving) drop(key, "The torrent is private");
}

void PeerPool::shedPeers(std::size_t keepAtMost) {
    if (connected_.size() <= keepAtMost) return;
    struct Ranked {
        double rate = 0;  // of one moment: it changes with the clock, and an order must not while it is made
        std::optional<Clock::TimePoint> connectedAt;
        PeerKey key = 0;
    };
    std::vector<Ranked> ranked;
    ranked.reserve(connected_.size());
    for (const auto& [key, peer] : connected_) {
        const PeerConnection::RuntimeStats stats = peer->connection->runtimeStats();
        ranked.push_back({stats.downloadRate + stats.uploadRate, peer->connection->connectedAt(), key});
    }
    std::sort(ranked.begin(), ranked.end(), [](const Ranked& a, const Ranked& b) {
        return a.rate != b.rate ? a.rate > b.rate : a.connectedAt < b.connectedAt;
    });
    environment_.log.info("[Session] memory pressure: dropping ", ranked.size() - keepAtMost, " of ", ranked.size(),
                          " peers");
    for (std::size_t i = keepAtMost; i < ranked.size(); ++i)
        drop(ranked[i].key, "memory pressure", PeerDialer::publicPeerFailureCooldown);
}

asio::awaitable<void> PeerPool::disconnectAll() {
    isOpen_ = false;
    dialer_.close();
    std::vector<std::unique_ptr<Peer>> leaving;
    for (auto& [key, peer] : connected_) leaving.push_back(std::move(peer));
    connected_.clear();
    for (std::unique_ptr<Peer>& peer : leaving) {
        callbacks_.onPeerGone(*peer);
        retire(std::move(peer));
    }
    // Whoever gives this wait up lets nothing go: the retiring goes on as tasks of the pool.
    while (retiring_ > 0) co_await retired_.wait();
}

void PeerPool::allowPeers() noexcept {
    isOpen_ = true;
    dialer_.open();
}

asio::awaitable<void> PeerPool::stop() {
    co_await dialer_.stop();
    co_await disconnectAll();
    co_await tasks_.stop();
}

void PeerPool::setSpeedLimits(std::int64_t download, std::int64_t upload) {
    download_.setLimit(download);
    upload_.setLimit(upload);
}

void PeerPool::shareSpeedLimits(SharedRates& rates) {
    download_.share(&rates.download);
    upload_.share(&rates.upload);
}

std::vector<PeerRuntimeInfo> PeerPool::makePeerRuntimeInfos(const std::function<double(PeerKey)>& progressOf) const {
    std::vector<PeerRuntimeInfo> infos;
    infos.reserve(connected_.size() + recentDisconnectedPeers_.size());
    for (const auto& [key, peer] : connected_) {
        infos.push_back(infoOf(*peer));
        infos.back().progress = progressOf(key);
    }
    infos.insert(infos.end(), recentDisconnectedPeers_.begin(), recentDisconnectedPeers_.end());
    return infos;
}

PeerRuntimeInfo PeerPool::infoOf(const Peer& peer) const {
    const PeerConnection& connection = *peer.connection;
    const PeerConnection::RuntimeStats stats = connection.runtimeStats();
    PeerRuntimeInfo info;
    info.address = connection.address();
    info.source = peer.source;
    info.direction = connection.direction();
    info.transport = connection.transportKind();
    info.encryption = connection.encryptionStatus();
    if (connection.remotePeerID())
        info.clientName = PeerIDClientParser::clientName(*connection.remotePeerID()).value_or("");
    info.downloaded = stats.downloaded;
    info.uploaded = stats.uploaded;
    info.downloadRate = static_cast<std::int64_t>(stats.downloadRate);
    info.uploadRate = static_cast<std::int64_t>(stats.uploadRate);
    info.isConnected = connection.isConnected();
    info.peerChoking = connection.peerChoking();
    info.amChoking = connection.amChoking();
    info.peerInterested = connection.peerInterested();
    if (dialer_.isDetectedUTPPeer(info.address)) info.lastError = PeerDialer::utpPeerMark;
    return info;
}

}  // namespace skein
