#include "Core/engine/SessionService.h"

#include "Core/discovery/LocalIPv4Address.h"
#include "Core/engine/ResourceTexts.h"
#include "public/common/RunOn.h"
#include "public/common/UUID.h"

#include <utility>

namespace skein {

namespace {

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) all.append(all.empty() ? "" : ",").append(text);
    return all;
}

}  // namespace

SessionService::SessionService(Environment environment)
    : environment_(std::move(environment)),
      registration_({environment_.strand, environment_.clock, environment_.log, environment_.gateway}),
      peers_(peersEnvironment()),
      tasks_(environment_.strand) {
    peers_.setAccelerate(environment_.accelerates);
}

ServicePeers::Environment SessionService::peersEnvironment() {
    ServicePeers::Environment environment{environment_.strand,  environment_.clock, environment_.log,
                                          environment_.gateway, environment_.pool,  environment_.infoHash};
    environment.uploadMode = environment_.uploadMode;
    environment.allowsLocalPeers = environment_.allowsLocalPeers;
    environment.makeRelay = environment_.makeRelay;
    environment.facts = [this] {
        const Facts facts = environment_.facts();
        return ServicePeers::Facts{facts.name, facts.isDownloading, facts.isSeeding, facts.downloadSpeed};
    };
    environment.onPolicyChanged = [this](const PeerPool::Peer& peer) { setParty(peer); };
    return environment;
}

// --- registration ----------------------------------------------------------------------------------------------------

asio::awaitable<void> SessionService::start() { return tasks_.call(signIn()); }

asio::awaitable<void> SessionService::signIn() {
    const ServiceAccess access = co_await environment_.gateway.access();
    const std::string user = access.isUsable() ? access.userID : std::string();
    if (user != userID_) {
        ledger_.forget();
        userID_ = user;
    }
    if (userID_.empty()) co_return registration_.withdraw();
    auto findAddresses = [this] { return getLocalIPv4Addresses(environment_.log, environment_.binding); };
    localIP_ = co_await runOn(environment_.disk, std::move(findAddresses));
    announce();
    peers_.startSkeinServerDiscoveryLoop();
}

void SessionService::announce() {
    const Facts facts = environment_.facts();
    if (facts.isSeeding) {
        svcStartSeeding();
    } else if (facts.isDownloading) {
        svcStartDownload();
    }
}

void SessionService::svcStartDownload() {
    const Facts facts = environment_.facts();
    svcStatus_ = facts.canServe ? ResourceStatus::leechingSeeding : ResourceStatus::leeching;
    if (userID_.empty()) return;
    environment_.log.info("[SvcPhase1] startDownload ", environment_.infoHash, " status=", textOf(svcStatus_),
                          " localIP=", joined(localIP_), " port=", environment_.listenPort,
                          " total=", facts.totalBytes);
    queueRegister("startDownload");
}

void SessionService::svcStartSeeding() {
    svcStatus_ = ResourceStatus::seeding;
    if (userID_.empty()) return;
    environment_.log.info("[SvcPhase1] startSeeding ", environment_.infoHash, " mode=", textOf(environment_.uploadMode),
                          " localIP=", joined(localIP_), " port=", environment_.listenPort,
                          " total=", environment_.facts().totalBytes);
    queueRegister("startSeeding");
}

void SessionService::svcGoOffline() {
    svcStatus_ = ResourceStatus::offline;
    environment_.log.info("[SvcPhase1] goOffline ", environment_.infoHash);
}

void SessionService::queueRegister(std::string_view reason) {
    ResourceRegistration registration;
    registration.infoHash = environment_.infoHash;
    registration.status = svcStatus_;
    registration.uploadMode = environment_.uploadMode;
    registration.localIP = localIP_;
    registration.port = environment_.listenPort;
    registration.totalBytes = environment_.facts().totalBytes;
    registration_.svcQueueRegister(std::move(registration), reason);
}

void SessionService::setAccelerate(bool isEnabled) { peers_.setAccelerate(isEnabled); }

void SessionService::setUploadMode(UploadMode mode) {
    environment_.uploadMode = mode;
    peers_.setUploadMode(mode);
    announce();
}

