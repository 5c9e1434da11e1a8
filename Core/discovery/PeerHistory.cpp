#include "Core/discovery/PeerHistory.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <unordered_set>

namespace skein {

namespace {

/// Stored counts come from outside: their sum stays within the type.
std::int64_t sumOf(std::int64_t a, std::int64_t b) {
    return b > std::numeric_limits<std::int64_t>::max() - a ? std::numeric_limits<std::int64_t>::max() : a + b;
}

/// Whom to dial first. Of those that only failed, the one that was left alone for longest.
bool isBetter(const PeerHistoryEntry& a, const PeerHistoryEntry& b) {
    if (a.hasOnlyFailed() != b.hasOnlyFailed()) return b.hasOnlyFailed();
    if (a.hasOnlyFailed()) return a.lastFailureAt < b.lastFailureAt;
    if (a.lastSuccessAt != b.lastSuccessAt) return a.lastSuccessAt > b.lastSuccessAt;
    return a.failureCount < b.failureCount;
}

/// Whom to keep: among those that only failed the latest failures, as those are not worth a dial for longest.
bool isKeptBefore(const PeerHistoryEntry& a, const PeerHistoryEntry& b) {
    if (a.hasOnlyFailed() && b.hasOnlyFailed()) return a.lastFailureAt > b.lastFailureAt;
    return isBetter(a, b);
}

void limitDate(std::optional<Clock::WallTime>& date, Clock::WallTime latest) {
    if (date) date = std::min(*date, latest);
}

void pruneTorrent(PeerHistory::Entries& entries, Clock::WallTime now) {
    for (PeerHistoryEntry& entry : entries) {
        limitDate(entry.lastSuccessAt, now);
        limitDate(entry.lastFailureAt, now);
    }
    std::erase_if(entries, [&](const PeerHistoryEntry& entry) {
        const auto lastActiveAt = entry.lastActiveAt();
        return !lastActiveAt || now - *lastActiveAt > PeerHistory::staleInterval;
    });
    std::stable_sort(entries.begin(), entries.end(), isKeptBefore);
    const auto firstFailure =
        std::find_if(entries.begin(), entries.end(), [](const auto& entry) { return entry.hasOnlyFailed(); });
    const auto successes = static_cast<std::size_t>(firstFailure - entries.begin());
    const std::size_t kept = std::min(successes + PeerHistory::maxFailureOnlyCount, PeerHistory::maxPeersPerTorrent);
    if (entries.size() > kept) entries.resize(kept);
}

}  // namespace

void PeerHistory::add(std::string_view infoHash, const PeerHistoryEntry& change) {
    auto torrent = torrents_.find(infoHash);
    if (torrent == torrents_.end()) torrent = torrents_.emplace(infoHash, Entries()).first;
    Entries& entries = torrent->second;
    const auto known = std::find_if(entries.begin(), entries.end(), [&](const PeerHistoryEntry& entry) {
        return entry.port == change.port && entry.host == change.host;
    });
    if (known == entries.end()) {
        entries.push_back(change);
        return;
    }
    known->successCount = sumOf(known->successCount, change.successCount);
    known->failureCount = sumOf(known->failureCount, change.failureCount);
    known->lastSuccessAt = std::max(known->lastSuccessAt, change.lastSuccessAt);
    known->lastFailureAt = std::max(known->lastFailureAt, change.lastFailureAt);
    if (change.source != PeerSource::history) known->source = change.source;
}

void PeerHistory::add(const PeerHistory& changes) {
    for (const auto& [infoHash, entries] : changes.torrents_)
        for (const PeerHistoryEntry& change : entries) add(infoHash, change);
}

void PeerHistory::prune(Clock::WallTime now) {
    for (auto& [infoHash, entries] : torrents_) pruneTorrent(entries, now);
    std::erase_if(torrents_, [](const auto& torrent) { return torrent.second.empty(); });
}

void PeerHistory::dropWorst(const std::function<bool(const PeerHistoryEntry& next)>& isEnough) {
    std::vector<PeerHistoryEntry*> all;
    for (auto& [infoHash, entries] : torrents_)
        for (PeerHistoryEntry& entry : entries) all.push_back(&entry);
    std::stable_sort(all.begin(), all.end(), [](const auto* a, const auto* b) { return isKeptBefore(*b, *a); });
    // What goes is marked first, so that the pointers hold: no peer has port 0.
    for (PeerHistoryEntry* const entry : all) {
        if (isEnough(*entry)) break;
        entry->port = 0;
    }
    for (auto& [infoHash, entries] : torrents_)
        std::erase_if(entries, [](const auto& entry) { return entry.port == 0; });
    std::erase_if(torrents_, [](const auto& torrent) { return torrent.second.empty(); });
}

PeerHistory::Entries PeerHistory::peers(std::string_view infoHash, std::size_t limit) const {
    const auto torrent = torrents_.find(infoHash);
    if (torrent == torrents_.end()) return {};
    Entries best = torrent->second;
    std::stable_sort(best.begin(), best.end(), isBetter);
    if (best.size() > limit) best.resize(limit);
    return best;
}

PeerHistory::Entries PeerHistory::lanPeers(std::size_t limit) const {
    Entries found;
    for (const auto& [infoHash, entries] : torrents_)
        std::copy_if(entries.begin(), entries.end(), std::back_inserter(found),
                     [](const PeerHistoryEntry& entry) { return entry.address().isUsableLSDPeer(); });
    std::stable_sort(found.begin(), found.end(), isBetter);
    std::unordered_set<PeerAddress> seen;
    Entries best;
    for (PeerHistoryEntry& entry : found)
        if (best.size() < limit && seen.insert(entry.address()).second) best.push_back(std::move(entry));
    return best;
}

std::size_t PeerHistory::size() const noexcept {
    std::size_t count = 0;
    for (const auto& [infoHash, entries] : torrents_) count += entries.size();
    return count;
}

}  // namespace skein
