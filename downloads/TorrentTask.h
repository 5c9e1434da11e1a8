#pragma once

#include "Core/discovery/TrackerRuntimeInfo.h"
#include "Core/engine/StallReason.h"
#include "Core/formats/FileList.h"
#include "downloads/DownloadType.h"
#include "downloads/Observed.h"
#include "downloads/PeerDetailStore.h"
#include "downloads/ResearchCategory.h"
#include "downloads/TaskChanges.h"
#include "downloads/TaskFiles.h"
#include "downloads/TaskStatus.h"
#include "public/common/Clock.h"
#include "public/common/UUID.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// What of a task never changes.
struct TaskIdentity {
    UUID id;
    std::string infoHash;  ///< 40 lower-case hex digits, or "http_" and what makes it unique
    std::optional<std::string> magnetURI;
    std::optional<std::string> downloadURL;
    DownloadType downloadType = DownloadType::torrent;
};

/// One download, a torrent or a plain HTTP one, as its users see it: `task.status()` reads a value,
/// `task.status.set(…)` changes it. Changes are published as TaskChanged.
///
/// It runs nothing itself. Owner: the manager's list; what reports to it holds it weakly. `center` outlives it.
/// Thread: the main executor.
class TorrentTask {
    TaskChanges changes_;  // first: the values below tell it

public:
    using Date = Clock::WallTime;
    template <TaskField field, class T>
    using Value = Observed<field, T>;
    using Text = std::optional<std::string>;

    TorrentTask(MsgCenter& center, TaskIdentity identity);
    TorrentTask(const TorrentTask&) = delete;
    TorrentTask& operator=(const TorrentTask&) = delete;

    const UUID id;
    const std::string infoHash;
    const Text magnetURI;
    const Text downloadURL;
    const DownloadType downloadType;

