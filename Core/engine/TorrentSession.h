#pragma once

#include "Core/discovery/TrackerClient.h"
#include "Core/discovery/TrackerRuntimeInfo.h"
#include "Core/engine/MetadataSearch.h"
#include "Core/engine/ParsedTorrent.h"
#include "Core/engine/PeerDiscovery.h"
#include "Core/engine/PeerPool.h"
#include "Core/engine/PieceExchange.h"
#include "Core/engine/PieceManager.h"
#include "Core/engine/ResumeKeeper.h"
#include "Core/engine/SessionService.h"
#include "Core/engine/SessionTransports.h"
#include "Core/engine/SessionTuning.h"
#include "Core/engine/StallReason.h"
#include "Core/engine/TorrentArchive.h"
#include "Core/formats/MagnetLink.h"
#include "Core/formats/TorrentMetaInfo.h"
#include "Core/wire/PeerListener.h"
#include "Core/wire/PeerRuntimeInfo.h"
#include "public/common/Notifier.h"
#include "public/common/SpeedTracker.h"
#include "public/common/TaskGroup.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// The engine for one torrent: gathers peers, downloads, verifies, and serves.
///
/// Composed of parts that each own their state: PieceManager (pieces and files), PeerPool (connections), PieceExchange
/// with its RequestScheduler (blocks), PeerDiscovery (where peers come from), MetadataSearch (from a magnet link to its
/// torrent), ResumeKeeper (what need not be hashed again).
/// Owner: a command or the download manager, which awaits `stop()` before it lets go. Thread: any; the state lives on
/// one strand that the parts share, on which the callbacks come too.
class TorrentSession {
public:
    static constexpr std::size_t defaultMaxConnections = 50;
    static constexpr std::size_t fewPeers = 5;

    struct State {
        enum class Kind : std::uint8_t { idle, fetchingMetadata, downloading, paused, seeding, completed, error };
        Kind kind = Kind::idle;
        std::string message;  ///< with `error`
    };

    struct Progress {
        double fraction = 0;
        std::int64_t downloadRate = 0;    ///< bytes a second
        std::int64_t uploadRate = 0;      ///< bytes a second
        std::int64_t completedBytes = 0;  ///< verified
        std::int64_t uploadedBytes = 0;   ///< in this run
        // All zero where the service is not used.
        BytesBySource receivedBySource;      ///< in this run
        BytesBySource uncommitted;           ///< of it, what the service has yet to confirm
        std::int64_t uncommittedUpload = 0;  ///< of `uploadedBytes`, likewise
    };

    struct Callbacks {
        std::function<void(const State&)> onStateChanged;
        std::function<void(const Progress&)> onProgressUpdated;
        std::function<void(const TorrentMetaInfo&)> onMetadataReceived;
        std::function<void(const std::string&)> onStatusMessage;
        std::function<void(const std::vector<PeerRuntimeInfo>&)> onPeerDetailsUpdated;
        std::function<void(const std::vector<TrackerRuntimeInfo>&)> onTrackerDetailsUpdated;
        /// When the reason why nothing moves changes; nothing: bytes move, or are about to.
        std::function<void(const std::optional<StallReason>&)> onStallChanged;
        /// Peers that connect to the listening port are answered from now on; until the files are verified they wait.
        std::function<void()> onListening;
        /// While existing data is verified.
        std::function<void(int checkedPieces, int totalPieces)> onVerifyProgress;
    };

    /// What the process shares among its sessions; all of it outlives them.
    struct Services {
        asio::any_io_executor io;
        asio::any_io_executor disk;
        Clock& clock;
        FileLogger& log;
        TrackerServices trackers;
        PeerListener& listener;
        DHTNode* dht = nullptr;                ///< none: the DHT is not used
        PeerHistoryStore* history = nullptr;   ///< none: no peers are remembered
        LSDPort* lsd = nullptr;                ///< none: local discovery is not used
        ResourceGateway* resources = nullptr;  ///< none: the resource service is not used
        FileClaims* claims = nullptr;          ///< none: what earlier starts began is not remembered
        LocalBinding binding = {};             ///< where all traffic leaves from
        DescriptorBudget descriptors = DescriptorBudget();
        SharedRates* rates = nullptr;  ///< none: only the session's own limits hold
    };

