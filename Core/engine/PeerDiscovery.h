#pragma once

#include "Core/discovery/LANPeerScanner.h"
#include "Core/discovery/LSDService.h"
#include "Core/discovery/TrackerClient.h"
#include "Core/engine/PeerPool.h"
#include "Core/engine/SessionTuning.h"
#include "Core/engine/TrackerAnnouncer.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skein {

class DHTNode;
class PeerHistoryStore;

/// Which sources a session may ask for peers, and what the user named beside them.
struct DiscoveryOptions {
    bool usesTrackers = true;  ///< the torrent's own
    bool usesDHT = true;
    bool usesLSD = true;
    bool usesHistory = true;
    bool usesPex = true;
    bool allowsLocalPeers = false;              ///< any source may name loopback and private addresses
    std::vector<std::string> extraTrackers;     ///< named by the user; one tier each
    std::vector<std::string> linkTrackers;      ///< of a link to this torrent, beside the torrent's own
    std::vector<std::string> fallbackTrackers;  ///< for a public torrent that names none
    std::vector<PeerAddress> namedPeers;        ///< dialled whatever the address rules say
    std::vector<PeerAddress> manualLANPeers;    ///< the settings' list, for every torrent
    bool scansLAN = false;
};

/// Looks for the peers of one torrent wherever that is allowed: trackers, the DHT, the local network, the peers
/// remembered from before. It hands addresses out; whether and when to dial is the pool's business.
///
/// Owner: the session, which awaits `stop()`. Thread: the session's strand, on which the callbacks come too.
class PeerDiscovery {
public:
    using Tiers = std::vector<std::vector<std::string>>;

    static constexpr std::chrono::seconds loopInterval{20};
    /// While peers are few, those of earlier runs and of the local network are tried again after so long.
    static constexpr std::chrono::seconds knownPeersInterval{60};
    /// Between two searches of trackers and DHT, whatever the reason.
    static constexpr std::chrono::seconds minInterval{30};
    /// A seeder is announced to the DHT again before nodes forget it (BEP 5: peers are kept for about half an hour).
    static constexpr std::chrono::minutes seedingInterval{15};
    /// Tokens of the DHT are good for ten minutes; an announce is kept for longer.
    static constexpr std::chrono::minutes announceInterval{10};
    static constexpr std::chrono::minutes lanPortScanCooldown{10};

    struct Environment {
        Strand strand;
        asio::any_io_executor io;
        Clock& clock;
        FileLogger& log;
        TrackerServices trackers;
        DHTNode* dht = nullptr;               ///< none: not used
        PeerHistoryStore* history = nullptr;  ///< none: not used
        LSDPort* lsd = nullptr;               ///< none: not used
        LocalBinding binding;
        SHA1Digest infoHash{};
        PeerID peerID{};
        std::uint16_t listenPort = 0;
    };

    struct Callbacks {
        std::function<void(const DialRequest&)> onPeer;
        std::function<TrackerAnnouncer::Totals()> totals;
        /// Whether the torrent still downloads (or looks for its metadata), and with how many peers.
        std::function<bool()> isDownloading;
        std::function<std::size_t()> connectedPeers;
        std::function<void(const std::string& text)> onStatusMessage;
        std::function<void(const std::vector<TrackerRuntimeInfo>&)> onTrackerRowsChanged;
    };

    PeerDiscovery(Environment environment, DiscoveryOptions options, Callbacks callbacks);
    ~PeerDiscovery();

    /// Acts at once: peers and trackers that are new are asked, trackers that are not named any more are left.
    void retune(const SessionTuning& tuning);
    /// What is known of the torrent; told again when its metadata came. A private torrent is looked for at its own
    /// trackers alone, whatever was allowed before.
    void setTorrent(std::string name, const Tiers& trackers, bool isPrivate);
    void dialNamedPeers();
    /// Starts with every source, and goes on looking from time to time.
    void start();
    /// Asks every source again, as far as their intervals let it.
    void lookEverywhere();
    /// Trackers and DHT, unless they were asked less than `atLeast` ago.
    void rediscoverPublicBTPeers(std::string_view reason, std::chrono::seconds atLeast = minInterval);
    /// A tracker's text, when there are trackers and all of them failed.
    std::optional<std::string> trackerRefusal() const;
    /// True while a search that was begun has not ended.
    bool isLooking() const noexcept { return searches_ > 0 || (announcer_ && announcer_->isAnnouncing()); }

    /// Asks the trackers again as soon as their intervals let it.
    void findPeersFromTrackers();
    std::size_t trackerCount() const;
    void noteCompleted();
    /// Peers that another peer named.
    void addExchangedPeers(const std::vector<PeerAddress>& peers);
    bool usesPex() const noexcept { return options_.usesPex && !isPrivate_; }

    void recordSuccess(const PeerAddress& peer, PeerSource source);
    void recordFailure(const PeerAddress& peer, PeerSource source);

    /// Tells the trackers good-bye and returns when nothing of the discovery runs any more.
    asio::awaitable<void> stop();

private:
    /// Counts a search while it lives.
    class Search;

    void startTrackers();
    Tiers effectiveTrackers() const;
    void handleTrackerAnswer(const TrackerAnnounceOutcome& outcome);
    asio::awaitable<void> findPeersFromDHT();
    asio::awaitable<void> findPeersFromHistory();
    void findKnownPeers();
    void findPeersFromManualLAN();
    void startLANPortScanIfNeeded();
    asio::awaitable<void> scanLAN();
    void startLSD();
    asio::awaitable<void> runLSD();
    asio::awaitable<void> leavePublicSources();
    asio::awaitable<void> replaceTrackers();
    asio::awaitable<void> discoveryLoop();
    bool usesDHT() const noexcept { return options_.usesDHT && !isPrivate_ && environment_.dht != nullptr; }
    bool offer(const PeerAddress& peer, PeerSource source, bool allowsLocal, bool isOfOwnSource = false);
    bool isOwnTracker(const std::string& tracker) const;
    std::string infoHashHex() const;

    const Environment environment_;
    DiscoveryOptions options_;
    const Callbacks callbacks_;
    std::string name_;
    Tiers torrentTrackers_;
    bool isPrivate_ = false;
    bool isStarted_ = false;
    bool loopRuns_ = false;
    std::size_t searches_ = 0;
    bool publicBTDiscoveryRunning_ = false;  // a DHT look-up of ours
    std::optional<Clock::TimePoint> lastPublicBTDiscoveryAt_;
    std::optional<Clock::TimePoint> lastDHTAnnounceAt_;
    std::optional<Clock::TimePoint> lastLANPortScanAt_;
    Clock::TimePoint lastKnownPeersAt_{};
    std::size_t dhtPeers_ = 0;
    std::unique_ptr<TrackerAnnouncer> announcer_;
    std::unique_ptr<LSDService> lsdService_;
    std::unique_ptr<LANPeerScanner> lanScanner_;
    // Not used any more. They are kept because `stop` may come before they have ended.
    std::unique_ptr<LSDService> formerLSDService_;
    std::vector<std::unique_ptr<TrackerAnnouncer>> formerAnnouncers_;
    TaskGroup publicTasks_;  // of the sources that a private torrent has not; on the session's strand too
    TaskGroup tasks_;
};

}  // namespace skein
