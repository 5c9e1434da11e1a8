#pragma once

#include "downloads/SavedTask.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace skein {

/// Keeps the task list in one file, `tasks.json`: replaced as a whole, so that what was saved survives whatever
/// happens.
///
/// Owner: the manager, whose strand it shares. Thread: that strand; files are written on `disk`.
class TaskStore {
public:
    /// The list as it is to be saved. Called on the strand, once a write and not once a change.
    using Snapshot = std::function<std::vector<SavedTask>()>;

    static constexpr std::string_view tasksFile = "tasks.json";
    /// A file that did not decode is kept under this name (with ".2", ".3" … behind it while one is there already).
    static constexpr std::string_view damagedFile = "tasks.json.damaged";
    /// From one write to the next, at least: a list of thousands that come in at once is not written thousands of
    /// times.
    static constexpr std::chrono::milliseconds writeSpacing{200};
    /// Larger lists are neither written nor read.
    static constexpr std::size_t maxBytes = std::size_t{1} << 29U;

    /// `folder` is the home, and exists.
    TaskStore(const Strand& main, asio::any_io_executor disk, Clock& clock, FileLogger& log,
              const std::filesystem::path& folder, Snapshot snapshot);

    /// What was saved, in its order; empty when there is no file, or none that can be used: that one is logged, and set
    /// aside before the next write. Throws boost::system::system_error (operation_aborted) once stopped.
    asio::awaitable<std::vector<SavedTask>> loadSavedTasks();

    /// Has the list written soon; returns at once. A write that fails is logged (once, until one works again) and
    /// repeated with the next change. Nothing is written until the first call after `loadSavedTasks` returned: the list
    /// on disk is not replaced by one that was begun without it.
    void saveTasks();
    /// Returns once everything up to now is on the disk, false when it is not: the write failed, or the store stops.
    asio::awaitable<bool> whenSaved();
    /// The same, without waiting for the spacing. What comes while the list is written joins the next write, which is
    /// one for all who wait. Throws as `loadSavedTasks`.
    asio::awaitable<bool> saveNow();

    /// Writes what is not yet written, and returns when nothing of the store runs any more. May be called again.
    asio::awaitable<void> stop();

private:
    asio::awaitable<std::vector<SavedTask>> load();
    asio::awaitable<void> saveSoon();
    asio::awaitable<bool> saveTheRest();
    asio::awaitable<void> save();

    const asio::any_io_executor disk_;
    Clock& clock_;
    FileLogger& log_;
    const std::filesystem::path file_;
    const Snapshot snapshot_;
    bool isLoaded_ = false;
    bool isDamaged_ = false;  ///< the file on disk is to be set aside first
    std::uint64_t changes_ = 0;
    std::uint64_t savedChanges_ = 0;  ///< those on the disk
    std::uint64_t writesBegun_ = 0;
    std::uint64_t writesEnded_ = 0;
    bool isChanged_ = false;  ///< saveSoon has to go on
    bool isSaving_ = false;
    bool isSavePlanned_ = false;  ///< saveSoon runs
    bool hasFailed_ = false;      ///< the last write did
    std::optional<Clock::TimePoint> lastSave_;
    TaskGroup tasks_;
    Notifier saved_;
};

}  // namespace skein
