#pragma once

#include "Core/discovery/PeerHistoryEntry.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace skein {

/// The peers of all torrents and how they did: the rules of the history, without its storage. Not thread-safe.
class PeerHistory {
public:
    using Entries = std::vector<PeerHistoryEntry>;
    /// By info-hash, 40 lower-case hex digits.
    using Torrents = std::map<std::string, Entries, std::less<>>;

    static constexpr std::size_t maxPeersPerTorrent = 80;
    static constexpr std::chrono::seconds staleInterval{2'592'000};  ///< 30 days
    static constexpr std::size_t maxFailureOnlyCount = 5;

    PeerHistory() = default;
    explicit PeerHistory(Torrents torrents) : torrents_(std::move(torrents)) {}

    /// Adds the counts of `change` to those of the same torrent and address, and takes its dates where they are later.
    /// The new source counts, unless it is the history itself.
    void add(std::string_view infoHash, const PeerHistoryEntry& change);
    /// Adds all of `changes`.
    void add(const PeerHistory& changes);
    /// Drops what is stale, all but the latest `maxFailureOnlyCount` failures and all but the best
    /// `maxPeersPerTorrent` of each torrent. A date that is yet to come (the clock was wrong) becomes `now`.
    void prune(Clock::WallTime now);
    /// Drops the worst entries of all torrents: `isEnough` is asked before each, the worst first.
    void dropWorst(const std::function<bool(const PeerHistoryEntry& next)>& isEnough);

    /// At most `limit`, the latest success first, then those that only failed, the oldest failure first.
    Entries peers(std::string_view infoHash, std::size_t limit) const;
    /// Peers at private, link-local and unique local addresses, of all torrents, in the same order, no address twice.
    Entries lanPeers(std::size_t limit) const;

    const Torrents& torrents() const noexcept { return torrents_; }
    std::size_t size() const noexcept;
    bool empty() const noexcept { return torrents_.empty(); }

private:
    Torrents torrents_;
};

}  // namespace skein
