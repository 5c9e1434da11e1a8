#pragma once

#include "Core/engine/FileClaims.h"
#include "downloads/TaskPlace.h"
#include "public/common/Notifier.h"
#include "public/common/SHA1.h"
#include "public/common/TargetLock.h"
#include "public/common/TaskGroup.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace skein {

class TorrentTask;

/// In which folder each task's files are, and that nobody else writes there meanwhile.
///
/// The folder, and the name in it, are put down under the home before the first file is made. So a task goes on, and is
/// deleted, where its files are, whichever download folder there is by then; and a task of which nothing is put down
/// has written nothing. Owner: the manager, which outlives every hold. Thread: the main executor; files are read and
/// written on `disk`.
class TaskTargets {
public:
    /// One's own target, until this goes.
    class Hold {
    public:
        Hold(TaskTargets& targets, const SHA1Digest& key);
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;
        ~Hold();

        TaskPlace place;  ///< with the folder

    private:
        friend class TaskTargets;
        TaskTargets& targets_;
        const SHA1Digest key_;
        std::optional<TargetLock> lock_;
    };
    enum class Purpose : std::uint8_t { write, remove };

    TaskTargets(const Strand& main, asio::any_io_executor disk, const std::filesystem::path& home,
                const std::filesystem::path& downloadsDirectory, FileClaims& claims);

    /// Where the files of tasks go that are begun from now on.
    void setDownloadsDirectory(const std::filesystem::path& folder);

    /// The info-hash of a torrent; for a web file what `skein get` locks, too.
    static SHA1Digest keyOf(const TorrentTask& task);

    /// Waits for whoever holds it in this process. Throws TargetTaken when another process does, and std::system_error.
    /// `wanted` counts as long as nothing is put down of the task.
    asio::awaitable<std::unique_ptr<Hold>> take(SHA1Digest key, Purpose purpose, TaskPlace wanted);
    asio::awaitable<std::unique_ptr<Hold>> take(SHA1Digest key, Purpose purpose) {
        return take(key, purpose, TaskPlace());
    }
    /// Returns when nobody in this process holds it.
    asio::awaitable<void> whenFree(SHA1Digest key);
    /// Without taking it.
    asio::awaitable<TaskPlace> placeOf(SHA1Digest key);
    /// Where what is new goes.
    const std::filesystem::path& usualFolder() const noexcept { return downloadsDirectory_; }
    /// The folder of each. File calls: disk pool only.
    std::vector<std::filesystem::path> foldersOf(const std::vector<SHA1Digest>& keys) const;
    /// Puts down that the finished web file `name` in the held folder is the task's.
    asio::awaitable<void> claimWebFile(const Hold& hold, std::string name);
    /// What was put down of it. A file call: disk pool only.
    void forget(const SHA1Digest& key) const;

private:
    std::filesystem::path recordOf(const SHA1Digest& key) const;
    std::optional<TaskPlace> recorded(const SHA1Digest& key) const;

    const asio::any_io_executor disk_;
    const std::filesystem::path records_;
    std::filesystem::path downloadsDirectory_;
    FileClaims& claims_;
    std::set<SHA1Digest> held_;
    Notifier released_;
};

}  // namespace skein