    struct Options {
        std::filesystem::path savePath;
        std::size_t maxConnections = defaultMaxConnections;
        std::int64_t downloadLimit = 0;  ///< bytes a second, 0 = unlimited
        std::int64_t uploadLimit = 0;
        UploadMode uploadMode = UploadMode::paid;  ///< `disabled` never unchokes
        bool accelerates = false;                  ///< the task asked for acceleration
        bool seedsOnly = false;                    ///< serves what is there; never writes, never downloads
        bool savesTorrent = true;                  ///< beside the download
        bool isListed = false;    ///< a task of the saved list: its files are its own while it rests, too
        bool movesAside = false;  ///< foreign files in the way are renamed, not refused
        std::string topName;      ///< instead of the torrent's own for its file or folder; empty: its own
        bool servesMetadata = true;
        DialOptions dial;
        DiscoveryOptions discovery;
        std::vector<std::string> cacheSites;  ///< templates; empty: none is asked
        int maxMagnetRounds = MetadataSearch::defaultMaxRounds;
        /// Keeps the `.torrent`, and the resume record, so that a later start need not hash all again.
        std::optional<TorrentArchive> archive;

        SessionTuning tuning() const;
    };

    TorrentSession(SHA1Digest infoHash, PeerID peerID, const Services& services, Options options);
    TorrentSession(const TorrentSession&) = delete;
    TorrentSession& operator=(const TorrentSession&) = delete;
    ~TorrentSession();

    /// Before `start`.
    void setCallbacks(Callbacks callbacks) { callbacks_ = std::move(callbacks); }

    /// Starts from the bytes of a `.torrent`. Returns when existing data is verified and peers are looked for; a
    /// failure becomes the state `error`.
    asio::awaitable<void> start(Bytes torrentData);
    /// Starts from a magnet link. Returns when its torrent was found and runs, when it was not, or on a pause.
    asio::awaitable<void> startWithMagnet(MagnetLink magnet);
    asio::awaitable<void> pause();
    asio::awaitable<void> resume();
    /// Hashes everything on disk again.
    asio::awaitable<void> recheckFiles();
    asio::awaitable<void> recheckWithTorrentData(Bytes torrentData);
    asio::awaitable<void> shedPeers(std::size_t keepAtMost);
    asio::awaitable<void> connectToPeer(PeerAddress address);
    asio::awaitable<std::vector<bool>> getCompletionBitmap();
    /// Tells the trackers (for at most 3 s), closes everything; after it nothing of the session runs.
    asio::awaitable<void> stop();

    // The resource service. What the next heartbeat is to say (nothing while the service does not know the torrent, or
    // is not used), and that it has been confirmed: false when it was before.
    asio::awaitable<std::optional<HeartbeatPayload>> svcDrainDeltas();
    asio::awaitable<bool> svcCommitDeltas(HeartbeatPayload payload);
    /// The next report is the last of this session.
    asio::awaitable<void> svcGoOffline();
    /// Another user, or one at last.
    asio::awaitable<void> svcSignIn();
    asio::awaitable<void> setAccelerate(bool isEnabled);
    /// Acts at once, whatever the session does.
    asio::awaitable<void> retune(SessionTuning tuning);
    /// After `stop`: the reports that were never confirmed.
    std::vector<HeartbeatPayload> takeUnconfirmedReports();

    const SHA1Digest& infoHash() const noexcept { return infoHash_; }

private:
    asio::awaitable<void> parseTorrentFileAndStart(Bytes torrentData);
    asio::awaitable<void> adopt(std::shared_ptr<const TorrentMetaInfo> metaInfo);
    asio::awaitable<void> keepTorrentCopy(Bytes torrentData);
    asio::awaitable<void> saveTorrentFile(Bytes torrentData);
    /// `mayResume`: what a resume record says may be believed.
    asio::awaitable<void> openPieces(bool mayResume);
    asio::awaitable<void> beginTransfer(Bytes torrentData);
    void enterRunning();
    asio::awaitable<void> startListening();

