// The session's side towards the resource service.

#include "Core/engine/TorrentSession.h"

namespace skein {

using Kind = TorrentSession::State::Kind;

asio::awaitable<std::optional<HeartbeatPayload>> TorrentSession::svcDrainDeltas() { return tasks_.call(drainDeltas()); }
asio::awaitable<bool> TorrentSession::svcCommitDeltas(HeartbeatPayload payload) {
    return tasks_.call(commitDeltas(std::move(payload)));
}
asio::awaitable<void> TorrentSession::svcGoOffline() { return tasks_.call(goOffline()); }
asio::awaitable<void> TorrentSession::svcSignIn() { return tasks_.call(signIn()); }
asio::awaitable<void> TorrentSession::setAccelerate(bool isEnabled) { return tasks_.call(accelerate(isEnabled)); }

SessionService::Environment TorrentSession::serviceEnvironment() {
    SessionService::Environment environment{
        tasks_.strand(),           services_.disk,       services_.clock, services_.log,
        services_.trackers.random, *services_.resources, peerPool_,       toHex(infoHash_),
        services_.listener.port(), services_.binding};
    environment.uploadMode = options_.uploadMode;
    environment.allowsLocalPeers = options_.discovery.allowsLocalPeers;
    environment.accelerates = options_.accelerates;
    environment.makeRelay = [this](const ServiceAccess& access, std::string role, std::string mode) {
        return transports_.makeRelay(access, toHex(infoHash_), std::move(role), std::move(mode));
    };
    environment.facts = [this] { return serviceFacts(); };
    return environment;
}

SessionService::Facts TorrentSession::serviceFacts() const {
    SessionService::Facts facts;
    facts.name = metaInfo_ ? metaInfo_->name : toHex(infoHash_);
    facts.totalBytes = metaInfo_ ? metaInfo_->totalSize : 0;
    facts.isDownloading = isDownloading();
    facts.isSeeding = state_.kind == Kind::seeding;
    facts.canServe = pieceManager_ && pieceManager_->completedPieces() > 0;
    facts.downloadSpeed = static_cast<std::int64_t>(downloadSpeedTracker_.bytesPerSecond(services_.clock.now()));
    return facts;
}

void TorrentSession::startService() {
    if (service_) tasks_.spawn(service_->start());
}

asio::awaitable<std::optional<HeartbeatPayload>> TorrentSession::drainDeltas() {
    co_return service_ ? service_->svcDrainDeltas() : std::nullopt;
}

asio::awaitable<bool> TorrentSession::commitDeltas(HeartbeatPayload payload) {
    const bool isNew = service_ && service_->svcCommitDeltas(payload);
    updateProgress();  // the task shows what is confirmed before the caller goes on
    co_return isNew;
}

asio::awaitable<void> TorrentSession::goOffline() {
    if (service_) service_->svcGoOffline();
    co_return;
}

asio::awaitable<void> TorrentSession::signIn() {
    if (service_ && isRunning()) co_await service_->start();
}

asio::awaitable<void> TorrentSession::accelerate(bool isEnabled) {
    if (service_) service_->setAccelerate(isEnabled);
    co_return;
}

std::vector<HeartbeatPayload> TorrentSession::takeUnconfirmedReports() {
    return service_ ? service_->takeRest() : std::vector<HeartbeatPayload>();
}

}  // namespace skein
