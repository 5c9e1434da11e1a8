#pragma once

#include "Core/discovery/PeerHistory.h"
#include "public/common/ActorSettings.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// Remembers in the settings which peers of which torrent worked and which failed.
///
/// Several processes may share the settings: a write adds what was recorded here since the last one to what is stored
/// by then. Reads are answered from memory, which is filled by the first read and refreshed by each write.
/// Owner: the program, one for all sessions; they stop before it does. `clock`, `log` and what `settings` refers to
/// outlive the store. Thread: any; the state lives on the strand of `tasks_`.
class PeerHistoryStore {
public:
    using Entry = PeerHistoryEntry;

    static constexpr std::string_view key = "torrent.peerHistory.v1";
    static constexpr std::size_t maxPeersPerTorrent = PeerHistory::maxPeersPerTorrent;
    static constexpr std::size_t maxBytes = 2'097'152;
    static constexpr std::chrono::seconds staleInterval = PeerHistory::staleInterval;
    static constexpr std::size_t maxFailureOnlyCount = PeerHistory::maxFailureOnlyCount;
    static constexpr std::size_t defaultLimit = 20;

    /// From a record to its write, when nothing was written lately.
    static constexpr std::chrono::seconds writeDelay{1};
    /// Between two writes: the whole value is written each time, and a busy session records many failures a second.
    static constexpr std::chrono::seconds writeSpacing{10};
    /// Records that wait for a write (the disk may be full for hours); those of further peers are dropped.
    static constexpr std::size_t maxUnwritten = 4096;

    PeerHistoryStore(const asio::any_io_executor& pool, ActorSettings settings, Clock& clock, FileLogger& log);

    /// At most `limit` peers of the torrent, best first. `infoHash` has 40 lower-case hex digits. A history that cannot
    /// be read is logged and counts as empty. Throws boost::system::system_error (operation_aborted) when cancelled.
    asio::awaitable<std::vector<Entry>> peers(std::string infoHash, std::size_t limit = defaultLimit);
    /// At most `limit` peers of the local network, whatever their torrent, best first. Throws like `peers`.
    asio::awaitable<std::vector<Entry>> lanPeers(std::size_t limit = defaultLimit);

    /// Cheap, and returns at once. Addresses that are not `isUsableHistory` are not recorded; `allowsLocalPeers` lets
    /// those on loopback be, too.
    void recordSuccess(std::string infoHash, const PeerAddress& address, PeerSource source,
                       bool allowsLocalPeers = false);
    void recordFailure(std::string infoHash, const PeerAddress& address, PeerSource source,
                       bool allowsLocalPeers = false);

    /// Writes what was recorded before it was called, and returns when nothing of the store runs any more.
    asio::awaitable<void> stop();

private:
    enum class Outcome { success, failure };

    void record(std::string infoHash, const PeerAddress& address, PeerSource source, bool allowsLocalPeers,
                Outcome outcome);
    void update(const std::string& infoHash, const Entry& change);
    asio::awaitable<std::vector<Entry>> findPeers(std::string infoHash, std::size_t limit);
    asio::awaitable<std::vector<Entry>> findLANPeers(std::size_t limit);
    asio::awaitable<void> load();
    asio::awaitable<void> saveLater();
    asio::awaitable<void> saveTheRest();
    asio::awaitable<void> save();

    const ActorSettings settings_;
    Clock& clock_;
    FileLogger& log_;
    PeerHistory memory_;     ///< what is stored, as far as we know, with what is unwritten
    PeerHistory unwritten_;  ///< changes only
    bool isLoaded_ = false;
    bool isSaving_ = false;
    bool isSavePlanned_ = false;  ///< saveLater runs
    std::optional<Clock::TimePoint> lastSave_;
    TaskGroup tasks_;
    Notifier saved_;
};

}  // namespace skein
