// The running torrent as its owner sees it: progress, peers, and why nothing moves.

#include "Core/engine/TorrentSession.h"

namespace skein {

using Kind = TorrentSession::State::Kind;

namespace {

constexpr std::chrono::seconds progressInterval{1};

}  // namespace

void TorrentSession::startProgressLoop() {
    if (progressLoopRuns_ || !needsProgressLoop()) return;
    progressLoopRuns_ = true;
    tasks_.spawn(progressLoop());
}

/// A seeding torrent that nobody talks to wakes nobody up.
bool TorrentSession::needsProgressLoop() const {
    return isDownloading() || (isRunning() && !peerPool_.connected().empty());
}

asio::awaitable<void> TorrentSession::progressLoop() {
    while (needsProgressLoop()) {
        co_await services_.clock.sleep(progressInterval);
        if (exchange_ && state_.kind == Kind::downloading) {
            exchange_->relieveSlowPeers();
            exchange_->driveActivePeerRequests();
            resumeKeeper_.noteProgress(pieceManager_);
        }
        if (exchange_) exchange_->flush();
        peerPool_.review();
        if (service_) service_->onTick();
        reportPeers();
        updateProgress();
        reportStall();
    }
    progressLoopRuns_ = false;
    reportPeers();
    updateProgress();
    reportStall();
}

void TorrentSession::updateProgress() {
    if (!callbacks_.onProgressUpdated || !pieceManager_) return;
    const Clock::TimePoint now = services_.clock.now();
    lastProgressAt_ = now;
    Progress progress;
    progress.fraction = pieceManager_->progress();
    progress.downloadRate = static_cast<std::int64_t>(downloadSpeedTracker_.bytesPerSecond(now));
    progress.uploadRate = static_cast<std::int64_t>(uploadSpeedTracker_.bytesPerSecond(now));
    progress.completedBytes = pieceManager_->completedBytes();
    progress.uploadedBytes = uploadSpeedTracker_.total();
    if (service_) {
        progress.receivedBySource = service_->received();
        progress.uncommitted = service_->svcUncommittedDeltas();
        progress.uncommittedUpload = service_->uncommittedUpload();
    }
    callbacks_.onProgressUpdated(progress);
}

void TorrentSession::reportPeers() {
    if (!callbacks_.onPeerDetailsUpdated) return;
    const auto progressOf = [this](PeerKey key) { return exchange_ ? exchange_->scheduler().progressOf(key) : 0.0; };
    callbacks_.onPeerDetailsUpdated(peerPool_.makePeerRuntimeInfos(progressOf));
}

/// Bytes that came in the last seconds say that nothing is wrong, whatever the facts look like; unless they cannot be
/// stored, and only came as a trial.
void TorrentSession::reportStall() {
    const bool isMoving = downloadSpeedTracker_.bytesPerSecond(services_.clock.now()) >= 1;
    const bool isStored = !pieceManager_ || !pieceManager_->storageProblem();
    const bool mayStall = isDownloading() && !(isMoving && isStored);
    std::optional<StallReason> reason;
    if (mayStall) reason = stallReasonOf(stallFacts());
    if (reason == stallReason_) return;
    stallReason_ = std::move(reason);
    if (callbacks_.onStallChanged) callbacks_.onStallChanged(stallReason_);
}

StallFacts TorrentSession::stallFacts() const {
    StallFacts facts;
    if (services_.binding.isGone()) facts.goneInterface = services_.binding.name();
    facts.isFetchingMetadata = state_.kind == Kind::fetchingMetadata;
    if (pieceManager_) {
        facts.storageProblem = pieceManager_->storageProblem();
        facts.storageErrno = pieceManager_->storageErrno();
    }
    facts.peersFound = peerPool_.dialer().addressesOffered();
    facts.dialsInFlight = peerPool_.dialer().attemptsInFlight();
    facts.connected = peerPool_.connected().size();
    for (const auto& [key, peer] : peerPool_.connected())
        if (peer->connection->extensions().metadataSize() > 0) ++facts.connectedWithMetadata;
    if (exchange_) {
        const RequestScheduler::Suppliers suppliers = exchange_->scheduler().suppliers();
        facts.connectedWithPieces = suppliers.withPieces;
        facts.unchoking = suppliers.unchoking;
    }
    if (discovery_) facts.trackerRefusal = discovery_->trackerRefusal();
    return facts;
}

}  // namespace skein
