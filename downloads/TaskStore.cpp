#include "downloads/TaskStore.h"

#include "downloads/SavedTaskCodec.h"
#include "public/common/ErrorText.h"
#include "public/common/RunOn.h"
#include "public/common/WholeFile.h"

#include <boost/system/system_error.hpp>

#include <exception>
#include <string>
#include <system_error>
#include <utility>

namespace skein {

namespace {

namespace fs = std::filesystem;

struct Loaded {
    std::vector<SavedTask> tasks;
    std::string fault;  ///< why the file cannot be used; empty when it can, or is not there
};

Loaded loadFrom(const fs::path& file) {
    try {
        const Bytes bytes = readWholeFile(file, TaskStore::maxBytes);
        if (auto tasks = SavedTaskCodec::decode(asText(bytes))) return {*std::move(tasks), {}};
        return {{}, "not a task list"};
    } catch (const std::system_error& error) {
        if (error.code() == std::errc::no_such_file_or_directory) return {};
        return {{}, error.code().message()};
    }
}

void setAside(const fs::path& file) {
    const fs::path first = file.parent_path() / TaskStore::damagedFile;
    fs::path free = first;
    for (int number = 2; fs::exists(fs::symlink_status(free)); ++number)
        free = first.string() + "." + std::to_string(number);
    fs::rename(file, free);
}

void saveTo(const fs::path& file, const std::vector<SavedTask>& tasks, bool isDamaged) {
    const std::string text = SavedTaskCodec::encode(tasks);
    if (text.size() > TaskStore::maxBytes) throw std::system_error(std::make_error_code(std::errc::file_too_large));
    if (isDamaged && fs::exists(fs::symlink_status(file))) setAside(file);
    // Web addresses may hold passwords.
    replaceWholeFile(file, asBytes(text));
}

}  // namespace

TaskStore::TaskStore(const Strand& main, asio::any_io_executor disk, Clock& clock, FileLogger& log,
                     const fs::path& folder, Snapshot snapshot)
    : disk_(std::move(disk)),
      clock_(clock),
      log_(log),
      file_(folder / tasksFile),
      snapshot_(std::move(snapshot)),
      tasks_(main),
      saved_(tasks_.strand()) {}

asio::awaitable<std::vector<SavedTask>> TaskStore::loadSavedTasks() { return tasks_.call(load()); }

asio::awaitable<std::vector<SavedTask>> TaskStore::load() {
    auto work = [file = file_] { return loadFrom(file); };
    auto loading = runOn(disk_, std::move(work));
    Loaded loaded = co_await std::move(loading);
    isLoaded_ = true;
    isDamaged_ = !loaded.fault.empty();
    if (isDamaged_) log_.error("[Manager] ❌ loading ", file_.string(), " failed: ", loaded.fault);
    co_return std::move(loaded.tasks);
}

void TaskStore::saveTasks() {
    ++changes_;
    isChanged_ = true;
    if (!isLoaded_ || tasks_.isStopping() || std::exchange(isSavePlanned_, true)) return;
    tasks_.spawn(saveSoon());
}

asio::awaitable<void> TaskStore::stop() {
    try {
        co_await tasks_.call(saveTheRest());
    } catch (const boost::system::system_error&) {
        // It has been stopped before.
    }
    co_await tasks_.stop();
}

asio::awaitable<void> TaskStore::saveSoon() {
    while (std::exchange(isChanged_, false)) {
        if (lastSave_) co_await clock_.sleep(*lastSave_ + writeSpacing - clock_.now());
        isChanged_ = false;
        co_await save();
    }
    isSavePlanned_ = false;
    saved_.notify();  // also of a failure
}

asio::awaitable<bool> TaskStore::saveTheRest() {
    const std::uint64_t now = changes_;
    const std::uint64_t write = writesBegun_ + 1;  // the first that certainly holds it all
    while (isLoaded_ && savedChanges_ < now && writesEnded_ < write) {
        if (isSaving_) {
            co_await saved_.wait();
        } else {
            co_await save();
        }
    }
    co_return savedChanges_ >= now;
}

asio::awaitable<bool> TaskStore::saveNow() { return tasks_.call(saveTheRest()); }

asio::awaitable<bool> TaskStore::whenSaved() {
    const std::uint64_t now = changes_;
    while (savedChanges_ < now && isSavePlanned_) co_await saved_.wait();
    co_return savedChanges_ >= now;
}

asio::awaitable<void> TaskStore::save() {
    while (isSaving_) co_await saved_.wait();
    if (savedChanges_ == changes_) co_return;
    const std::uint64_t saved = changes_;
    isSaving_ = true;
    ++writesBegun_;
    lastSave_ = clock_.now();
    auto work = [file = file_, tasks = snapshot_(), isDamaged = isDamaged_] { saveTo(file, tasks, isDamaged); };
    auto saving = runOn(disk_, std::move(work));
    try {
        co_await std::move(saving);
        savedChanges_ = saved;
        isDamaged_ = false;
        hasFailed_ = false;
    } catch (const std::exception& error) {
        if (!std::exchange(hasFailed_, true))
            log_.error("[Manager] ❌ saving ", file_.string(), " failed: ", textOf(error));
    }
    isSaving_ = false;
    ++writesEnded_;
    saved_.notify();
}

}  // namespace skein