    Value<TaskField::number, std::int64_t> number{changes_};  ///< from 1; by which users name it while it is listed
    Value<TaskField::ownerUserID, Text> ownerUserID{changes_};
    Value<TaskField::name, std::string> name{changes_};
    Value<TaskField::status, TaskStatus> status{changes_, TaskStatus::paused};
    Value<TaskField::progress, double> progress{changes_};                  ///< 0 to 1
    Value<TaskField::downloadSpeed, std::int64_t> downloadSpeed{changes_};  ///< bytes a second
    Value<TaskField::uploadSpeed, std::int64_t> uploadSpeed{changes_};      ///< bytes a second
    Value<TaskField::peerCount, std::int64_t> peerCount{changes_};          ///< connected
    Value<TaskField::totalSize, std::int64_t> totalSize{changes_};          ///< bytes
    Value<TaskField::downloadedBytes, std::int64_t> downloadedBytes{changes_};
    Value<TaskField::files, FileList> files{changes_};
    Value<TaskField::errorMessage, Text> errorMessage{changes_};
    Value<TaskField::statusMessage, Text> statusMessage{changes_};                    ///< of the moment
    Value<TaskField::stallReason, std::optional<StallReason>> stallReason{changes_};  ///< while nothing moves
    Value<TaskField::addedDate, Date> addedDate{changes_};
    Value<TaskField::folder, std::filesystem::path> folder{changes_};       ///< absolute: where the files go
    Value<TaskField::isPrivate, std::optional<bool>> isPrivate{changes_};   ///< nothing until known
    Value<TaskField::uploadedBytes, std::int64_t> uploadedBytes{changes_};  ///< over all its runs
    Value<TaskField::trackers, std::vector<std::vector<std::string>>> trackers{changes_};  ///< URLs by tier
    Value<TaskField::trackerDetails, std::vector<TrackerRuntimeInfo>> trackerDetails{changes_};
    Value<TaskField::comment, Text> comment{changes_};
    Value<TaskField::creationDate, std::optional<std::chrono::sys_seconds>> creationDate{changes_};
    Value<TaskField::pieceLength, std::int64_t> pieceLength{changes_};       ///< bytes; 0 until known
    Value<TaskField::pieceCount, std::int64_t> pieceCount{changes_};         ///< 0 until known
    Value<TaskField::pieceBitmap, std::vector<bool>> pieceBitmap{changes_};  ///< verified pieces; empty until known
    Value<TaskField::category, ResearchCategory> category{changes_, ResearchCategory::uncategorized};
    Value<TaskField::notes, std::string> notes{changes_};
    // Credit: the estimate of the moment, and what the service has confirmed of it.
    Value<TaskField::currencyEarned, double> currencyEarned{changes_};
    Value<TaskField::currencySpent, double> currencySpent{changes_};
    Value<TaskField::currencyEarnedConfirmed, double> currencyEarnedConfirmed{changes_};
    Value<TaskField::currencySpentConfirmed, double> currencySpentConfirmed{changes_};
    // Bytes downloaded by source, and the part of them that the service has not confirmed yet.
    Value<TaskField::dlBytesFromPlatformPeers, std::int64_t> dlBytesFromPlatformPeers{changes_};
    Value<TaskField::dlBytesFromPublicBT, std::int64_t> dlBytesFromPublicBT{changes_};
    Value<TaskField::dlBytesFromRelay, std::int64_t> dlBytesFromRelay{changes_};
    Value<TaskField::uncommittedDlBytesFromPlatformPeers, std::int64_t> uncommittedDlBytesFromPlatformPeers{changes_};
    Value<TaskField::uncommittedDlBytesFromPublicBT, std::int64_t> uncommittedDlBytesFromPublicBT{changes_};
    Value<TaskField::uncommittedDlBytesFromRelay, std::int64_t> uncommittedDlBytesFromRelay{changes_};
    std::int64_t uncommittedUploadedBytes = 0;  ///< not shown; what is earned by them is
    Value<TaskField::isVerifying, bool> isVerifying{changes_};
    /// 0 to 1 of what is there, while it is hashed.
    Value<TaskField::verifyProgress, std::optional<double>> verifyProgress{changes_};
    Value<TaskField::isControlOperationInProgress, bool> isControlOperationInProgress{changes_};
    Value<TaskField::controlOperationMessage, Text> controlOperationMessage{changes_};
    Value<TaskField::accelerateEnabled, bool> accelerateEnabled{changes_};
    PeerDetailStore peerDetailStore{changes_};

    /// `const auto batch = task.batch();`: what changes while it lives is published once, as a whole.
    [[nodiscard]] TaskChanges::Batch batch() { return TaskChanges::Batch(changes_); }

    const PeerDetailStore::Peers& peerDetails() const noexcept { return peerDetailStore.peers(); }
    double currencyNet() const noexcept { return currencyEarned() - currencySpent(); }
    bool isFinished() const noexcept;
    std::string formattedSize() const;
    std::string formattedDownloaded() const;
    std::string formattedSpeed() const;
    /// The name; while there is none, one from the magnet link or the URL, at last the info-hash.
    std::string getDisplayName() const;
    /// What was sent of each byte that is there; nothing while none is.
    std::optional<double> ratio() const noexcept;
    /// Until all is there, at the speed of the moment; nothing while nothing comes in, and when nothing is missing.
    std::optional<std::chrono::seconds> eta() const noexcept;
    /// "1 h 20 min", "3 min 5 s", "12 s"; `eta` in words.
    Text remainingTime() const;
    /// The verified fraction of a file, 0 to 1; the whole task's while its pieces are not known.
    double fileProgress(const TorrentFileInfo& file) const;
    /// The files as they lie under `downloads`, the download folder: a value that may go to the disk pool.
    TaskFiles filesIn(std::filesystem::path downloads) const { return {std::move(downloads), files()}; }

    /// What the service has confirmed, and what it has not, was another user's.
    void forgetCredit();
    /// Completed, with every piece.
    void markCompleted();
};

}  // namespace skein
