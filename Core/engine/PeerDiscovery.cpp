#include "Core/engine/PeerDiscovery.h"

#include "Core/discovery/DHTNode.h"
#include "Core/discovery/IPv4Interface.h"
#include "Core/discovery/LANScanTargets.h"
#include "Core/discovery/PeerHistoryStore.h"
#include "public/common/Within.h"

#include <boost/asio/dispatch.hpp>

#include <algorithm>
#include <utility>

namespace skein {

namespace {

/// With so many peers a download does not burden the DHT for more.
constexpr std::size_t enoughPeers = 25;
constexpr std::size_t fewPeers = 5;

/// "1.2.3.4:1, 1.2.3.5:1"; the first few of a long list.
template <class List, class Text>
std::string joined(const List& list, Text textOf) {
    constexpr std::size_t shown = 20;
    std::string text;
    std::size_t count = 0;
    for (const auto& element : list) {
        if (count++ == shown) return text + ", …";
        text += (text.empty() ? "" : ", ") + textOf(element);
    }
    return text;
}

}  // namespace

class PeerDiscovery::Search {
public:
    explicit Search(PeerDiscovery& of) : of_(of) { ++of_.searches_; }
    Search(const Search&) = delete;
    Search& operator=(const Search&) = delete;
    ~Search() { --of_.searches_; }

private:
    PeerDiscovery& of_;
};

PeerDiscovery::PeerDiscovery(Environment environment, DiscoveryOptions options, Callbacks callbacks)
    : environment_(std::move(environment)),
      options_(std::move(options)),
      callbacks_(std::move(callbacks)),
      publicTasks_(environment_.strand),
      tasks_(environment_.strand) {}

PeerDiscovery::~PeerDiscovery() = default;

void PeerDiscovery::setTorrent(std::string name, const Tiers& trackers, bool isPrivate) {
    name_ = std::move(name);
    torrentTrackers_ = trackers;
    const bool turnsPrivate = isPrivate && !isPrivate_;
    isPrivate_ = isPrivate;
    if (turnsPrivate && isStarted_) {
        tasks_.spawn(leavePublicSources());
    } else if (announcer_) {
        announcer_->addTrackers(effectiveTrackers());
    }
}

/// A magnet link does not say that its torrent is private; its metadata may.
asio::awaitable<void> PeerDiscovery::leavePublicSources() {
    tasks_.spawn(replaceTrackers());
    co_await publicTasks_.stop();
    publicBTDiscoveryRunning_ = false;
    if (lanScanner_) co_await lanScanner_->stop();
    formerLSDService_ = std::move(lsdService_);
    if (formerLSDService_) co_await formerLSDService_->stop();
}

asio::awaitable<void> PeerDiscovery::replaceTrackers() {
    TrackerAnnouncer* const former = announcer_.get();
    if (former != nullptr) formerAnnouncers_.push_back(std::move(announcer_));
    startTrackers();
    if (former == nullptr) co_return;
    co_await former->stop();
    std::erase_if(formerAnnouncers_, [former](const auto& one) { return one.get() == former; });
}

void PeerDiscovery::retune(const SessionTuning& tuning) {
    const Tiers trackersBefore = effectiveTrackers();
    const auto peersBefore = std::exchange(options_.manualLANPeers, tuning.manualLANPeers);
    options_.fallbackTrackers = tuning.fallbackTrackers;
    options_.scansLAN = tuning.scansLAN;
    if (!isStarted_) return;
    if (effectiveTrackers() != trackersBefore) tasks_.spawn(replaceTrackers());
    if (options_.manualLANPeers != peersBefore) findPeersFromManualLAN();
    startLANPortScanIfNeeded();
}

void PeerDiscovery::dialNamedPeers() {
    for (const PeerAddress& address : options_.namedPeers) callbacks_.onPeer({address, PeerSource::manualLAN, true});
}

void PeerDiscovery::start() {
    dialNamedPeers();
    startTrackers();
    if (!isStarted_) {
        isStarted_ = true;
        startLSD();
        lookEverywhere();
    } else if (callbacks_.isDownloading()) {
        rediscoverPublicBTPeers("started again");
    }
    if (loopRuns_) return;
    loopRuns_ = true;
    tasks_.spawn(discoveryLoop());
}

void PeerDiscovery::lookEverywhere() {
    rediscoverPublicBTPeers("all sources", std::chrono::seconds(0));
    findKnownPeers();
}

/// Those of earlier runs and of the local network: they may have come up since they were last tried.
void PeerDiscovery::findKnownPeers() {
    lastKnownPeersAt_ = environment_.clock.now();
    if (options_.usesHistory && !isPrivate_ && environment_.history != nullptr)
        publicTasks_.spawn(findPeersFromHistory());
    findPeersFromManualLAN();
    startLANPortScanIfNeeded();
}

void PeerDiscovery::rediscoverPublicBTPeers(std::string_view reason, std::chrono::seconds atLeast) {
    const Clock::TimePoint now = environment_.clock.now();
    const bool isTooSoon = lastPublicBTDiscoveryAt_ && now - *lastPublicBTDiscoveryAt_ < atLeast;
    if (!isStarted_ || publicBTDiscoveryRunning_ || isTooSoon) return;
    lastPublicBTDiscoveryAt_ = now;
    environment_.log.debug("[Session] Rediscovering public BT peers (", reason, ")...");
    findPeersFromTrackers();
    if (usesDHT() && callbacks_.connectedPeers() < enoughPeers) publicTasks_.spawn(findPeersFromDHT());
}

/// Trackers know by themselves when they want to be asked: for a seeder only the DHT needs a reminder.
asio::awaitable<void> PeerDiscovery::discoveryLoop() {
    while (callbacks_.isDownloading() || usesDHT()) {
        co_await environment_.clock.sleep(callbacks_.isDownloading() ? loopInterval : seedingInterval);
        rediscoverPublicBTPeers("periodic");
        const bool hasFewPeers = callbacks_.isDownloading() && callbacks_.connectedPeers() < fewPeers;
        if (hasFewPeers && environment_.clock.now() - lastKnownPeersAt_ >= knownPeersInterval) findKnownPeers();
    }
    loopRuns_ = false;
}

/// Whether the address may be dialled, and hands it on when it may.
bool PeerDiscovery::offer(const PeerAddress& peer, PeerSource source, bool allowsLocal, bool isOfOwnSource) {
    if (isPrivate_ && !isOfOwnSource) return false;
    const bool isUsable =
        peer.isUsablePublicBTPeer() || ((allowsLocal || options_.allowsLocalPeers) && peer.isLocal() && peer.port > 0);
    if (isUsable) callbacks_.onPeer({peer, source, false, std::nullopt, isOfOwnSource});
    return isUsable;
}

// --- trackers --------------------------------------------------------------------------------------------------------

void PeerDiscovery::startTrackers() {
    const Tiers tiers = effectiveTrackers();
    if (announcer_ || tiers.empty()) return;
    TrackerAnnouncer::Callbacks callbacks;
    callbacks.totals = callbacks_.totals;
    // Those of this moment: a tracker that the settings no longer name is still told that we leave it.
    std::vector<std::string> named = options_.extraTrackers;
    named.insert(named.end(), options_.fallbackTrackers.begin(), options_.fallbackTrackers.end());
    callbacks.originOf = [named = std::move(named), isOpen = options_.allowsLocalPeers](const std::string& tracker) {
        const bool isNamed = isOpen || std::find(named.begin(), named.end(), tracker) != named.end();
        return isNamed ? AddressOrigin::userNamed : AddressOrigin::fromOutside;
    };
    callbacks.isShortOfPeers = [this] { return callbacks_.isDownloading() && callbacks_.connectedPeers() < fewPeers; };
    callbacks.onAnswer = [this](const TrackerAnnounceOutcome& outcome) { handleTrackerAnswer(outcome); };
    callbacks.onRowsChanged = callbacks_.onTrackerRowsChanged;
    const Bytes peerID(environment_.peerID.begin(), environment_.peerID.end());
    auto client =
        std::make_unique<TrackerClient>(environment_.io, environment_.trackers, peerID, environment_.listenPort);
    const TrackerAnnouncer::Environment environment{environment_.strand, environment_.clock, environment_.log,
                                                    environment_.infoHash};
    announcer_ = std::make_unique<TrackerAnnouncer>(environment, std::move(client), tiers, std::move(callbacks));
    announcer_->start();
}

PeerDiscovery::Tiers PeerDiscovery::effectiveTrackers() const {
    Tiers tiers;
    if (options_.usesTrackers) {
        tiers = torrentTrackers_;
        for (const std::string& tracker : options_.linkTrackers) tiers.push_back({tracker});
        if (tiers.empty() && !isPrivate_)
            for (const std::string& tracker : options_.fallbackTrackers) tiers.push_back({tracker});
    }
    for (const std::string& tracker : options_.extraTrackers) tiers.push_back({tracker});
    return tiers;
}

/// Of the torrent, of the link to it, or of the user.
bool PeerDiscovery::isOwnTracker(const std::string& tracker) const {
    const auto isIn = [&](const std::vector<std::string>& some) {
        return std::find(some.begin(), some.end(), tracker) != some.end();
    };
    return std::any_of(torrentTrackers_.begin(), torrentTrackers_.end(), isIn) || isIn(options_.linkTrackers) ||
           isIn(options_.extraTrackers);
}

std::size_t PeerDiscovery::trackerCount() const {
    std::size_t count = 0;
    for (const auto& tier : effectiveTrackers()) count += tier.size();
    return count;
}

void PeerDiscovery::findPeersFromTrackers() {
    if (announcer_) announcer_->reconsider();
}

void PeerDiscovery::handleTrackerAnswer(const TrackerAnnounceOutcome& outcome) {
    if (!outcome.isSuccess()) return;
    const std::size_t count = outcome.peers.size();
    environment_.log.info("[Session] Tracker ", outcome.tracker, " → ", count, " peers, connecting immediately...");
    if (callbacks_.isDownloading())
        callbacks_.onStatusMessage("Tracker found " + std::to_string(count) + " peers, connecting...");
    // A tracker on this machine or site knows its peers by their local addresses.
    const bool isOwn = isOwnTracker(outcome.tracker);
    for (const PeerAddress& peer : outcome.peers)
        if (!offer(peer, PeerSource::publicTracker, outcome.isTrackerLocal, isOwn))
            environment_.log.debug("[Session] Tracker skipped unusable peer: ", peer.description());
}

std::optional<std::string> PeerDiscovery::trackerRefusal() const {
    if (!announcer_) return std::nullopt;
    std::optional<std::string> refusal;
    for (const TrackerRuntimeInfo& row : announcer_->rows()) {
        if (row.status != TrackerRuntimeStatus::failed) return std::nullopt;
        refusal = row.lastError.value_or("");
    }
    return refusal;
}

void PeerDiscovery::noteCompleted() {
    if (announcer_) announcer_->noteCompleted();
}

// --- DHT -------------------------------------------------------------------------------------------------------------

/// Looks the torrent up, and announces us where the look-up led.
asio::awaitable<void> PeerDiscovery::findPeersFromDHT() {
    const Search search(*this);
    publicBTDiscoveryRunning_ = true;
    const std::unique_ptr<PeerStream> stream = environment_.dht->findPeers(environment_.infoHash);
    std::size_t found = 0;
    for (;;) {
        const std::optional<PeerAddress> peer = co_await stream->next();
        if (!peer) break;
        if (offer(*peer, PeerSource::dht, false)) {
            environment_.log.debug("[Session] DHT found peer #", ++found, ": ", peer->description());
        } else {
            environment_.log.debug("[Session] DHT skipped unusable peer: ", peer->description());
        }
    }
    environment_.log.info("[Session] DHT discovery finished, found ", found, " peers");
    publicBTDiscoveryRunning_ = false;
    const Clock::TimePoint now = environment_.clock.now();
    if (lastDHTAnnounceAt_ && now - *lastDHTAnnounceAt_ < announceInterval) co_return;
    lastDHTAnnounceAt_ = now;
    co_await environment_.dht->announcePeer(environment_.infoHash, environment_.listenPort);
}

// --- other peers' peers, and those of before -------------------------------------------------------------------------

void PeerDiscovery::addExchangedPeers(const std::vector<PeerAddress>& peers) {
    if (!usesPex()) return;
    environment_.log.info("[Session] PEX yielded ", peers.size(), " peer(s)");
    for (const PeerAddress& peer : peers) offer(peer, PeerSource::pex, false);
}

asio::awaitable<void> PeerDiscovery::findPeersFromHistory() {
    const Search search(*this);
    const std::vector<PeerHistoryStore::Entry> entries = co_await environment_.history->peers(infoHashHex());
    if (entries.empty()) co_return;
    environment_.log.info("[Session] History found ", entries.size(), " peer(s) for ", name_);
    // What local discovery once found lies in the local network, and was let in by the rules for that.
    for (const PeerHistoryStore::Entry& entry : entries)
        offer(entry.address(), PeerSource::history, entry.address().isUsableLSDPeer());
}

void PeerDiscovery::recordSuccess(const PeerAddress& peer, PeerSource source) {
    if (options_.usesHistory && environment_.history != nullptr)
        environment_.history->recordSuccess(infoHashHex(), peer, source, options_.allowsLocalPeers);
}

void PeerDiscovery::recordFailure(const PeerAddress& peer, PeerSource source) {
    if (options_.usesHistory && environment_.history != nullptr)
        environment_.history->recordFailure(infoHashHex(), peer, source, options_.allowsLocalPeers);
}

// --- the local network -----------------------------------------------------------------------------------------------

void PeerDiscovery::startLSD() {
    if (options_.usesLSD && environment_.lsd != nullptr && !isPrivate_ && !lsdService_) publicTasks_.spawn(runLSD());
}

asio::awaitable<void> PeerDiscovery::runLSD() {
    const LSDService::Options options{options_.allowsLocalPeers, options_.allowsLocalPeers};
    // `stop` ends the service before us, so that what it posts still finds us.
    LSDService::PeerFound onFound = [this](PeerAddress peer) {
        asio::dispatch(environment_.strand, [this, peer = std::move(peer)] { offer(peer, PeerSource::lsd, true); });
    };
    const LSDService::Torrent torrent{environment_.infoHash, environment_.listenPort, environment_.peerID};
    lsdService_ = std::make_unique<LSDService>(*environment_.lsd, environment_.clock, environment_.trackers.random,
                                               environment_.log, torrent, options, std::move(onFound));
    co_await lsdService_->start();
}

void PeerDiscovery::findPeersFromManualLAN() {
    if (options_.manualLANPeers.empty()) return;
    environment_.log.info("[LAN] peer candidates for ", name_, ": ",
                          joined(options_.manualLANPeers, [](const PeerAddress& peer) { return peer.description(); }));
    for (const PeerAddress& peer : options_.manualLANPeers) {
        if (peer.port == 0 || peer.host.empty()) {
            environment_.log.info("[LAN] skip unusable peer ", peer.description());
        } else {
            callbacks_.onPeer({peer, PeerSource::manualLAN, false, std::nullopt, true});
        }
    }
}

void PeerDiscovery::startLANPortScanIfNeeded() {
    const Clock::TimePoint now = environment_.clock.now();
    if (!options_.scansLAN || isPrivate_ || !callbacks_.isDownloading()) return;
    if (lastLANPortScanAt_ && now - *lastLANPortScanAt_ < lanPortScanCooldown) return;
    lastLANPortScanAt_ = now;
    publicTasks_.spawn(scanLAN());
}

asio::awaitable<void> PeerDiscovery::scanLAN() {
    const Search search(*this);
    const auto interfaces = localIPv4Interfaces(environment_.log);
    const auto targets = LANScanTargets::around(interfaces, environment_.listenPort, environment_.binding);
    environment_.log.info("[LANScan] start hosts=", targets.hosts.size(),
                          " ports=", joined(targets.ports, [](std::uint16_t port) { return std::to_string(port); }),
                          " hash=", infoHashHex());
    if (!lanScanner_)
        lanScanner_ = std::make_unique<LANPeerScanner>(environment_.io, environment_.clock, environment_.binding);
    LANPeerScanner::OpenPortFound onOpenPort = [this](PeerAddress peer) {
        asio::dispatch(environment_.strand, [this, peer = std::move(peer)] {
            environment_.log.info("[LANScan] open TCP ", peer.description(), ", trying BT handshake");
            if (options_.scansLAN) offer(peer, PeerSource::manualLAN, true);
        });
    };
    co_await lanScanner_->scan(targets, std::move(onOpenPort));
}

// --- the end ---------------------------------------------------------------------------------------------------------

asio::awaitable<void> PeerDiscovery::stop() {
    co_await tasks_.stop();
    co_await publicTasks_.stop();
    if (lsdService_) co_await lsdService_->stop();
    if (lanScanner_) co_await lanScanner_->stop();
    if (announcer_) co_await announcer_->stop();
    if (formerLSDService_) co_await formerLSDService_->stop();
    for (const auto& former : formerAnnouncers_) co_await former->stop();
}

std::string PeerDiscovery::infoHashHex() const { return toHex(environment_.infoHash); }

}  // namespace skein
