#pragma once

#include "Core/formats/FileList.h"
#include "public/common/Clock.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace skein {

class MsgCenter;
class Random;
class TorrentTask;

/// The durable part of a task, as `tasks.json` holds it. The fields bear the names of its keys.
struct SavedTask {
    using Text = std::optional<std::string>;

    /// Longer lists are not saved, for every save writes all of it again: they are in the saved `.torrent`.
    static constexpr std::size_t mostFiles = 1000;

    std::string infoHash;
    std::string name;
    Text magnetURI;
    Clock::WallTime addedDate{};
    Text status;
    std::optional<std::int64_t> totalSize;  ///< bytes
    std::optional<double> progress;         ///< 0 to 1
    std::optional<FileList> files;
    Text category;
    Text notes;
    Text downloadURL;
    Text downloadType;
    Text ownerUserID;
    std::optional<bool> accelerateEnabled;
    std::optional<std::int64_t> uploadedBytes;
    std::optional<std::int64_t> number;

    /// A finished task is saved as completed, also while it seeds. Thread: the main executor.
    static SavedTask of(const TorrentTask& task);
    /// A task with a fresh id: completed when it was saved so, paused in every other case. Thread: the main executor.
    std::shared_ptr<TorrentTask> restore(MsgCenter& center, Random& random) &&;

    friend bool operator==(const SavedTask&, const SavedTask&) = default;
};

}  // namespace skein
