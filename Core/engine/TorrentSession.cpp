#include "Core/engine/TorrentSession.h"

#include "Core/engine/TorrentFile.h"
#include "Core/formats/TorrentParser.h"
#include "Core/wire/NWPeerWireTransport.h"
#include "public/common/RunOn.h"

#include <algorithm>

namespace skein {

using Kind = TorrentSession::State::Kind;

namespace {

constexpr std::chrono::seconds progressInterval{1};
/// Between two reports while pieces come in by the hundred a second.
constexpr std::chrono::milliseconds progressPause{100};
constexpr std::chrono::seconds syncInterval{10};
constexpr std::chrono::seconds discoveryLoopInterval{20};
constexpr std::chrono::seconds discoveryMinInterval{30};

}  // namespace

TorrentSession::TorrentSession(SHA1Digest infoHash, PeerID peerID, const Services& services, Options options)
    : infoHash_(infoHash),
      peerID_(peerID),
      services_(services),
      options_(std::move(options)),
      tasks_(services.io),
      peerPool_(poolEnvironment(), poolCallbacks()) {
    peerPool_.setSpeedLimits(options_.downloadLimit, options_.uploadLimit);
}

TorrentSession::~TorrentSession() = default;

// --- what the owner calls --------------------------------------------------------------------------------------------

asio::awaitable<void> TorrentSession::start(Bytes torrentData) {
    return tasks_.call(parseTorrentFileAndStart(std::move(torrentData)));
}
asio::awaitable<void> TorrentSession::pause() { return tasks_.call(doPause()); }
asio::awaitable<void> TorrentSession::resume() { return tasks_.call(doResume()); }
asio::awaitable<void> TorrentSession::recheckFiles() { return tasks_.call(doRecheck()); }
asio::awaitable<void> TorrentSession::recheckWithTorrentData(Bytes torrentData) {
    return tasks_.call(doRecheckWith(std::move(torrentData)));
}
asio::awaitable<void> TorrentSession::shedPeers(std::size_t keepAtMost) { return tasks_.call(doShed(keepAtMost)); }
asio::awaitable<void> TorrentSession::connectToPeer(PeerAddress address) {
    return tasks_.call(doConnect(std::move(address)));
}
asio::awaitable<std::vector<bool>> TorrentSession::getCompletionBitmap() { return tasks_.call(bitmap()); }

asio::awaitable<void> TorrentSession::stop() {
    // Not a task of the group that it stops, and not given up half way.
    return asio::co_spawn(tasks_.strand(), shutDown(),
                          asio::bind_cancellation_slot(asio::cancellation_slot(), asio::use_awaitable));
}

// --- start -----------------------------------------------------------------------------------------------------------

asio::awaitable<void> TorrentSession::parseTorrentFileAndStart(Bytes torrentData) {
    std::string failure;
    auto parse = [&] { return parseTorrent(torrentData, failure); };
    metaInfo_ = co_await runOn(services_.disk, std::move(parse));
    if (!metaInfo_) {
        services_.log.warning("[Session] ", failure);
        fail(failure);
        co_return;
    }
    services_.log.info("[Session] ✅ Torrent parsed: ", metaInfo_->name, " (", metaInfo_->files.size(), " files, ",
                       metaInfo_->totalSize, ")");
    setStatus("Torrent acquired: " + metaInfo_->name);
    if (callbacks_.onMetadataReceived) callbacks_.onMetadataReceived(*metaInfo_);
    co_await openPieces();
    if (!pieceManager_) co_return;
    if (options_.savesTorrent && !options_.seedsOnly) co_await saveTorrentFile(std::move(torrentData));
    if (options_.seedsOnly && pieceManager_->completedPieces() == 0 && metaInfo_->pieceCount() > 0) {
        fail("Nothing to seed: no complete piece in " + options_.savePath.string());
        co_return;
    }
    if (pieceManager_->isComplete()) {
        services_.log.info("[Session] ✅ Already completed (files exist on disk)");
        setStatus("Files already exist, download complete");
        setState(Kind::completed);
    }
    co_await enterRunning();
}

/// Nothing, and why in `failure`, when the data is not the torrent that this session is for.
std::shared_ptr<const TorrentMetaInfo> TorrentSession::parseTorrent(const Bytes& torrentData,
                                                                    std::string& failure) const {
    try {
        if (const auto fault = TorrentFile::faultOf(torrentData)) {
            failure = *fault;
            return nullptr;
        }
        auto metaInfo = std::make_shared<TorrentMetaInfo>(TorrentParser::parse(torrentData));
        if (metaInfo->infoHash == infoHash_) return metaInfo;
        failure = "Info hash mismatch: expected " + toHex(infoHash_) + ", got " + metaInfo->infoHashHex;
    } catch (const std::exception& error) {
        failure = std::string("Failed to parse torrent: ") + error.what();
    }
    return nullptr;
}

asio::awaitable<void> TorrentSession::saveTorrentFile(Bytes torrentData) {
    auto save = [&] { return TorrentFile::save(options_.savePath, metaInfo_->name, torrentData); };
    std::string failure;
    try {
        const std::filesystem::path path = co_await runOn(services_.disk, std::move(save));
        services_.log.info("[Session] 💾 Torrent file saved: ", path.string());
    } catch (const std::exception& error) {
        failure = error.what();
    }
    if (!failure.empty()) services_.log.warning("[Session] Failed to save .torrent file: ", failure);
}

/// Makes the piece manager and verifies what is on disk; without one when storage cannot be had.
asio::awaitable<void> TorrentSession::openPieces() {
    if (exchange_) co_await exchange_->stop();
    exchange_.reset();
    if (pieceManager_) co_await pieceManager_->cleanup();
    pieceManager_.reset();
    const PieceManager::Environment environment{tasks_.strand(), services_.disk, services_.clock, services_.log};
    const auto mode = options_.seedsOnly ? PieceManager::Mode::readOnly : PieceManager::Mode::download;
    auto pieces = std::make_shared<PieceManager>(metaInfo_, options_.savePath, environment, mode);
    pieces->setVerifyProgressCallback([this](int checked, int total) {
        if (callbacks_.onVerifyProgress) callbacks_.onVerifyProgress(checked, total);
    });
    pieces->setStorageProblemCallback([this](const std::optional<std::string>& problem) {
        setStatus(problem ? *problem : "Downloading " + metaInfo_->name);
    });
    std::string failure;
    try {
        co_await pieces->setup();
    } catch (const boost::system::system_error& error) {
        if (error.code() == asio::error::operation_aborted) throw;
        failure = error.what();
    } catch (const std::exception& error) {
        failure = error.what();
    }
    if (!failure.empty()) {
        fail(failure);
        co_return;
    }
    pieceManager_ = pieces;
    PieceExchange::Callbacks callbacks;
    callbacks.onPieceCompleted = [this](int) {
        if (services_.clock.now() - lastProgressAt_ >= progressPause) updateProgress();
    };
    callbacks.onAllPiecesCompleted = [this] { markCompleted(); };
    callbacks.onBytesDownloaded = [this](std::int64_t bytes) {
        downloadSpeedTracker_.add(bytes, services_.clock.now());
    };
    callbacks.onBytesUploaded = [this](std::int64_t bytes) { uploadSpeedTracker_.add(bytes, services_.clock.now()); };
    const PieceExchange::Environment exchangeEnvironment{tasks_.strand(), services_.clock,      services_.log,
                                                         peerPool_,       options_.servesPeers, !options_.seedsOnly};
    exchange_ = std::make_unique<PieceExchange>(exchangeEnvironment, pieces, std::move(callbacks));
}

/// Seeds when all is there (or nothing may be fetched), downloads otherwise.
asio::awaitable<void> TorrentSession::enterRunning() {
    peerPool_.allowPeers();
    if (pieceManager_->isComplete() || options_.seedsOnly) {
        setState(Kind::seeding);
    } else {
        setStatus("Downloading " + metaInfo_->name);
        setState(Kind::downloading);
    }
    co_await startListening();
    startPeerDiscoveryForDownload();
    updateProgress();
    lastProgressAt_ = {};  // the first piece is told at once
    startProgressLoop();
}

asio::awaitable<void> TorrentSession::startListening() {
    if (isListening_) co_return;
    isListening_ = true;
    // The listener's strand hands over to ours; the session removes its entry before it goes.
    PeerListener::Handler handler = [this](std::unique_ptr<PeerWireTransport> transport, PeerAddress address) {
        asio::dispatch(tasks_.strand(),
                       [this, transport = std::move(transport), address = std::move(address)]() mutable {
                           if (exchange_) peerPool_.handleIncomingConnection(std::move(transport), std::move(address));
                       });
    };
    co_await services_.listener.add(infoHash_, std::move(handler));
    services_.log.info("[Session] TCP listener started on port ", services_.listener.port());
}

// --- discovery -------------------------------------------------------------------------------------------------------

void TorrentSession::startPeerDiscoveryForDownload() {
    for (const PeerAddress& address : options_.namedPeers)
        peerPool_.connectToPeer({address, PeerSource::manualLAN, true});
    startTrackers();
    if (state_.kind == Kind::downloading) tasks_.spawn(publicBTDiscoveryLoop());
    services_.log.info("[Session] Peer discovery for download finished. Peers: ", peerPool_.connected().size());
}

void TorrentSession::startTrackers() {
    if (announcer_) return announcer_->reconsider();
    auto tiers = effectiveTrackers();
    if (tiers.empty()) return;
    lastPublicBTDiscoveryAt_ = services_.clock.now();
    TrackerAnnouncer::Callbacks callbacks;
    callbacks.totals = [this] { return totals(); };
    callbacks.isShortOfPeers = [this] {
        return state_.kind == Kind::downloading && peerPool_.connected().size() < fewPeers;
    };
    callbacks.onAnswer = [this](const TrackerAnnounceOutcome& outcome) { handleTrackerAnswer(outcome); };
    callbacks.onRowsChanged = [this](const std::vector<TrackerRuntimeInfo>& rows) {
        if (callbacks_.onTrackerDetailsUpdated) callbacks_.onTrackerDetailsUpdated(rows);
    };
    auto client =
        std::make_unique<TrackerClient>(services_.io, services_.trackers, Bytes(peerID_.begin(), peerID_.end()),
                                        services_.listener.port(), IPAddress::parse(options_.bindAddress));
    const TrackerAnnouncer::Environment environment{tasks_.strand(), services_.clock, services_.log, infoHash_};
    announcer_ = std::make_unique<TrackerAnnouncer>(environment, std::move(client), tiers, std::move(callbacks));
    announcer_->start();
}

std::vector<std::vector<std::string>> TorrentSession::effectiveTrackers() const {
    std::vector<std::vector<std::string>> tiers;
    if (options_.usesTrackers) {
        tiers = metaInfo_->announceList;
        if (tiers.empty() && !metaInfo_->isPrivate)
            for (const std::string& tracker : options_.fallbackTrackers) tiers.push_back({tracker});
    }
    for (const std::string& tracker : options_.extraTrackers) tiers.push_back({tracker});
    return tiers;
}

void TorrentSession::handleTrackerAnswer(const TrackerAnnounceOutcome& outcome) {
    if (!outcome.isSuccess() || !isRunning()) return;
    const std::size_t count = outcome.peers.size();
    services_.log.info("[Session] Tracker ", outcome.tracker, " → ", count, " peers, connecting immediately...");
    if (state_.kind == Kind::downloading) setStatus("Tracker found " + std::to_string(count) + " peers, connecting...");
    // A tracker on this machine or site knows its peers by their local addresses.
    const bool allowsLocal = options_.allowsLocalPeers || outcome.isTrackerLocal;
    for (const PeerAddress& peer : outcome.peers) {
        if (peer.isUsablePublicBTPeer() || (allowsLocal && peer.isLocal() && peer.port > 0)) {
            peerPool_.connectToPeer({peer, PeerSource::publicTracker, false});
        } else {
            services_.log.debug("[Session] Tracker skipped unusable peer: ", peer.description());
        }
    }
}

asio::awaitable<void> TorrentSession::publicBTDiscoveryLoop() {
    while (state_.kind == Kind::downloading) {
        co_await services_.clock.sleep(discoveryLoopInterval);
        if (state_.kind == Kind::downloading) rediscoverPublicBTPeers("periodic", discoveryMinInterval);
    }
}

void TorrentSession::rediscoverPublicBTPeers(std::string_view reason, std::chrono::seconds minInterval) {
    const Clock::TimePoint now = services_.clock.now();
    if (!announcer_ || (lastPublicBTDiscoveryAt_ && now - *lastPublicBTDiscoveryAt_ < minInterval)) return;
    lastPublicBTDiscoveryAt_ = now;
    services_.log.debug("[Session] Rediscovering public BT peers (", reason, ")...");
    announcer_->reconsider();
}

// --- peers -----------------------------------------------------------------------------------------------------------

PeerPool::Environment TorrentSession::poolEnvironment() {
    const PeerConnection::Identity identity{infoHash_, peerID_};
    return {tasks_.strand(),
            services_.clock,
            services_.log,
            identity,
            options_.maxConnections,
            [this](const PeerAddress& address) -> std::unique_ptr<PeerWireTransport> {
                return std::make_unique<NWPeerWireTransport>(services_.io, services_.clock, address,
                                                             PeerPool::publicBTConnectTimeout, options_.bindAddress);
            }};
}

PeerPool::Callbacks TorrentSession::poolCallbacks() {
    PeerPool::Callbacks callbacks;
    callbacks.connectionCallbacks = [this](PeerKey key) { return exchange_->connectionCallbacks(key); };
    callbacks.onPeerReady = [this](PeerPool::Peer& peer) { onPeerReady(peer); };
    callbacks.onPeerGone = [this](const PeerPool::Peer& peer) { onPeerGone(peer); };
    return callbacks;
}

void TorrentSession::onPeerReady(PeerPool::Peer& peer) {
    exchange_->addPeer(peer);
    startProgressLoop();
}

void TorrentSession::onPeerGone(const PeerPool::Peer& peer) {
    exchange_->removePeer(peer.key);
    const std::size_t left = peerPool_.connected().size();
    if (state_.kind != Kind::downloading || left >= fewPeers || tasks_.isStopping()) return;
    services_.log.info("[Session] Low peer count (", left, "), re-announcing to trackers...");
    if (announcer_) announcer_->reconsider();
}

// --- progress --------------------------------------------------------------------------------------------------------

void TorrentSession::markCompleted() {
    services_.log.info("[Session] ✅ Download completed!");
    setState(Kind::completed);
    updateProgress();
    if (announcer_) announcer_->noteCompleted();
    setState(Kind::seeding);
}

void TorrentSession::startProgressLoop() {
    if (progressLoopRuns_ || !needsProgressLoop()) return;
    progressLoopRuns_ = true;
    tasks_.spawn(progressLoop());
}

/// A seeding torrent that nobody talks to wakes nobody up.
bool TorrentSession::needsProgressLoop() const {
    return state_.kind == Kind::downloading || (isRunning() && !peerPool_.connected().empty());
}

asio::awaitable<void> TorrentSession::progressLoop() {
    while (needsProgressLoop()) {
        co_await services_.clock.sleep(progressInterval);
        if (!exchange_) break;
        if (state_.kind == Kind::downloading) {
            exchange_->relieveSlowPeers();
            exchange_->driveActivePeerRequests();
            syncNowAndThen();
        }
        updateProgress();
        reportPeers();
    }
    progressLoopRuns_ = false;
    updateProgress();
    reportPeers();
}

/// So that little that was verified can be lost with the machine's power.
void TorrentSession::syncNowAndThen() {
    const Clock::TimePoint now = services_.clock.now();
    if (isSyncing_ || now - lastSyncAt_ < syncInterval) return;
    lastSyncAt_ = now;
    isSyncing_ = true;
    tasks_.spawn(syncFiles());
}

asio::awaitable<void> TorrentSession::syncFiles() {
    const std::shared_ptr<PieceManager> pieces = pieceManager_;
    try {
        co_await pieces->sync();
    } catch (const StorageException& error) {
        services_.log.warning("[PieceManager] sync failed: ", error.what());
    }
    isSyncing_ = false;
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
    callbacks_.onProgressUpdated(progress);
}

void TorrentSession::reportPeers() {
    if (!callbacks_.onPeerDetailsUpdated) return;
    const auto progressOf = [this](PeerKey key) { return exchange_ ? exchange_->scheduler().progressOf(key) : 0.0; };
    callbacks_.onPeerDetailsUpdated(peerPool_.makePeerRuntimeInfos(progressOf));
}

TrackerAnnouncer::Totals TorrentSession::totals() const {
    const std::int64_t left = metaInfo_->totalSize - (pieceManager_ ? pieceManager_->completedBytes() : 0);
    return {downloadSpeedTracker_.total(), uploadSpeedTracker_.total(), std::max<std::int64_t>(left, 0)};
}

void TorrentSession::setState(State::Kind kind, std::string message) {
    state_ = {kind, std::move(message)};
    if (callbacks_.onStateChanged) callbacks_.onStateChanged(state_);
}

void TorrentSession::setStatus(const std::string& text) {
    if (callbacks_.onStatusMessage) callbacks_.onStatusMessage(text);
}

void TorrentSession::fail(const std::string& message) {
    setStatus(message);
    setState(Kind::error, message);
}

bool TorrentSession::isRunning() const noexcept {
    return state_.kind == Kind::downloading || state_.kind == Kind::seeding || state_.kind == Kind::completed;
}

// --- pause, recheck, stop --------------------------------------------------------------------------------------------

asio::awaitable<void> TorrentSession::closeTraffic() {
    co_await peerPool_.disconnectAll();
    if (announcer_) co_await announcer_->stop();
    announcer_.reset();
}

asio::awaitable<void> TorrentSession::doPause() {
    if (!isRunning()) co_return;
    setState(Kind::paused);
    co_await closeTraffic();
    updateProgress();
}

asio::awaitable<void> TorrentSession::doResume() {
    if (state_.kind == Kind::paused && exchange_) co_await enterRunning();
}

asio::awaitable<void> TorrentSession::doRecheck() {
    if (!metaInfo_) co_return;
    setStatus("Verifying files...");
    co_await peerPool_.disconnectAll();
    co_await openPieces();
    if (!pieceManager_) co_return;
    const int missing = metaInfo_->pieceCount() - pieceManager_->completedPieces();
    setStatus(missing == 0 ? "Verification complete — files intact, seeding started"
                           : "Verification complete — " + std::to_string(missing) + " pieces missing");
    co_await enterRunning();
}

asio::awaitable<void> TorrentSession::doRecheckWith(Bytes torrentData) {
    std::shared_ptr<const TorrentMetaInfo> parsed;
    auto parse = [&]() -> std::shared_ptr<const TorrentMetaInfo> {
        try {
            return std::make_shared<TorrentMetaInfo>(TorrentParser::parse(torrentData));
        } catch (const std::exception&) {
            return nullptr;
        }
    };
    parsed = co_await runOn(services_.disk, std::move(parse));
    if (!parsed) {
        setStatus("Failed to parse torrent file");
    } else if (parsed->infoHash != infoHash_) {
        setStatus("Torrent info hash mismatch");
    } else {
        metaInfo_ = parsed;
        co_await doRecheck();
    }
}

asio::awaitable<void> TorrentSession::doShed(std::size_t keepAtMost) {
    peerPool_.shedPeers(keepAtMost);
    co_return;
}

asio::awaitable<void> TorrentSession::doConnect(PeerAddress address) {
    if (exchange_) peerPool_.connectToPeer({std::move(address), PeerSource::manualLAN, true});
    co_return;
}

asio::awaitable<std::vector<bool>> TorrentSession::bitmap() {
    co_return pieceManager_ ? pieceManager_->completionBitmap() : std::vector<bool>();
}

asio::awaitable<void> TorrentSession::shutDown() {
    if (isListening_) {
        co_await services_.listener.remove(infoHash_);
        services_.log.info("[Session] TCP listener stopped");
    }
    co_await tasks_.stop();
    co_await peerPool_.stop();
    if (announcer_) co_await announcer_->stop();
    if (exchange_) co_await exchange_->stop();
    if (!pieceManager_) co_return;
    if (!options_.seedsOnly) co_await syncFiles();
    co_await pieceManager_->cleanup();
}

}  // namespace skein
