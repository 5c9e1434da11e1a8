#include "Core/engine/MetadataSearch.h"

#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"
#include "public/common/RunOn.h"
#include "public/common/Within.h"

namespace skein {

namespace {

constexpr std::chrono::milliseconds roundCheckInterval{250};

std::vector<std::vector<std::string>> tiersOf(const std::vector<std::string>& trackers) {
    std::vector<std::vector<std::string>> tiers;
    tiers.reserve(trackers.size());
    for (const std::string& tracker : trackers) tiers.push_back({tracker});
    return tiers;
}

}  // namespace

MetadataSearch::MetadataSearch(const Environment& environment, MagnetLink magnet, std::vector<std::string> cacheSites,
                               int maxRounds, Callbacks callbacks)
    : environment_(environment),
      magnet_(std::move(magnet)),
      maxRounds_(maxRounds),
      callbacks_(std::move(callbacks)),
      changed_(environment.strand),
      peersSpoke_(environment.strand),
      tasks_(environment.strand) {
    if (cacheSites.empty()) return;
    const CacheSites::Environment sites{environment.strand, environment.disk, environment.http, environment.log};
    cacheSites_ = std::make_unique<CacheSites>(sites, std::move(cacheSites), magnet_.infoHash);
}

MetadataSearch::~MetadataSearch() = default;

asio::awaitable<std::optional<MetadataSearch::Found>> MetadataSearch::run() {
    FileLogger& log = environment_.log;
    log.info("[Session] Starting magnet download: ", magnet_.displayName.value_or(magnet_.infoHashHex));
    tasks_.spawn(askPeers());
    if (cacheSites_) {
        callbacks_.onStatusMessage("Fetching torrent from cache sites...");
        log.info("[Session] [策略1] 尝试 ", cacheSites_->count(), " 个种子缓存站...");
        tasks_.spawn(askCacheSites());
        const Clock::TimePoint until = environment_.clock.now() + cacheSitesHeadStart;
        while (!isOver() && !cacheSitesAreDone_ && environment_.clock.now() < until) co_await waitForChange(until);
    }
    if (!isOver()) callbacks_.startDiscovery();
    for (int round = 1; !isOver() && round <= maxRounds_; ++round) {
        if (round > 1) co_await pauseAfter(round - 1);
        if (!isOver()) co_await runRound(round);
    }
    if (!isOver()) log.info("[Session] ❌ Failed after all strategies");
    co_return std::move(found_);
}

asio::awaitable<void> MetadataSearch::pauseAfter(int round) {
    callbacks_.onStatusMessage("Retry round " + std::to_string(round) + ", waiting 15s...");
    environment_.log.info("[Session] Retry round ", round);
    const Clock::TimePoint until = environment_.clock.now() + pauseBetweenRounds;
    while (!isOver() && environment_.clock.now() < until) co_await waitForChange(until);
    if (isOver()) co_return;
    fetch_.forgive();
    peersSpoke_.notify();
    callbacks_.lookEverywhere();
}

asio::awaitable<void> MetadataSearch::runRound(int round) {
    const std::string number = std::to_string(round);
    callbacks_.onStatusMessage("Searching for peers (round " + number + ")...");
    const Clock::TimePoint until = environment_.clock.now() + longestRound;
    do co_await waitForChange(environment_.clock.now() + roundCheckInterval);
    while (!isOver() && !isRoundOver() && environment_.clock.now() < until);
    const std::size_t connected = environment_.pool.connected().size();
    environment_.log.info("[Session] Round ", round, " finished. Peers connected: ", connected);
    if (isOver()) co_return;
    callbacks_.onStatusMessage(connected == 0
                                   ? "No peers found in round " + number
                                   : "Connected to " + std::to_string(connected) + " peers, fetching torrent info...");
}

/// While peers still send, a round goes on: there is nothing to retry yet.
bool MetadataSearch::isRoundOver() const {
    return !callbacks_.isLooking() && environment_.pool.dialer().attemptsInFlight() == 0 && !fetch_.nextDeadline() &&
           !isChecking_;
}

/// Returns early when something changed; the caller looks again.
asio::awaitable<void> MetadataSearch::waitForChange(Clock::TimePoint until) {
    try {
        co_await within(environment_.clock, until - environment_.clock.now(), changed_.wait());
    } catch (const TimeLimitExceeded&) {
        // Time is over: the caller goes on.
    }
}

// --- cache sites -----------------------------------------------------------------------------------------------------

asio::awaitable<void> MetadataSearch::askCacheSites() {
    CacheSites::Result result = co_await cacheSites_->fetchFromCacheSites();
    if (result.torrent && !found_) {
        environment_.log.info("[Session] [策略1] ✅ 缓存站下载成功, ", result.torrent->data.size(), " bytes");
        callbacks_.onStatusMessage("Cache site succeeded, parsing...");
        found_.emplace(Found{std::move(result.torrent->data), std::move(result.torrent->metaInfo)});
        for (const std::string& tracker : magnet_.trackers) found_->metaInfo->announceList.push_back({tracker});
    } else if (!found_) {
        environment_.log.info(result.hadUnusableBody ? "[Session] [策略1] 缓存站数据解析失败，回退到 Peer 方式"
                                                     : "[Session] [策略1] 所有缓存站失败，回退到 Peer 方式");
    }
    cacheSitesAreDone_ = true;
    changed_.notify();
}

// --- peers -----------------------------------------------------------------------------------------------------------

void MetadataSearch::requestMetadata(const PeerPool::Peer& peer) {
    const PeerConnection& connection = *peer.connection;
    const std::string address = connection.address().description();
    const std::int64_t size = connection.extensions().metadataSize();
    if (size == 0 || connection.extensions().remoteMetadataID() == 0) {
        environment_.log.info("[Session] Peer ", address, " has no metadata (size=0)");
        return fetch_.removePeer(peer.key);
    }
    environment_.log.info("[Session] Requesting metadata from ", address, ", total size=", size);
    fetch_.addPeer(peer.key, size);
    peersSpoke_.notify();
}

void MetadataSearch::handleMetadataPiece(PeerKey peer, std::int64_t piece, ByteView data) {
    if (found_ || !fetch_.receive(peer, piece, data, environment_.clock.now())) return;
    const MetadataFetch::Progress held = fetch_.progress();
    const std::string figure = std::to_string(held.held) + "/" + std::to_string(held.needed);
    environment_.log.info("[Session] Metadata piece ", piece, " received (", figure, ")");
    callbacks_.onStatusMessage("Fetching torrent info " + figure + "...");
    peersSpoke_.notify();
}

void MetadataSearch::handleRejection(PeerKey peer, std::int64_t piece) {
    fetch_.reject(peer, piece);
    peersSpoke_.notify();
}

void MetadataSearch::removePeer(PeerKey peer) {
    fetch_.removePeer(peer);
    peersSpoke_.notify();
}

asio::awaitable<void> MetadataSearch::askPeers() {
    while (!found_) {
        sendRequests();
        std::optional<MetadataFetch::Candidate> candidate = fetch_.takeCandidate();
        if (candidate) {
            co_await accept(std::move(*candidate));
        } else {
            co_await waitForNews();
        }
    }
}

asio::awaitable<void> MetadataSearch::waitForNews() {
    const auto deadline = fetch_.nextDeadline();
    try {
        if (deadline) {
            co_await within(environment_.clock, *deadline - environment_.clock.now(), peersSpoke_.wait());
        } else {
            co_await peersSpoke_.wait();
        }
    } catch (const TimeLimitExceeded&) {
        // A peer was silent for too long: sendRequests() asks others.
    }
}

void MetadataSearch::sendRequests() {
    for (const MetadataFetch::Request& request : fetch_.requestsDue(environment_.clock.now()))
        if (PeerPool::Peer* const peer = environment_.pool.find(request.peer))
            peer->connection->requestMetadataPiece(request.piece);
}

asio::awaitable<void> MetadataSearch::accept(MetadataFetch::Candidate candidate) {
    std::string failure;
    auto parse = [&]() -> std::optional<Found> {
        try {
            Found found;
            found.metaInfo =
                std::make_shared<TorrentMetaInfo>(TorrentParser::parse(candidate.infoData, magnet_.infoHash));
            found.metaInfo->announceList = tiersOf(magnet_.trackers);
            found.torrentData = TorrentWriter::wrap(candidate.infoData, found.metaInfo->announceList);
            return found;
        } catch (const std::exception& error) {
            failure = error.what();
            return std::nullopt;
        }
    };
    isChecking_ = true;
    std::optional<Found> found = co_await runOn(environment_.disk, std::move(parse));
    isChecking_ = false;
    if (!found) {
        environment_.log.warning("[Session] Failed to parse metadata: ", failure);
        callbacks_.onStatusMessage("Failed to parse torrent info: " + failure);
        fetch_.blame(candidate);
        co_return;
    }
    environment_.log.info("[Session] ✅ Metadata parsed: ", found->metaInfo->name, " (", found->metaInfo->files.size(),
                          " files, ", found->metaInfo->totalSize, ")");
    environment_.log.info("[Session] Metadata acquired");
    callbacks_.onStatusMessage("Torrent info acquired");
    if (!found_) found_ = std::move(found);
    changed_.notify();
}

// --- the end ---------------------------------------------------------------------------------------------------------

void MetadataSearch::giveUp() {
    isGivenUp_ = true;
    changed_.notify();
}

asio::awaitable<void> MetadataSearch::stop() {
    co_await tasks_.stop();
    if (cacheSites_) co_await cacheSites_->stop();
}

}  // namespace skein
