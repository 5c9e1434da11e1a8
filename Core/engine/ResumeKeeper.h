#pragma once

#include "Core/engine/PieceManager.h"
#include "Core/engine/TorrentArchive.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace skein {

/// Puts what a download wrote on the device from time to time, and then vouches for it in the resume record.
///
/// Owner: the session, which awaits `finish()` after its pieces have come to rest. Thread: the session's strand.
class ResumeKeeper {
public:
    static constexpr std::chrono::seconds syncInterval{10};
    static constexpr std::chrono::seconds recordInterval{30};

    struct Environment {
        Strand strand;
        asio::any_io_executor disk;
        Clock& clock;
        FileLogger& log;
        SHA1Digest infoHash{};
        std::optional<TorrentArchive> archive;  ///< none: only synced, nothing is recorded
    };

    explicit ResumeKeeper(Environment environment);

    /// The record of an earlier run; empty when there is none.
    asio::awaitable<Bytes> read() const;
    /// Syncs in the background unless that was done lately. What `pieces` holds after a check is worth recording at
    /// once.
    void noteProgress(const std::shared_ptr<PieceManager>& pieces);
    /// Puts all of the download on the device, sees to what others changed, and records. Whether all pieces are there,
    /// and safe.
    asio::awaitable<bool> secureAll(std::shared_ptr<PieceManager> pieces);
    /// Everything is checked anew: what was recorded counts for nothing.
    void forget();
    /// Syncs and records for the last time.
    asio::awaitable<void> finish(std::shared_ptr<PieceManager> pieces);
    asio::awaitable<void> stop() { return tasks_.stop(); }

private:
    class Turn;
    enum class Occasion : std::uint8_t {
        progress,    ///< recorded when a record is due
        last,        ///< recorded if there is news
        completion,  ///< everything is looked at, and recorded
    };
    asio::awaitable<bool> secure(std::shared_ptr<PieceManager> pieces, Occasion occasion);
    asio::awaitable<void> secureSome(std::shared_ptr<PieceManager> pieces);
    asio::awaitable<void> record(std::shared_ptr<PieceManager> pieces, PieceSet verified);

    const Environment environment_;
    bool isSyncing_ = false;
    std::optional<Clock::TimePoint> lastSyncAt_;
    std::optional<Clock::TimePoint> lastRecordAt_;
    PieceSet recorded_;
    TaskGroup tasks_;
    Notifier syncEnded_;
};

}  // namespace skein
