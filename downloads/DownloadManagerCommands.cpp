// What the manager is told to do with a task.

#include "Core/engine/StoredPaths.h"
#include "Core/formats/MagnetParser.h"
#include "Core/formats/TorrentParser.h"
#include "downloads/ControlMessage.h"
#include "downloads/DownloadManager.h"
#include "downloads/TaskListChanged.h"
#include "public/common/ErrorText.h"
#include "public/common/RunOn.h"

#include <boost/asio/this_coro.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>

namespace skein {

// --- one command a task ----------------------------------------------------------------------------------------------

/// Runs the command to its end, whether or not the caller waits for it. While one runs, others for its task do nothing.
asio::awaitable<bool> DownloadManager::perform(Task task, asio::awaitable<void> work, bool isCheck) {
    if (!busy_.emplace(task->id, Command{isCheck}).second) co_return false;
    const auto hasEnded = std::make_shared<bool>(false);
    tasks_.spawn(performTracked(task, std::move(work), hasEnded));
    while (!*hasEnded && !tasks_.isStopping()) co_await commandEnded_.wait();
    co_return true;
}

asio::awaitable<void> DownloadManager::performTracked(Task task, asio::awaitable<void> work,
                                                      std::shared_ptr<bool> hasEnded) {
    std::string failure;
    try {
        co_await std::move(work);
    } catch (const boost::system::system_error&) {
        // Cancelled: the manager stops.
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    if (!failure.empty()) fail(task, failure);
    task->isControlOperationInProgress.set(false);
    task->controlOperationMessage.set(std::nullopt);
    endCheck(task);
    busy_.erase(task->id);
    *hasEnded = true;
    commandEnded_.notify();
}

/// A check may take long, and is not worth waiting for.
asio::awaitable<void> DownloadManager::waitForCommand(Task task) {
    for (auto found = busy_.find(task->id); found != busy_.end(); found = busy_.find(task->id)) {
        if (!std::exchange(found->second.isToEnd, true)) commandEnded_.notify();
        co_await commandEnded_.wait();
    }
}

bool DownloadManager::isToEnd(const Task& task) const {
    const auto found = busy_.find(task->id);
    return found != busy_.end() && found->second.isToEnd;
}

asio::awaitable<bool> DownloadManager::pauseTask(Task task) {
    const auto running = busy_.find(task->id);
    if (running != busy_.end() && running->second.isCheck) co_await waitForCommand(task);
    asio::awaitable<void> work = pause(task);
    co_return co_await perform(task, std::move(work));
}

asio::awaitable<bool> DownloadManager::resumeTask(Task task) { return perform(task, resume(task)); }

asio::awaitable<bool> DownloadManager::recheckTask(Task task) { return perform(task, recheck(task), true); }

asio::awaitable<bool> DownloadManager::redownloadTask(Task task) { return perform(task, redownload(task)); }

asio::awaitable<bool> DownloadManager::removeTask(Task task, bool deleteFiles) {
    // Unlike the others a removal is not forgotten because another command runs.
    co_await waitForCommand(task);
    asio::awaitable<void> work = remove(task, deleteFiles);
    co_return co_await perform(task, std::move(work));
}

// --- pause and resume ------------------------------------------------------------------------------------------------

asio::awaitable<void> DownloadManager::pause(Task task) {
    // A web file that is whole would lose what is known of it, and be fetched again.
    if (task->downloadType == DownloadType::http && task->status() == TaskStatus::completed) co_return;
    task->isControlOperationInProgress.set(true);
    task->controlOperationMessage.set(std::string(textOf(ControlMessage::pausing)));
    co_await sessions_.stopSession(task);
    rest(task, TaskStatus::paused);
    store_.saveTasks();
}

asio::awaitable<void> DownloadManager::resume(Task task) {
    // A web file that is whole has nothing to go on with; a torrent would be served again.
    const bool isWhole = task->downloadType == DownloadType::http && task->status() == TaskStatus::completed;
    if (isWhole) co_return;
    task->isControlOperationInProgress.set(true);
    task->controlOperationMessage.set(std::string(textOf(ControlMessage::resuming)));
    // The session that failed may still be stopping.
    if (task->status() == TaskStatus::error) co_await sessions_.stopSession(task);
    if (sessions_.isRunning(task)) co_return;
    task->errorMessage.set(std::nullopt);
    auto origin = co_await originFor(task, "Cannot resume: ");
    if (!origin) co_return;
    rebuild(task, *std::move(origin));
    store_.saveTasks();
}

asio::awaitable<TorrentOrigin> DownloadManager::originOf(Task task) {
    TorrentOrigin origin;
    const SHA1Digest key = TaskTargets::keyOf(*task);
    const TaskPlace place = co_await targets_.placeOf(key);
    auto read = [this, key, &place, name = task->name()] { return archive_.torrent(key, place.folder, name); };
    origin.torrentData = co_await runOn(environment_.disk, std::move(read));
    if (!task->magnetURI) co_return origin;
    try {
        origin.magnet = MagnetParser::parse(*task->magnetURI);
    } catch (const MagnetParseException&) {
        // Without the link, the .torrent alone has to do.
    }
    co_return origin;
}

/// What a fresh session starts from. When that is not enough the task fails, with a message that `missing` begins, and
/// there is nothing.
asio::awaitable<std::optional<TorrentOrigin>> DownloadManager::originFor(Task task, std::string missing) {
    TorrentOrigin origin;
    std::string fault;
    if (task->downloadType == DownloadType::http) {
        if (!task->downloadURL) fault = missing + "download URL missing";
    } else {
        origin = co_await originOf(task);
        if (!origin.torrentData && !origin.magnet)
            fault = task->magnetURI ? "Failed to parse magnet link" : missing + "magnet link missing";
    }
    if (fault.empty()) co_return origin;
    fail(task, fault);
    co_return std::nullopt;
}

void DownloadManager::rebuild(const Task& task, TorrentOrigin origin) {
    task->stallReason.set(std::nullopt);
    if (task->downloadType == DownloadType::http) {
        environment_.log.info("[Manager] Rebuilding HTTP session for ", task->name());
        task->status.set(TaskStatus::downloading);
        // A file that was named before keeps its name.
        return sessions_.startHTTP(task, task->files().empty() ? std::nullopt : std::optional(task->name()));
    }
    environment_.log.info("[Manager] Rebuilding session for ", task->name());
    task->status.set(origin.torrentData ? TaskStatus::downloading : TaskStatus::fetchingMetadata);
    sessions_.startTorrent(task, std::move(origin));
}

// --- check -----------------------------------------------------------------------------------------------------------

/// Hashes everything, whatever a resume record says. Who ends the check does with the session what he wants.
asio::awaitable<void> DownloadManager::recheck(Task task) {
    if (task->downloadType != DownloadType::torrent) co_return;
    TorrentOrigin origin = co_await originOf(task);
    if (!origin.torrentData && !origin.magnet) {
        task->errorMessage.set("Cannot verify: magnet link missing");
        co_return;
    }
    task->isVerifying.set(true);
    task->statusMessage.set("Verifying files...");
    task->errorMessage.set(std::nullopt);
    co_await sessions_.stopSession(task);
    auto forget = [this, key = TaskTargets::keyOf(*task)] { archive_.forgetResumeRecord(key); };
    co_await runOn(environment_.disk, std::move(forget));
    if (isToEnd(task)) co_return;
    task->isVerifying.set(true);  // also if the session that has stopped took it for its own
    task->status.set(origin.torrentData ? TaskStatus::downloading : TaskStatus::fetchingMetadata);
    sessions_.startTorrent(task, std::move(origin));
    // The state that follows the check ends it.
    while (sessions_.isRunning(task) && task->isVerifying() && !isToEnd(task)) co_await commandEnded_.wait();
}

// --- the files -------------------------------------------------------------------------------------------------------

asio::awaitable<FileList> DownloadManager::filesOf(Task task) {
    const bool isKnown = !task->files().empty() || task->downloadType != DownloadType::torrent;
    if (isKnown || task->totalSize() == 0) co_return task->files();
    const SHA1Digest key = TaskTargets::keyOf(*task);
    const TaskPlace place = co_await targets_.placeOf(key);
    auto read = [this, key, &place, name = task->name()] {
        try {
            const auto data = archive_.torrent(key, place.folder, name);
            if (!data) return FileList();
            auto metaInfo = std::make_shared<const TorrentMetaInfo>(TorrentParser::parse(*data));
            return storedIn(place.folder, place.topName, std::move(metaInfo))->files;
        } catch (const std::exception& error) {
            environment_.log.warning("[Manager] the list of files of ", name, " cannot be read: ", textOf(error));
            return FileList();
        }
    };
    FileList files = co_await runOn(environment_.disk, std::move(read));
    if (task->files().empty()) task->files.set(std::move(files));
    co_return task->files();
}

asio::awaitable<std::vector<DownloadManager::PlacedFile>> DownloadManager::placesOf(Task task, std::size_t first,
                                                                                    std::size_t count) {
    const FileList files = co_await filesOf(task);
    const std::size_t begin = std::min(first, files.size());
    const std::size_t end = begin + std::min(count, files.size() - begin);
    std::vector<double> progress;
    for (std::size_t i = begin; i < end; ++i) progress.push_back(task->fileProgress(files[i]));
    auto look = [on = task->filesIn(task->folder()), begin, progress] { return on.places(begin, progress); };
    const std::vector<TaskFiles::Place> places = co_await runOn(environment_.disk, std::move(look));
    std::vector<PlacedFile> placed;
    for (std::size_t i = begin; i < end; ++i) placed.push_back({files[i], progress[i - begin], places[i - begin]});
    co_return placed;
}

// --- download again, and remove --------------------------------------------------------------------------------------

asio::awaitable<void> DownloadManager::redownload(Task task) {
    co_await sessions_.stopSession(task);
    auto origin = co_await originFor(task, "Cannot redownload: ");
    if (!origin) co_return;
    {
        const auto batch = task->batch();
        task->status.set(origin->torrentData ? TaskStatus::downloading : TaskStatus::fetchingMetadata);
        task->progress.set(0);
        task->downloadedBytes.set(0);
        task->pieceBitmap.set({});
        task->errorMessage.set(std::nullopt);
    }
    // First the list: killed in between, no task is completed whose files are gone.
    store_.saveTasks();
    co_await store_.saveNow();
    co_await clearDownloaded(task);
    rebuild(task, *std::move(origin));
    store_.saveTasks();
}

asio::awaitable<void> DownloadManager::clearDownloaded(Task task) {
    const SHA1Digest key = TaskTargets::keyOf(*task);
    const auto target = co_await targets_.take(key, TaskTargets::Purpose::remove);
    if (task->downloadType == DownloadType::http) co_await sessions_.clearHTTPDownload(task, target->place.folder);
    const FileList list = co_await filesOf(task);
    const TaskFiles files(target->place.folder, list);
    auto clear = [this, key, &files] {
        archive_.forgetResumeRecord(key);
        return files.remove(environment_.claims.claimsOf(key));
    };
    const TaskFiles::Removal removal = co_await runOn(environment_.disk, std::move(clear));
    report(removal, task->name());
}

asio::awaitable<void> DownloadManager::remove(Task task, bool deleteFiles) {
    if (std::find(list_.begin(), list_.end(), task) == list_.end()) co_return;  // removed while this waited
    const bool isTorrent = task->downloadType == DownloadType::torrent;
    const std::string user = userID_;
    // First, so that the service forgets the torrent even if we die now.
    if (isTorrent) co_await pendingDeletes_.add(user, task->infoHash);
    co_await sessions_.stopSession(task);
    // Held before the task leaves the list: one that is added in its place does not write what is deleted here.
    std::unique_ptr<TaskTargets::Hold> target = co_await takeToDelete(task);
    // From here on all of it is done, also when the manager stops meanwhile.
    co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
    // Killed anywhere behind this, the next start does the rest.
    bool isPutDown = false;
    if (target) isPutDown = co_await beginRemoval(task, deleteFiles);
    std::erase(list_, task);
    environment_.center.publish(TaskListChanged{TaskListChanged::Kind::removed, task->id, task->infoHash});
    store_.saveTasks();
    co_await store_.saveNow();
    co_await deleteTraces(task, target.get(), deleteFiles);
    if (isPutDown) co_await endRemoval(TaskTargets::keyOf(*task));
    target.reset();
    co_await asio::this_coro::reset_cancellation_state(asio::enable_terminal_cancellation());
    if (!isTorrent || user.empty() || user != userID_ || tasks_.isStopping()) co_return;
    const bool isForgotten = co_await environment_.service.deleteResource(task->infoHash);
    if (isForgotten) co_await pendingDeletes_.remove(user, task->infoHash);
}

/// Null when another process writes there: then nothing of it is ours to delete.
asio::awaitable<std::unique_ptr<TaskTargets::Hold>> DownloadManager::takeToDelete(Task task) {
    std::unique_ptr<TaskTargets::Hold> target;
    try {
        target = co_await targets_.take(TaskTargets::keyOf(*task), TaskTargets::Purpose::remove);
    } catch (const boost::system::system_error&) {
        throw;  // the manager stops
    } catch (const std::exception& error) {
        environment_.log.warning("[Manager] the files of ", task->name(), " stay: ", textOf(error));
    }
    co_return target;
}

asio::awaitable<bool> DownloadManager::beginRemoval(Task task, bool deleteFiles) {
    auto begin = [this, key = TaskTargets::keyOf(*task),
                  removal = PendingRemovals::Removal{SavedTask::of(*task), deleteFiles}] {
        try {
            removals_.begin(key, removal);
            return true;
        } catch (const std::system_error& error) {
            environment_.log.warning("[Manager] a removal could not be put down: ", error.what());
            return false;
        }
    };
    co_return co_await runOn(environment_.disk, std::move(begin));
}

/// Forgets that it was begun, once no list has the task any more.
asio::awaitable<void> DownloadManager::endRemoval(SHA1Digest key) {
    const bool isSaved = co_await store_.saveNow();
    if (!isSaved) co_return;
    auto end = [this, key] { removals_.end(key); };
    co_await runOn(environment_.disk, std::move(end));
}

/// What a removal had not yet done when it was killed.
asio::awaitable<void> DownloadManager::finishRemoval(PendingRemovals::Removal removal) {
    const bool deletesFiles = removal.deletesFiles;
    const Task task = std::move(removal.task).restore(environment_.center, environment_.random);
    const SHA1Digest key = TaskTargets::keyOf(*task);
    const bool isAddedAgain =
        std::any_of(list_.begin(), list_.end(), [&](const Task& other) { return TaskTargets::keyOf(*other) == key; });
    if (!isAddedAgain) {
        const std::unique_ptr<TaskTargets::Hold> target = co_await takeToDelete(task);
        environment_.log.info("[Manager] the removal of ", task->name(), " is done to its end");
        if (target) co_await deleteTraces(task, target.get(), deletesFiles, true);
    }
    store_.saveTasks();
    co_await endRemoval(key);
}

asio::awaitable<void> DownloadManager::deleteTraces(Task task, const TaskTargets::Hold* target, bool deleteFiles,
                                                    bool isSecondTry) {
    const bool isTorrent = task->downloadType == DownloadType::torrent;
    if (!isTorrent && target != nullptr) co_await sessions_.clearHTTPDownload(task, target->place.folder);
    std::optional<TaskFiles> files;
    if (deleteFiles && target != nullptr) {
        FileList list = co_await filesOf(task);
        files.emplace(target->place.folder, std::move(list));
    }
    auto clear = [this, key = TaskTargets::keyOf(*task), isTorrent, files, isSecondTry] {
        auto removal = files ? files->remove(environment_.claims.claimsOf(key), isSecondTry) : TaskFiles::Removal();
        // After the files: the list of them may be in there, and a killed removal is done again from the start.
        if (isTorrent) archive_.forget(key);
        targets_.forget(key);
        environment_.claims.forget(key);
        return removal;
    };
    const TaskFiles::Removal removal = co_await runOn(environment_.disk, std::move(clear));
    report(removal, task->name());
}

void DownloadManager::report(const TaskFiles::Removal& removal, const std::string& name) {
    if (removal.failures > 0)
        environment_.log.warning("[Manager] deleting the files of ", name, " failed: ", removal.firstFailure);
}

}  // namespace skein
