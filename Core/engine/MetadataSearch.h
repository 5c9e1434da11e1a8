#pragma once

#include "Core/engine/CacheSites.h"
#include "Core/engine/MetadataFetch.h"
#include "Core/engine/PeerPool.h"
#include "Core/formats/MagnetLink.h"
#include "Core/formats/TorrentMetaInfo.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// Turns a magnet link into a torrent: asks cache sites, then connected peers, in rounds until one of them has it.
///
/// Owner: the session, which tells it what peers send and awaits `stop()`. Thread: the session's strand.
class MetadataSearch {
public:
    /// The cache sites' start before peers are looked for; a site that hangs must not hold everything up.
    static constexpr std::chrono::seconds cacheSitesHeadStart{2};
    static constexpr std::chrono::seconds pauseBetweenRounds{15};
    /// A round ends when its sources have answered, or after this: a DHT look-up takes up to 35 s.
    static constexpr std::chrono::seconds longestRound{45};
    /// With a minute a round, some two hours.
    static constexpr int defaultMaxRounds = 120;

    struct Environment {
        Strand strand;
        asio::any_io_executor disk;
        Clock& clock;
        FileLogger& log;
        HTTPFetcher& http;
        PeerPool& pool;
    };

    struct Callbacks {
        std::function<void(const std::string& text)> onStatusMessage;
        /// Peers are to be looked for from now on.
        std::function<void()> startDiscovery;
        /// Another round: every source is to be asked again.
        std::function<void()> lookEverywhere;
        /// Whether sources that were asked have yet to answer.
        std::function<bool()> isLooking;
    };

    struct Found {
        Bytes torrentData;  ///< the whole file, the info dictionary's bytes as they came
        std::shared_ptr<TorrentMetaInfo> metaInfo;
    };

    MetadataSearch(const Environment& environment, MagnetLink magnet, std::vector<std::string> cacheSites,
                   int maxRounds, Callbacks callbacks);
    ~MetadataSearch();

    /// Returns the torrent, or nothing when all rounds are over or it was given up. Once.
    asio::awaitable<std::optional<Found>> run();
    void giveUp();
    asio::awaitable<void> stop();

    // What connected peers say.
    void requestMetadata(const PeerPool::Peer& peer);
    void handleMetadataPiece(PeerKey peer, std::int64_t piece, ByteView data);
    void handleRejection(PeerKey peer, std::int64_t piece);
    void removePeer(PeerKey peer);

private:
    asio::awaitable<void> askCacheSites();
    asio::awaitable<void> askPeers();
    asio::awaitable<void> waitForNews();
    void sendRequests();
    asio::awaitable<void> accept(MetadataFetch::Candidate candidate);
    asio::awaitable<void> runRound(int round);
    asio::awaitable<void> pauseAfter(int round);
    asio::awaitable<void> waitForChange(Clock::TimePoint until);
    bool isRoundOver() const;
    bool isOver() const noexcept { return found_ || isGivenUp_; }

    const Environment environment_;
    const MagnetLink magnet_;
    const int maxRounds_;
    const Callbacks callbacks_;
    std::unique_ptr<CacheSites> cacheSites_;
    bool cacheSitesAreDone_ = false;
    bool isGivenUp_ = false;
    bool isChecking_ = false;  // a whole info dictionary's hash
    MetadataFetch fetch_;
    std::optional<Found> found_;
    Notifier changed_;  // something was found, or the cache sites have all answered
    Notifier peersSpoke_;
    TaskGroup tasks_;
};

}  // namespace skein
