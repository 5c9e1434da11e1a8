// From a magnet link to the torrent that it names.

#include "Core/discovery/DHTNode.h"
#include "Core/engine/TorrentFile.h"
#include "Core/engine/TorrentSession.h"
#include "public/common/RunOn.h"

namespace skein {

using Kind = TorrentSession::State::Kind;

namespace {

constexpr std::string_view metadataFailure = "Unable to fetch torrent info. Please check your network and try again.";

}  // namespace

asio::awaitable<void> TorrentSession::fetchMetadata(MagnetLink magnet) {
    magnetLink_ = std::move(magnet);
    setState(Kind::fetchingMetadata);
    peerPool_.allowPeers();
    makeDiscovery();
    makeMetadataSearch();
    tasks_.spawn(startListening());
    std::optional<MetadataSearch::Found> found = co_await metadataSearch_->run();
    co_await metadataSearch_->stop();
    metadataSearch_.reset();
    pauseStep_.notify();
    if (state_.kind == Kind::paused) co_return;
    if (!found) {
        fail(std::string(metadataFailure));
        co_await closeTraffic();
        co_return;
    }
    auto readInfo = [&] { return TorrentFile::infoDataOf(found->torrentData); };
    infoData_ = co_await runOn(services_.disk, std::move(readInfo));
    co_await adopt(std::move(found->metaInfo));
    describeToDiscovery();  // at once: what is on disk may take minutes to verify, and public peers stay until then
    setStatus("Torrent acquired: " + TorrentMetaInfo::cleanDisplayName(metaInfo_->name));
    services_.log.info("[Session] Metadata parsed, transitioning to downloading...");
    co_await beginTransfer(std::move(found->torrentData));
}

void TorrentSession::makeMetadataSearch() {
    const MetadataSearch::Environment environment{tasks_.strand(), services_.disk,          services_.clock,
                                                  services_.log,   services_.trackers.http, peerPool_};
    MetadataSearch::Callbacks callbacks;
    callbacks.onStatusMessage = [this](const std::string& text) { setStatus(text); };
    callbacks.startDiscovery = [this] { startPeerStrategy(); };
    callbacks.lookEverywhere = [this] { discovery_->lookEverywhere(); };
    callbacks.isLooking = [this] { return discovery_->isLooking(); };
    metadataSearch_ = std::make_unique<MetadataSearch>(environment, *magnetLink_, options_.cacheSites,
                                                       options_.maxMagnetRounds, std::move(callbacks));
    discovery_->dialNamedPeers();  // they may have the metadata before any cache site answers
}

/// The cache sites had nothing, or let us wait: the peers are asked.
void TorrentSession::startPeerStrategy() {
    if (magnetLink_->trackers.empty())
        services_.log.info("[Session] No trackers in magnet, using fallback public trackers");
    services_.log.info("[Session] [策略2] Trackers: ", discovery_->trackerCount(), " total");
    setStatus("Fetching torrent via peer network...");
    if (services_.dht != nullptr && options_.discovery.usesDHT)
        services_.log.info("[Session] DHT started on port ", services_.dht->port());
    discovery_->start();
    startService();
    startProgressLoop();
}

/// Peers that gave us the metadata go on as they are, over the same connections.
void TorrentSession::adoptConnectedPeers() {
    if (peerPool_.connected().empty()) return;
    peerPool_.renewCallbacks();
    for (const auto& [key, peer] : peerPool_.connected()) {
        exchange_->adoptPeer(*peer);
        sendExtendedHandshake(*peer);
    }
}

}  // namespace skein
