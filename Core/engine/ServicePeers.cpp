#include "Core/engine/ServicePeers.h"

#include "public/common/ErrorText.h"
#include "public/common/Within.h"

#include <boost/asio/error.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/system/system_error.hpp>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <utility>

namespace skein {

namespace {

/// Whether the service itself is on this machine or this site, and so may name peers that are.
bool isLocal(const std::string& serverURL) {
    const auto url = boost::urls::parse_uri(serverURL);
    if (!url) return false;
    return url->host() == "localhost" || PeerAddress::fromHost(url->host_address(), 1).isLocal();
}

bool isUsable(const PeerAddress& address, bool allowsLocal) {
    if (address.port == 0 || !address.literal()) return false;
    return address.isUsablePublicBTPeer() || (allowsLocal && address.isLocal());
}

}  // namespace

ServicePeers::ServicePeers(Environment environment)
    : environment_(std::move(environment)), wake_(environment_.strand), tasks_(environment_.strand) {}

// --- looking for them ------------------------------------------------------------------------------------------------

void ServicePeers::startSkeinServerDiscoveryLoop() {
    if (loopRuns_) return;
    loopRuns_ = true;
    tasks_.spawn(discoveryLoop());
}

asio::awaitable<void> ServicePeers::discoveryLoop() {
    for (;;) {
        if (isLookupDue()) co_await findPeersFromSkeinServer();
        co_await waitForTurn();
    }
}

asio::awaitable<void> ServicePeers::waitForTurn() {
    try {
        co_await within(environment_.clock, hungryDiscoveryInterval, wake_.wait());
    } catch (const TimeLimitExceeded&) {
        // Nobody called.
    }
}

void ServicePeers::handleLastLeecherGone() {
    if (!lastLookupAt_ || environment_.clock.now() - *lastLookupAt_ < shortestInterval) return;
    environment_.log.info("[Session][Seeder] All leechers disconnected, re-discovering via SkeinServer...");
    wake_.notify();
}

bool ServicePeers::isLookupDue() const {
    const Facts facts = environment_.facts();
    const bool servesNobody = environment_.uploadMode == UploadMode::disabled;
    if (!facts.isDownloading && (!facts.isSeeding || servesNobody)) return false;
    if (environment_.pool.connected().size() < fewPeers) return true;
    return !lastLookupAt_ || environment_.clock.now() - *lastLookupAt_ >= discoveryInterval;
}

asio::awaitable<void> ServicePeers::findPeersFromSkeinServer() {
    lastLookupAt_ = environment_.clock.now();
    const ServiceAccess access = co_await environment_.gateway.access();
    if (!access.isUsable()) co_return;
    const std::vector<SkeinPeerInfo> peers = co_await svcQueryPeers();
    const Facts facts = environment_.facts();
    environment_.log.info("[Session] SkeinServer found ", peers.size(), " peer(s) for ", facts.name);
    otherAddresses_.clear();
    listedAt_.clear();
    for (const SkeinPeerInfo& info : peers) connectTo(info, access, facts);
}

asio::awaitable<std::vector<SkeinPeerInfo>> ServicePeers::svcQueryPeers() {
    const std::string& hash = environment_.infoHash;
    std::vector<SkeinPeerInfo> peers = co_await environment_.gateway.getPeers(hash, "all");
    if (peers.size() > maxListedPeers) peers.resize(maxListedPeers);
    environment_.log.info("[SvcPhase1] peers for ", hash, ": ", peers.size(), " found (mode=all)");
    if (std::any_of(peers.begin(), peers.end(), [](const SkeinPeerInfo& info) { return info.selfLAN; }))
        environment_.log.info("[SvcPhase1] self LAN peer(s) for ", hash, " found");
    co_return peers;
}

std::vector<PeerAddress> ServicePeers::addressesOf(const SkeinPeerInfo& info, bool allowsLocal) const {
    std::vector<PeerAddress> addresses;
    if ((info.preferLocal || info.selfLAN) && !info.localIP.empty()) {
        const PeerAddress local = PeerAddress::fromHost(info.localIP, info.port);
        if (isUsable(local, allowsLocal) || local.isUsableLSDPeer()) {
            environment_.log.info("[Session] Trying local IP first: ", local.description());
            addresses.push_back(local);
        }
    }
    const PeerAddress address = PeerAddress::fromHost(info.ip, info.port);
    if (isUsable(address, allowsLocal) && std::find(addresses.begin(), addresses.end(), address) == addresses.end())
        addresses.push_back(address);
    return addresses;
}

void ServicePeers::connectTo(const SkeinPeerInfo& info, const ServiceAccess& access, const Facts& facts) {
    if (info.userId.empty()) return;
    // Another machine of the same account is a peer like others, but one that pays nobody.
    const bool isOwn = info.selfLAN || info.userId == access.userID;
    // One that serves nobody has nothing for us.
    if (!facts.isSeeding && info.uploadMode == UploadMode::disabled) return;
    DialRequest request;
    request.source = info.uploadMode == UploadMode::free ? PeerSource::skeinServerFree : PeerSource::skeinServerPaid;
    request.servicePeer = ServicePeer{info.userId, environment_.uploadMode == UploadMode::free || isOwn,
                                      std::max<std::int64_t>(info.speedLimit, 0), info.selfLAN, facts.isSeeding};
    request.address = PeerAddress::fromHost(info.ip, info.port);
    listedAt_[request.address.host].push_back(*request.servicePeer);
    // Of its own network a peer says what it likes: that counts only where the service says that it is ours too.
    const PeerAddress local = PeerAddress::fromHost(info.localIP, info.port);
    if ((info.selfLAN || info.preferLocal) && local.isUsableLSDPeer())
        listedAt_[local.host].push_back(*request.servicePeer);

    std::vector<PeerAddress> addresses = addressesOf(info, environment_.allowsLocalPeers || isLocal(access.serverURL));
    if (addresses.empty()) return connectViaRelay(request);
    request.address = addresses.front();
    addresses.erase(addresses.begin());
    if (!addresses.empty()) otherAddresses_[info.userId] = std::move(addresses);
    connectDirectly(request);
}

std::optional<ServicePeer> ServicePeers::peerAt(const std::string& host) const {
    const auto found = listedAt_.find(host);
    if (found == listedAt_.end()) return std::nullopt;
    const std::vector<ServicePeer>& listed = found->second;
    const bool isOneUser = std::all_of(listed.begin(), listed.end(),
                                       [&](const ServicePeer& peer) { return peer.userID == listed.front().userID; });
    return isOneUser ? std::optional(listed.front()) : std::nullopt;
}

// --- direct connections ----------------------------------------------------------------------------------------------

void ServicePeers::connectDirectly(const DialRequest& request) {
    const ServicePeer& policy = *request.servicePeer;
    for (const auto& [key, peer] : environment_.pool.connected()) {
        const PeerAddress& address = peer->connection->address();
        const bool isListed = address == request.address;
        const bool dialledUs =
            address.host == request.address.host && peer->servicePeer && peer->servicePeer->userID == policy.userID;
        if (peer->isRelayed() || (!isListed && !dialledUs)) continue;
        if (peer->servicePeer != policy) {
            PeerPool::setServicePeer(*peer, policy);
            environment_.onPolicyChanged(*peer);
            environment_.log.info("[Direct] updated peer policy ", address.description(),
                                  " speedLimit=", policy.speedLimit);
        }
        return;
    }
    environment_.pool.connectToPeer(request);
}

void ServicePeers::handleFailedDial(const DialRequest& request) {
    const auto others = otherAddresses_.find(request.servicePeer->userID);
    if (others == otherAddresses_.end() || others->second.empty()) return connectViaRelay(request);
    DialRequest next = request;
    next.address = others->second.front();
    others->second.erase(others->second.begin());
    connectDirectly(next);
}

// --- the relay -------------------------------------------------------------------------------------------------------

bool ServicePeers::isConnectedToUser(const std::string& userID) const {
    const auto& connected = environment_.pool.connected();
    return std::any_of(connected.begin(), connected.end(), [&](const auto& entry) {
        return entry.second->servicePeer && entry.second->servicePeer->userID == userID;
    });
}

void ServicePeers::connectViaRelay(const DialRequest& request) {
    const ServicePeer& peer = *request.servicePeer;
    if (peer.suppressesRelay || relaysInFlight_.contains(peer.userID) || isConnectedToUser(peer.userID)) return;
    if (relaysInFlight_.size() >= maxRelaysInFlight || environment_.pool.room() == 0) return;
    if (peer.isLeecher) {
        relaysInFlight_.insert(peer.userID);
        tasks_.spawn(connectAsSeederViaRelay(request));
        return;
    }
    const std::int64_t speed = environment_.facts().downloadSpeed;
    if (speed >= relaySpeedThreshold) {
        environment_.log.info("[Relay] skipped (speed ", speed, "B/s ≥ threshold) → ", request.address.description());
        return;
    }
    relaysInFlight_.insert(peer.userID);
    tasks_.spawn(connectToPeerViaRelay(request));
}

asio::awaitable<void> ServicePeers::connectToPeerViaRelay(DialRequest request) {
    const std::string peer = request.address.description();
    std::string mode = accelerateEnabled_ ? "all" : "free";
    environment_.log.info("[Relay] → ", peer, " (leecher mode=", mode, " speed=", environment_.facts().downloadSpeed,
                          "B/s)");
    const std::string failure = co_await openRelay(std::move(request), "leecher", std::move(mode));
    if (failure.empty()) {
        environment_.log.info("[Relay] ✓ ", peer);
    } else {
        environment_.log.info("[Relay] ✗ ", peer, " — ", failure);
    }
}

asio::awaitable<void> ServicePeers::connectAsSeederViaRelay(DialRequest request) {
    const std::string peer = request.address.description();
    std::string mode = environment_.uploadMode == UploadMode::free ? "free" : "all";
    environment_.log.info("[Relay][Seeder] → ", peer);
    const std::string failure = co_await openRelay(std::move(request), "seeder", std::move(mode));
    if (failure.empty()) {
        environment_.log.info("[Relay][Seeder] ✓ ", peer);
    } else {
        environment_.log.info("[Relay][Seeder] ✗ ", peer, " — ", failure);
    }
}

/// Why there is no link, or nothing.
asio::awaitable<std::string> ServicePeers::openRelay(DialRequest request, std::string role, std::string mode) {
    co_await asio::this_coro::throw_if_cancelled(false);  // its end is taken note of, however it comes
    const std::string userID = request.servicePeer->userID;
    std::string failure;
    try {
        const ServiceAccess access = co_await environment_.gateway.access();
        // Cancelled while it waited: nobody would say so again.
        if (tasks_.isStopping()) throw boost::system::system_error(asio::error::operation_aborted);
        std::unique_ptr<PeerWireTransport> relay = environment_.makeRelay(access, std::move(role), std::move(mode));
        failure = co_await environment_.pool.connectOver(std::move(relay), std::move(request), relayTimeout);
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    relaysInFlight_.erase(userID);
    co_return failure;
}

void ServicePeers::retireRelayConnectionsIfDirectIsFast(std::int64_t directSpeed) {
    if (directSpeed < relayRetireDirectSpeedThreshold) return;
    std::vector<PeerKey> relayed;
    for (const auto& [key, peer] : environment_.pool.connected())
        if (peer->isRelayed()) relayed.push_back(key);
    if (relayed.empty()) return;
    environment_.log.info("[Relay] retiring ", relayed.size(), " relay connection(s), direct speed ", directSpeed,
                          "B/s");
    for (const PeerKey key : relayed) environment_.pool.drop(key, "Direct connections are fast enough");
}

}  // namespace skein
