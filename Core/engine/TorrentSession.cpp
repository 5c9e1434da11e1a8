#include "Core/engine/TorrentSession.h"

#include "Core/engine/StoredPaths.h"
#include "Core/engine/TorrentFile.h"
#include "public/common/ErrorText.h"
#include "public/common/RunOn.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <utility>

namespace skein {

using Kind = TorrentSession::State::Kind;

namespace {

/// Between two reports while pieces come in by the hundred a second.
constexpr std::chrono::milliseconds progressPause{100};
/// What is said to be left to trackers while the size is not known yet: not nothing, which would make us a seeder.
constexpr std::int64_t leftOfUnknown = MetadataFetch::pieceSize;

}  // namespace

TorrentSession::TorrentSession(SHA1Digest infoHash, PeerID peerID, const Services& services, Options options)
    : infoHash_(infoHash),
      peerID_(peerID),
      services_(services),
      options_(std::move(options)),
      tasks_(services.io),
      pauseStep_(tasks_.strand()),
      transports_({tasks_.strand(),
                   services_.io,
                   services_.clock,
                   services_.log,
                   {services_.trackers.resolver, services_.binding},
                   services_.descriptors}),
      peerPool_(poolEnvironment(), poolCallbacks()),
      resumeKeeper_({tasks_.strand(), services.disk, services.clock, services.log, infoHash, options_.archive}) {
    peerPool_.setSpeedLimits(options_.downloadLimit, options_.uploadLimit);
    if (services_.rates != nullptr) peerPool_.shareSpeedLimits(*services_.rates);
    if (services_.resources != nullptr) service_ = std::make_unique<SessionService>(serviceEnvironment());
}

TorrentSession::~TorrentSession() = default;

// --- what the owner calls --------------------------------------------------------------------------------------------

asio::awaitable<void> TorrentSession::start(Bytes torrentData) {
    return tasks_.call(parseTorrentFileAndStart(std::move(torrentData)));
}
asio::awaitable<void> TorrentSession::startWithMagnet(MagnetLink magnet) {
    return tasks_.call(fetchMetadata(std::move(magnet)));
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

asio::awaitable<void> TorrentSession::stop() { return tasks_.finish(shutDown()); }

// --- start -----------------------------------------------------------------------------------------------------------

asio::awaitable<void> TorrentSession::parseTorrentFileAndStart(Bytes torrentData) {
    auto parse = [&] { return ParsedTorrent::read(torrentData, infoHash_); };
    ParsedTorrent parsed = co_await runOn(services_.disk, std::move(parse));
    if (!parsed.metaInfo) {
        services_.log.warning("[Session] ", parsed.failure);
        fail(parsed.failure);
        co_return;
    }
    co_await adopt(std::move(parsed.metaInfo));
    infoData_ = std::move(parsed.infoData);
    services_.log.info("[Session] ✅ Torrent parsed: ", metaInfo_->name, " (", metaInfo_->files.size(), " files, ",
                       metaInfo_->totalSize, ")");
    setStatus("Torrent acquired: " + metaInfo_->name);
    co_await beginTransfer(std::move(torrentData));
}

/// A list of files may be long, and where they are is looked up on disk.
asio::awaitable<void> TorrentSession::adopt(std::shared_ptr<const TorrentMetaInfo> metaInfo) {
    auto place = [&] { return storedIn(options_.savePath, options_.topName, std::move(metaInfo)); };
    metaInfo_ = co_await runOn(services_.disk, std::move(place));
    peerPool_.setPieceCount(metaInfo_->pieceCount());
}

/// From the metainfo to a running torrent.
asio::awaitable<void> TorrentSession::beginTransfer(Bytes torrentData) {
    if (callbacks_.onMetadataReceived) callbacks_.onMetadataReceived(*metaInfo_);
    co_await startListening();
    const bool saves = options_.savesTorrent && !options_.seedsOnly;
    // Before the check, which may take minutes: whoever starts again meanwhile finds the .torrent.
    if (saves) co_await keepTorrentCopy(torrentData);
    co_await openPieces(true);
    if (!pieceManager_) co_return;
    if (saves) tasks_.spawn(saveTorrentFile(std::move(torrentData)));
    if (options_.seedsOnly && pieceManager_->completedPieces() == 0 && metaInfo_->pieceCount() > 0) {
        fail("Nothing to seed: no complete piece in " + options_.savePath.string());
        co_return;
    }
    co_await secureWhatIsThere();
    if (isSafe_) {
        services_.log.info("[Session] ✅ Already completed (files exist on disk)");
        setStatus("Files already exist, download complete");
        setState(Kind::completed);
    }
    enterRunning();
}

asio::awaitable<void> TorrentSession::keepTorrentCopy(Bytes torrentData) {
    if (!options_.archive) co_return;
    std::string failure;
    auto keep = [&] {
        try {
            options_.archive->keep(infoHash_, torrentData);
        } catch (const std::system_error& error) {
            failure = error.what();
        }
    };
    co_await runOn(services_.disk, std::move(keep));
    if (!failure.empty()) services_.log.warning("[Session] Failed to save .torrent file: ", failure);
}

asio::awaitable<void> TorrentSession::saveTorrentFile(Bytes torrentData) {
    auto save = [this, &torrentData, name = metaInfo_->name] {
        return options_.archive ? options_.archive->save(infoHash_, options_.savePath, name, torrentData)
                                : TorrentFile::save(options_.savePath, name, torrentData).path;
    };
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
asio::awaitable<void> TorrentSession::openPieces(bool mayResume) {
    if (exchange_) co_await exchange_->stop();
    exchange_.reset();
    if (pieceManager_) co_await pieceManager_->cleanup();
    pieceManager_.reset();
    isSafe_ = false;
    PieceManager::Environment environment{tasks_.strand(), services_.disk, services_.clock, services_.log};
    environment.claim = {services_.claims, options_.isListed, options_.movesAside};
    const auto mode = options_.seedsOnly ? PieceManager::Mode::readOnly : PieceManager::Mode::download;
    auto pieces = std::make_shared<PieceManager>(metaInfo_, options_.savePath, std::move(environment), mode);
    pieces->setVerifyProgressCallback([this](int checked, int total) {
        if (callbacks_.onVerifyProgress) callbacks_.onVerifyProgress(checked, total);
    });
    pieces->setStorageProblemCallback([this](const std::optional<std::string>& problem) {
        setStatus(problem ? *problem : "Downloading " + metaInfo_->name);
    });
    pieces->setPiecesLostCallback([this] {
        if (exchange_) exchange_->wantAgain();
    });
    Bytes resumeRecord;
    if (mayResume && !options_.seedsOnly) resumeRecord = co_await resumeKeeper_.read();
    if (!mayResume) resumeKeeper_.forget();
    std::string failure;
    try {
        co_await pieces->setup(std::move(resumeRecord));
    } catch (const boost::system::system_error& error) {
        if (error.code() == asio::error::operation_aborted) throw;
        failure = error.what();
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    if (!failure.empty()) {
        fail(failure);
        co_return;
    }
    pieceManager_ = pieces;
    PieceExchange::Callbacks callbacks;
    callbacks.onBytesVerified = [this](PeerKey supplier, std::int64_t bytes) {
        if (service_) service_->onVerified(supplier, bytes);
    };
    callbacks.onPieceCompleted = [this](int, PeerKey supplier) {
        if (const PeerPool::Peer* const peer = peerPool_.find(supplier))
            if (discovery_ && peer->connection->direction() == PeerDirection::outgoing)
                discovery_->recordSuccess(peer->connection->address(), peer->source);
        if (services_.clock.now() - lastProgressAt_ >= progressPause) updateProgress();
    };
    callbacks.onAllPiecesCompleted = [this] { tasks_.spawn(completeWhenSafe()); };
    callbacks.onBytesDownloaded = [this](PeerKey from, std::int64_t bytes) {
        downloadSpeedTracker_.add(bytes, services_.clock.now());
        if (service_) service_->onReceived(from, bytes);
    };
    callbacks.onBytesUploaded = [this](PeerKey to, std::int64_t bytes) {
        uploadSpeedTracker_.add(bytes, services_.clock.now());
        if (service_) service_->onSent(to, bytes);
    };
    const PieceExchange::Environment exchangeEnvironment{
        tasks_.strand(),    services_.clock, services_.log, peerPool_, options_.uploadMode != UploadMode::disabled,
        !options_.seedsOnly};
    exchange_ = std::make_unique<PieceExchange>(exchangeEnvironment, pieces, std::move(callbacks));
}

/// Seeds when all is there (or nothing may be fetched), downloads otherwise.
void TorrentSession::enterRunning() {
    peerPool_.allowPeers();
    updateProgress();  // what is there already is none of what comes now
    if (isSafe_ || options_.seedsOnly) {
        setState(Kind::seeding);
    } else {
        setStatus("Downloading " + metaInfo_->name);
        setState(Kind::downloading);
        if (pieceManager_->isComplete()) tasks_.spawn(completeWhenSafe());
    }
    makeDiscovery();  // peers are told at once whether we take part in their exchange
    adoptConnectedPeers();
    startPeerDiscoveryForDownload();
    startService();
    lastProgressAt_ = {};                                                // the first piece is told at once
    if (!options_.seedsOnly) resumeKeeper_.noteProgress(pieceManager_);  // what was just hashed need not be again
    startProgressLoop();
}

asio::awaitable<void> TorrentSession::startListening() {
    if (isListening_) co_return;
    isListening_ = true;
    peerPool_.allowPeers();
    // The listener's strand hands over to ours; the session removes its entry before it goes.
    PeerListener::Handler handler = [this](std::unique_ptr<PeerWireTransport> transport, PeerAddress address) {
        asio::dispatch(tasks_.strand(),
                       [this, transport = std::move(transport), address = std::move(address)]() mutable {
                           peerPool_.handleIncomingConnection(std::move(transport), std::move(address));
                       });
    };
    co_await services_.listener.add(infoHash_, std::move(handler));
    services_.log.info("[Session] TCP listener started on port ", services_.listener.port());
    if (callbacks_.onListening) callbacks_.onListening();
}

// --- discovery -------------------------------------------------------------------------------------------------------

void TorrentSession::makeDiscovery() {
    if (discovery_) return;
    PeerDiscovery::Environment environment{
        tasks_.strand(),    services_.io,  services_.clock,   services_.log,
        services_.trackers, services_.dht, services_.history, services_.lsd,
        services_.binding,  infoHash_,     peerID_,           services_.listener.port()};
    PeerDiscovery::Callbacks callbacks;
    callbacks.onPeer = [this](const DialRequest& request) { peerPool_.connectToPeer(request); };
    callbacks.totals = [this] { return totals(); };
    callbacks.isDownloading = [this] { return isDownloading(); };
    callbacks.connectedPeers = [this] { return peerPool_.connected().size(); };
    callbacks.onStatusMessage = [this](const std::string& text) { setStatus(text); };
    callbacks.onTrackerRowsChanged = [this](const std::vector<TrackerRuntimeInfo>& rows) {
        if (callbacks_.onTrackerDetailsUpdated) callbacks_.onTrackerDetailsUpdated(rows);
    };
    discovery_ = std::make_unique<PeerDiscovery>(std::move(environment), options_.discovery, std::move(callbacks));
    if (!magnetLink_ || metaInfo_) return;
    PeerDiscovery::Tiers tiers;
    for (const std::string& tracker : magnetLink_->trackers) tiers.push_back({tracker});
    discovery_->setTorrent(magnetLink_->displayName.value_or(magnetLink_->infoHashHex), tiers, false);
}

void TorrentSession::startPeerDiscoveryForDownload() {
    makeDiscovery();
    describeToDiscovery();
    discovery_->start();
    services_.log.info("[Session] Peer discovery for download finished. Peers: ", peerPool_.connected().size());
}

void TorrentSession::describeToDiscovery() {
    discovery_->setTorrent(metaInfo_->name, metaInfo_->announceList, metaInfo_->isPrivate);
    if (metaInfo_->isPrivate) peerPool_.dropPublicPeers();
}

// --- peers -----------------------------------------------------------------------------------------------------------

PeerPool::Environment TorrentSession::poolEnvironment() {
    const PeerConnection::Identity identity{infoHash_, peerID_};
    return {tasks_.strand(),
            services_.clock,
            services_.log,
            identity,
            options_.maxConnections,
            options_.dial,
            [this](const PeerAddress& address, const DialAttempt& how) { return transports_.make(address, how); },
            services_.binding,
            services_.descriptors};
}

PeerPool::Callbacks TorrentSession::poolCallbacks() {
    PeerPool::Callbacks callbacks;
    callbacks.connectionCallbacks = [this](PeerKey key) { return connectionCallbacks(key); };
    callbacks.onPeerReady = [this](PeerPool::Peer& peer) { onPeerReady(peer); };
    callbacks.onDialFailed = [this](const DialRequest& request) {
        if (discovery_ && !request.isNamedByUser) discovery_->recordFailure(request.address, request.source);
        if (service_ && request.servicePeer) service_->onDialFailed(request);
    };
    callbacks.onOutOfReach = [this](const DialRequest& request) {
        if (service_ && request.servicePeer) service_->onDialFailed(request);
    };
    callbacks.onPeerGone = [this](const PeerPool::Peer& peer) { onPeerGone(peer); };
    return callbacks;
}

PeerConnection::Callbacks TorrentSession::connectionCallbacks(PeerKey key) {
    PeerConnection::Callbacks callbacks;
    if (exchange_) callbacks = exchange_->connectionCallbacks(key);
    callbacks.extensions = extensionCallbacks(key);
    return callbacks;
}

PeerExtensions::Callbacks TorrentSession::extensionCallbacks(PeerKey key) {
    PeerExtensions::Callbacks callbacks;
    callbacks.onHandshake = [this, key] {
        PeerPool::Peer* const peer = peerPool_.find(key);
        if (peer == nullptr) return;
        const auto requestQueue = peer->connection->extensions().requestQueue();
        if (exchange_ && requestQueue) exchange_->setRequestQueue(key, *requestQueue);
        if (metadataSearch_) metadataSearch_->requestMetadata(*peer);
    };
    callbacks.onMetadataReceived = [this, key](std::int64_t piece, ByteView data) {
        if (metadataSearch_) metadataSearch_->handleMetadataPiece(key, piece, data);
    };
    callbacks.onMetadataRejected = [this, key](std::int64_t piece) {
        if (metadataSearch_) metadataSearch_->handleRejection(key, piece);
    };
    callbacks.onPexPeersReceived = [this](const std::vector<PeerAddress>& peers) {
        if (discovery_) discovery_->addExchangedPeers(peers);
    };
    if (options_.servesMetadata) callbacks.metadataToServe = [this] { return ByteView(infoData_); };
    return callbacks;
}

void TorrentSession::sendExtendedHandshake(const PeerPool::Peer& peer) {
    if (!peer.connection->supportsExtended()) return;
    std::optional<std::int64_t> metadataSize;
    if (!infoData_.empty()) metadataSize = static_cast<std::int64_t>(infoData_.size());
    peer.connection->sendExtendedHandshake(metadataSize, discovery_ && discovery_->usesPex());
}

void TorrentSession::onPeerReady(PeerPool::Peer& peer) {
    if (service_) service_->onPeerReady(peer);
    if (exchange_) {
        exchange_->addPeer(peer);
    } else if (metadataSearch_) {
        peer.connection->sendInterested();
    }  // else the files are being verified, and the peer is adopted after that
    sendExtendedHandshake(peer);
    reportPeers();
    startProgressLoop();
}

void TorrentSession::onPeerGone(const PeerPool::Peer& peer) {
    if (exchange_) exchange_->removePeer(peer.key);
    if (metadataSearch_) metadataSearch_->removePeer(peer.key);
    if (service_) service_->onPeerGone(peer);
    rememberHow(peer);
    const std::size_t left = peerPool_.connected().size();
    if (state_.kind != Kind::downloading || left >= fewPeers || tasks_.isStopping()) return;
    services_.log.info("[Session] Low peer count (", left, "), re-announcing to trackers...");
    if (discovery_) discovery_->findPeersFromTrackers();
}

/// Notes for later runs whether the peer that left was of any use.
void TorrentSession::rememberHow(const PeerPool::Peer& peer) {
    const bool isWorthNoting = peer.connection->direction() == PeerDirection::outgoing && !peer.isNamedByUser;
    if (!discovery_ || !isWorthNoting || tasks_.isStopping()) return;
    const PeerConnection::RuntimeStats stats = peer.connection->runtimeStats();
    if (stats.downloaded + stats.uploaded > 0) {
        discovery_->recordSuccess(peer.connection->address(), peer.source);
    } else {
        discovery_->recordFailure(peer.connection->address(), peer.source);
    }
}

// --- state -----------------------------------------------------------------------------------------------------------

TrackerAnnouncer::Totals TorrentSession::totals() const {
    if (!metaInfo_) return {downloadSpeedTracker_.total(), uploadSpeedTracker_.total(), leftOfUnknown};
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

/// Or still looks for what to download.
bool TorrentSession::isDownloading() const noexcept {
    return state_.kind == Kind::downloading || state_.kind == Kind::fetchingMetadata;
}

bool TorrentSession::isRunning() const noexcept {
    return isDownloading() || state_.kind == Kind::seeding || state_.kind == Kind::completed;
}

// --- pause, recheck, stop --------------------------------------------------------------------------------------------

asio::awaitable<void> TorrentSession::closeTraffic() {
    co_await peerPool_.disconnectAll();
    if (discovery_) co_await discovery_->stop();
    discovery_.reset();
}

asio::awaitable<void> TorrentSession::doPause() {
    if (!isRunning()) co_return;
    isPausing_ = true;
    setState(Kind::paused);
    if (metadataSearch_) metadataSearch_->giveUp();
    while (metadataSearch_) co_await pauseStep_.wait();
    co_await closeTraffic();
    updateProgress();
    isPausing_ = false;
    pauseStep_.notify();
}

asio::awaitable<void> TorrentSession::doResume() {
    while (isPausing_) co_await pauseStep_.wait();
    if (state_.kind != Kind::paused) co_return;
    if (exchange_) {
        enterRunning();
    } else if (magnetLink_ && !metadataSearch_) {
        MagnetLink magnet = *magnetLink_;
        tasks_.spawn(fetchMetadata(std::move(magnet)));
    }
}

asio::awaitable<void> TorrentSession::doShed(std::size_t keepAtMost) {
    peerPool_.shedPeers(keepAtMost);
    co_return;
}

asio::awaitable<void> TorrentSession::doConnect(PeerAddress address) {
    if (exchange_ || metadataSearch_) peerPool_.connectToPeer({std::move(address), PeerSource::manualLAN, true});
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
    if (service_) co_await service_->stop();
    co_await peerPool_.stop();
    if (metadataSearch_) co_await metadataSearch_->stop();
    if (discovery_) co_await discovery_->stop();
    if (exchange_) co_await exchange_->stop();
    co_await resumeKeeper_.stop();
    if (!pieceManager_) co_return;
    if (!options_.seedsOnly) co_await resumeKeeper_.finish(pieceManager_);
    co_await pieceManager_->cleanup();
}

}  // namespace skein