// --- the account -----------------------------------------------------------------------------------------------------

TrafficLedger::Heading SessionService::heading() {
    return {userID_, UUID::random(environment_.random).text(), environment_.infoHash, svcStatus_,
            environment_.uploadMode};
}

std::optional<HeartbeatPayload> SessionService::svcDrainDeltas() {
    if (userID_.empty()) return std::nullopt;
    if (!registration_.isRegistered()) {
        const Clock::TimePoint now = environment_.clock.now();
        auto& lastAt = svcLastUnregisteredHeartbeatLogAt_;
        if (!lastAt || now - *lastAt >= skipHeartbeatLogInterval) {
            lastAt = now;
            environment_.log.info("[SvcPhase1] skip heartbeat ", environment_.infoHash,
                                  " — register not confirmed; preserving deltas");
        }
        return std::nullopt;
    }
    HeartbeatPayload payload = ledger_.drain(heading());
    std::size_t activePublicBT = 0;
    for (const auto& [key, peer] : environment_.pool.connected())
        if (!peer->servicePeer) ++activePublicBT;
    environment_.log.info("[SvcPhase1] drain ", environment_.infoHash, " actualDl=", payload.rawDownloadDelta,
                          "B reportedDl=", payload.downloadDelta,
                          "B publicBTActualDl=", payload.downloadedBySource.publicBT, "B up=", payload.uploadDelta,
                          "B activePublicBT=", activePublicBT, " accelerate=", peers_.accelerates());
    return payload;
}

std::vector<HeartbeatPayload> SessionService::takeRest() {
    std::vector<HeartbeatPayload> rest;
    if (userID_.empty()) return rest;
    for (bool goesOn = true; goesOn;) {
        goesOn = ledger_.isReporting();
        HeartbeatPayload payload = ledger_.drain(heading());
        ledger_.commit(payload);
        if (payload.uploadDelta != 0 || payload.downloadDelta != 0) rest.push_back(std::move(payload));
    }
    return rest;
}

// --- what the session tells ------------------------------------------------------------------------------------------

void SessionService::setParty(const PeerPool::Peer& peer) {
    TrafficLedger::Party party;
    if (peer.servicePeer) {
        party.link = peer.isRelayed() ? LinkKind::relay : LinkKind::platform;
        party.userID = peer.servicePeer->userID;
        party.hasFreeAccounting = peer.servicePeer->hasFreeAccounting;
    }
    ledger_.setParty(peer.key, std::move(party));
}

void SessionService::onPeerReady(PeerPool::Peer& peer) {
    if (!peer.servicePeer && peer.connection->direction() == PeerDirection::incoming)
        if (const auto listed = peers_.peerAt(peer.connection->address().host)) PeerPool::setServicePeer(peer, *listed);
    setParty(peer);
}

void SessionService::onPeerGone(const PeerPool::Peer& peer) {
    ledger_.removePeer(peer.key);
    if (!tasks_.isStopping() && environment_.pool.connected().empty() && environment_.facts().isSeeding)
        peers_.handleLastLeecherGone();
}

void SessionService::onReceived(PeerKey peer, std::int64_t bytes) {
    ledger_.addReceived(peer, bytes);
    const PeerPool::Peer* const from = environment_.pool.find(peer);
    if (from != nullptr && !from->isRelayed()) directDownloadSpeedTracker_.add(bytes, environment_.clock.now());
}

void SessionService::onVerified(PeerKey supplier, std::int64_t bytes) {
    ledger_.addVerified(supplier, bytes);
    if (svcStatus_ == ResourceStatus::leeching && environment_.facts().canServe) svcStartDownload();
}

void SessionService::onTick() {
    peers_.retireRelayConnectionsIfDirectIsFast(
        static_cast<std::int64_t>(directDownloadSpeedTracker_.bytesPerSecond(environment_.clock.now())));
}

asio::awaitable<void> SessionService::stop() {
    co_await tasks_.stop();
    co_await peers_.stop();
    co_await registration_.stop();
}

}  // namespace skein