    asio::awaitable<void> fetchMetadata(MagnetLink magnet);
    void makeMetadataSearch();
    void startPeerStrategy();
    void adoptConnectedPeers();

    void makeDiscovery();
    void startPeerDiscoveryForDownload();
    void describeToDiscovery();
    asio::awaitable<void> closeTraffic();
    asio::awaitable<void> doPause();
    asio::awaitable<void> doResume();
    asio::awaitable<void> doRecheck();
    asio::awaitable<void> doRecheckWith(Bytes torrentData);
    asio::awaitable<void> doShed(std::size_t keepAtMost);
    asio::awaitable<void> doConnect(PeerAddress address);
    asio::awaitable<std::vector<bool>> bitmap();
    asio::awaitable<void> shutDown();

    SessionService::Environment serviceEnvironment();
    SessionService::Facts serviceFacts() const;
    void startService();
    asio::awaitable<std::optional<HeartbeatPayload>> drainDeltas();
    asio::awaitable<bool> commitDeltas(HeartbeatPayload payload);
    asio::awaitable<void> goOffline();
    asio::awaitable<void> signIn();
    asio::awaitable<void> accelerate(bool isEnabled);
    asio::awaitable<void> applyTuning(SessionTuning tuning);

    PeerPool::Environment poolEnvironment();
    PeerPool::Callbacks poolCallbacks();
    PeerConnection::Callbacks connectionCallbacks(PeerKey key);
    PeerExtensions::Callbacks extensionCallbacks(PeerKey key);
    void sendExtendedHandshake(const PeerPool::Peer& peer);
    void onPeerReady(PeerPool::Peer& peer);
    void onPeerGone(const PeerPool::Peer& peer);
    void rememberHow(const PeerPool::Peer& peer);
    asio::awaitable<void> secureWhatIsThere();
    asio::awaitable<void> completeWhenSafe();
    void markCompleted();
    void startProgressLoop();
    asio::awaitable<void> progressLoop();
    bool needsProgressLoop() const;
    void updateProgress();
    void reportPeers();
    void reportStall();
    StallFacts stallFacts() const;
    void setState(State::Kind kind, std::string message = {});
    void setStatus(const std::string& text);
    void fail(const std::string& message);
    bool isRunning() const noexcept;
    bool isDownloading() const noexcept;
    TrackerAnnouncer::Totals totals() const;

    const SHA1Digest infoHash_;
    const PeerID peerID_;
    const Services services_;
    Options options_;
    Callbacks callbacks_;
    State state_;
    std::optional<MagnetLink> magnetLink_;
    std::shared_ptr<const TorrentMetaInfo> metaInfo_;
    Bytes infoData_;  // the info dictionary, for peers that ask for it
    std::shared_ptr<PieceManager> pieceManager_;
    SpeedTracker downloadSpeedTracker_;
    SpeedTracker uploadSpeedTracker_;
    std::optional<StallReason> stallReason_;
    bool progressLoopRuns_ = false;
    bool isListening_ = false;
    bool isSafe_ = false;  // all pieces are there, and on the device
    bool isCompleting_ = false;
    Clock::TimePoint lastProgressAt_{};
    TaskGroup tasks_;
    bool isPausing_ = false;
    Notifier pauseStep_;  // a search or a pause has ended
    const SessionTransports transports_;
    PeerPool peerPool_;
    std::unique_ptr<SessionService> service_;  // none where the resource service is not used
    ResumeKeeper resumeKeeper_;
    std::unique_ptr<PieceExchange> exchange_;
    std::unique_ptr<MetadataSearch> metadataSearch_;
    std::unique_ptr<PeerDiscovery> discovery_;
};

}  // namespace skein
