#include "downloads/TaskSessions.h"

#include "public/common/Database.h"
#include "public/common/ErrorText.h"

#include <boost/asio/post.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <utility>

namespace skein {

TaskSessions::TaskSessions(const Strand& main, FileLogger& log, TaskTargets& targets, Makers makers,
                           Callbacks callbacks)
    : log_(log),
      targets_(targets),
      makers_(std::move(makers)),
      callbacks_(std::move(callbacks)),
      stopEnded_(main),
      tasks_(main) {}

std::shared_ptr<TorrentSession> TaskSessions::torrentOf(const Task& task) const {
    const auto found = running_.find(task->id);
    return found == running_.end() ? nullptr : found->second->torrent;
}

std::vector<std::shared_ptr<TorrentSession>> TaskSessions::torrents() const {
    std::vector<std::shared_ptr<TorrentSession>> torrents;
    for (const auto& [id, running] : running_)
        if (running->torrent) torrents.push_back(running->torrent);
    return torrents;
}

// --- start and stop --------------------------------------------------------------------------------------------------

std::shared_ptr<TaskSessions::Running> TaskSessions::admit(const Task& task) {
    auto running = std::make_shared<Running>();
    running_[task->id] = running;
    callbacks_.onMovement();
    return running;
}

/// Has the task's target for the session; false when it is not to start after all.
asio::awaitable<bool> TaskSessions::prepare(Task task, std::shared_ptr<Running> running, bool writes,
                                            TaskPlace wanted) {
    const SHA1Digest key = TaskTargets::keyOf(*task);
    std::string failure;
    bool isReady = false;
    try {
        if (writes) {
            running->target = co_await targets_.take(key, TaskTargets::Purpose::write, std::move(wanted));
            running->place = running->target->place;
        } else {
            running->place = co_await targets_.placeOf(key);
        }
        isReady = true;
    } catch (const boost::system::system_error&) {
        // Cancelled: everything stops.
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    running->isPreparing = false;
    stopEnded_.notify();
    if (isReady) task->folder.set(running->place.folder);
    if (running->isStopping) co_return false;
    if (failure.empty()) co_return isReady;
    running_.erase(task->id);
    callbacks_.onFailed(task, failure);
    callbacks_.onChecked(task);
    co_return false;
}

void TaskSessions::startTorrent(const Task& task, TorrentOrigin origin, bool seedsOnly) {
    if (isClosed_) return;
    tasks_.spawn(runTorrent(task, admit(task), std::move(origin), seedsOnly));
}

asio::awaitable<void> TaskSessions::runTorrent(Task task, std::shared_ptr<Running> running, TorrentOrigin origin,
                                               bool seedsOnly) {
    const bool isReady = co_await prepare(task, running, !seedsOnly, std::move(origin.place));
    if (!isReady) co_return;
    SessionWishes wishes{running->place, {}, task->accelerateEnabled(), seedsOnly};
    if (origin.torrentData && origin.magnet) wishes.linkTrackers = origin.magnet->trackers;
    // Held here too: a stopped session leaves the table before its start has returned.
    const std::shared_ptr<TorrentSession> session = makers_.torrent(TaskTargets::keyOf(*task), wishes);
    session->setCallbacks(torrentCallbacks(task, running));
    running->torrent = session;
    try {
        if (origin.torrentData) {
            co_await session->start(std::move(*origin.torrentData));
        } else {
            co_await session->startWithMagnet(std::move(*origin.magnet));
        }
    } catch (const boost::system::system_error&) {
        // Stopped while it started.
    }
    relay(task, running, [this](const Task& of) { callbacks_.onChecked(of); });
}

void TaskSessions::startHTTP(const Task& task, const std::optional<std::string>& fileName, TaskPlace place) {
    if (isClosed_) return;
    tasks_.spawn(runHTTP(task, admit(task), fileName, std::move(place)));
}

asio::awaitable<void> TaskSessions::runHTTP(Task task, std::shared_ptr<Running> running,
                                            std::optional<std::string> fileName, TaskPlace place) {
    const bool isReady = co_await prepare(task, running, true, std::move(place));
    if (!isReady) co_return;
    const std::shared_ptr<HTTPDownloadSession> session =
        makers_.http(*task->downloadURL, running->place.folder, fileName);
    session->setCallbacks(httpCallbacks(task, running));
    session->keepRecord();
    running->http = session;
    running->hasDownloaded = true;
    co_await session->setDownloadLimit(makers_.httpDownloadLimit);
    co_await session->start();
}

asio::awaitable<void> TaskSessions::clearHTTPDownload(Task task, std::filesystem::path folder) {
    if (!task->downloadURL) co_return;
    const std::shared_ptr<HTTPDownloadSession> session = makers_.http(*task->downloadURL, folder, std::nullopt);
    co_await session->clearResumeData();
    co_await session->stop();
}

/// Set while one stops the session, however that ends.
class TaskSessions::StopMark {
public:
    StopMark(TaskSessions& sessions, std::shared_ptr<Running> running)
        : sessions_(sessions), running_(std::move(running)) {
        running_->isStopping = true;
    }
    StopMark(const StopMark&) = delete;
    StopMark& operator=(const StopMark&) = delete;
    ~StopMark() {
        running_->isStopping = false;
        sessions_.stopEnded_.notify();
    }

private:
    TaskSessions& sessions_;
    const std::shared_ptr<Running> running_;
};

asio::awaitable<void> TaskSessions::stopSession(Task task) {
    const auto found = running_.find(task->id);
    if (found == running_.end()) co_return;
    const std::shared_ptr<Running> running = found->second;
    while (running->isStopping) co_await stopEnded_.wait();
    const auto mine = running_.find(task->id);
    if (mine == running_.end() || mine->second != running) co_return;
    const StopMark mark(*this, running);
    while (running->isPreparing) co_await stopEnded_.wait();
    if (running->torrent) {
        co_await callbacks_.beforeStop(running->torrent);
        co_await running->torrent->stop();
        co_await callbacks_.afterStop(running->torrent);
    } else if (running->http) {
        co_await running->http->stop();
        if (running->isSaved) co_await running->http->clearResumeData();
    }
    running->target.reset();
    running_.erase(task->id);
    callbacks_.onMovement();
}

asio::awaitable<void> TaskSessions::dropSession(Task task) { co_await stopSession(std::move(task)); }

/// Its resume data goes once the list says that it is complete: killed in between, a new session finds it finished.
asio::awaitable<void> TaskSessions::dropCompleted(Task task, std::shared_ptr<Running> running) {
    try {
        if (running->target) co_await targets_.claimWebFile(*running->target, task->name());
    } catch (const DatabaseException& error) {
        // It stays on disk when the task is removed with its files: that is the safe side.
        log_.warning("[Manager] ", task->name(), " could not be put down as ours: ", error.what());
    }
    running->isSaved = co_await callbacks_.whenSaved();
    co_await stopSession(std::move(task));
}

// --- what sessions report --------------------------------------------------------------------------------------------

template <class Apply>
void TaskSessions::relay(const std::weak_ptr<TorrentTask>& task, const std::weak_ptr<Running>& running, Apply apply) {
    // The manager stops its sessions before it goes, and what they posted comes before their end.
    asio::post(tasks_.strand(), [this, task, running, apply = std::move(apply)] {
        const Task held = task.lock();
        const auto current = running.lock();
        if (!held || !current) return;
        const auto found = running_.find(held->id);
        if (found != running_.end() && found->second == current) apply(held);
    });
}

TorrentSession::Callbacks TaskSessions::torrentCallbacks(const Task& task, const std::shared_ptr<Running>& running) {
    const std::weak_ptr<TorrentTask> weakTask = task;
    const std::weak_ptr<Running> weak = running;
    TorrentSession::Callbacks callbacks;
    callbacks.onStateChanged = [this, weakTask, weak](const TorrentSession::State& state) {
        relay(weakTask, weak, [this, state](const Task& of) { applyState(of, state); });
    };
    callbacks.onProgressUpdated = [this, weakTask, weak](const TorrentSession::Progress& progress) {
        relay(weakTask, weak, [this, progress](const Task& of) { applyProgress(of, progress); });
    };
    callbacks.onMetadataReceived = [this, weakTask, weak](const TorrentMetaInfo& metaInfo) {
        relay(weakTask, weak, [this, metaInfo](const Task& of) {
            log_.info("[Manager] ✅ Metadata received: ", metaInfo.name, ", ", metaInfo.files.size(), " files");
            applyMetadata(*of, metaInfo);
            callbacks_.onDurableChange();
        });
    };
    callbacks.onStatusMessage = [this, weakTask, weak](const std::string& text) {
        relay(weakTask, weak, [text](const Task& of) { of->statusMessage.set(text); });
    };
    callbacks.onVerifyProgress = [this, weakTask, weak](int checked, int total) {
        relay(weakTask, weak, [checked, total](const Task& of) {
            const auto batch = of->batch();
            of->statusMessage.set("Verifying files...");
            of->verifyProgress.set(total == 0 ? 1 : static_cast<double>(checked) / total);
        });
    };
    callbacks.onPeerDetailsUpdated = [this, weakTask, weak](const std::vector<PeerRuntimeInfo>& rows) {
        relay(weakTask, weak, [rows](const Task& of) {
            const auto batch = of->batch();
            of->peerCount.set(
                std::count_if(rows.begin(), rows.end(), [](const PeerRuntimeInfo& row) { return row.isConnected; }));
            of->peerDetailStore.replace(rows);
        });
    };
    callbacks.onTrackerDetailsUpdated = [this, weakTask, weak](const std::vector<TrackerRuntimeInfo>& rows) {
        relay(weakTask, weak, [rows](const Task& of) { of->trackerDetails.set(rows); });
    };
    callbacks.onStallChanged = [this, weakTask, weak](const std::optional<StallReason>& reason) {
        relay(weakTask, weak, [reason](const Task& of) { of->stallReason.set(reason); });
    };
    return callbacks;
}

void TaskSessions::applyProgress(const Task& task, const TorrentSession::Progress& progress) {
    const auto batch = task->batch();
    task->progress.set(progress.fraction);
    task->downloadedBytes.set(progress.completedBytes);
    task->downloadSpeed.set(progress.downloadRate);
    task->uploadSpeed.set(progress.uploadRate);
    Running& running = *running_.at(task->id);
    const TorrentSession::Progress before = std::exchange(running.reported, progress);
    // What sessions before this one left unconfirmed stands in the task already.
    const auto move = [](auto& value, std::int64_t from, std::int64_t to) {
        if (from != to) value.set(std::max<std::int64_t>(value() + to - from, 0));
    };
    task->uploadedBytes.set(task->uploadedBytes() + progress.uploadedBytes - before.uploadedBytes);
    const BytesBySource& was = before.receivedBySource;
    const BytesBySource& is = progress.receivedBySource;
    move(task->dlBytesFromPlatformPeers, was.platform, is.platform);
    move(task->dlBytesFromPublicBT, was.publicBT, is.publicBT);
    move(task->dlBytesFromRelay, was.relay, is.relay);
    move(task->uncommittedDlBytesFromPlatformPeers, before.uncommitted.platform, progress.uncommitted.platform);
    move(task->uncommittedDlBytesFromPublicBT, before.uncommitted.publicBT, progress.uncommitted.publicBT);
    move(task->uncommittedDlBytesFromRelay, before.uncommitted.relay, progress.uncommitted.relay);
    task->uncommittedUploadedBytes += progress.uncommittedUpload - before.uncommittedUpload;
    callbacks_.onMovement();
}

void TaskSessions::applyState(const Task& task, const TorrentSession::State& state) {
    using Kind = TorrentSession::State::Kind;
    Running& running = *running_.at(task->id);
    switch (state.kind) {
        case Kind::idle:
        case Kind::paused: break;
        case Kind::fetchingMetadata:
            running.hasDownloaded = true;
            task->status.set(TaskStatus::fetchingMetadata);
            break;
        case Kind::downloading:
            running.hasDownloaded = true;
            task->status.set(TaskStatus::downloading);
            break;
        case Kind::completed: callbacks_.onCompleted(task, running.hasDownloaded); break;
        case Kind::seeding: task->status.set(TaskStatus::seeding); break;
        case Kind::error:
            callbacks_.onFailed(task, state.message);
            tasks_.spawn(dropSession(task));
            break;
    }
    if (state.kind == Kind::fetchingMetadata) return;
    callbacks_.onChecked(task);
}

HTTPDownloadSession::Callbacks TaskSessions::httpCallbacks(const Task& task, const std::shared_ptr<Running>& running) {
    const std::weak_ptr<TorrentTask> weakTask = task;
    const std::weak_ptr<Running> weak = running;
    HTTPDownloadSession::Callbacks callbacks;
    callbacks.onStateChanged = [this, weakTask, weak](const HTTPDownloadSession::State& state) {
        relay(weakTask, weak, [this, state](const Task& of) { applyHTTPState(of, state); });
    };
    callbacks.onProgressUpdated = [this, weakTask, weak](double fraction, std::int64_t downloaded, std::int64_t total,
                                                         double bytesPerSecond) {
        relay(weakTask, weak, [this, fraction, downloaded, total, bytesPerSecond](const Task& of) {
            const auto batch = of->batch();
            of->progress.set(fraction);
            of->downloadedBytes.set(downloaded);
            if (total >= 0) of->totalSize.set(total);
            of->downloadSpeed.set(static_cast<std::int64_t>(bytesPerSecond));
            callbacks_.onMovement();
        });
    };
    callbacks.onFileInfoReceived = [this, weakTask, weak](const std::string& fileName, std::int64_t total) {
        relay(weakTask, weak, [this, fileName, total](const Task& of) {
            const auto batch = of->batch();
            const std::int64_t size = std::max<std::int64_t>(total, 0);
            of->name.set(fileName);
            of->totalSize.set(size);
            of->files.set(FileList::Files{TorrentFileInfo{fileName, size, 0}});
            callbacks_.onDurableChange();
        });
    };
    callbacks.onStatusMessage = [this, weakTask, weak](const std::string& text) {
        relay(weakTask, weak, [text](const Task& of) { of->statusMessage.set(text); });
    };
    return callbacks;
}

void TaskSessions::applyHTTPState(const Task& task, const HTTPDownloadSession::State& state) {
    using Kind = HTTPDownloadSession::State::Kind;
    StallFacts facts;
    facts.waitsToRetry = state.kind == Kind::connecting && task->downloadedBytes() > 0;
    task->stallReason.set(facts.waitsToRetry ? stallReasonOf(facts) : std::nullopt);
    switch (state.kind) {
        case Kind::idle:
        case Kind::paused: break;
        case Kind::connecting:
        case Kind::downloading: task->status.set(TaskStatus::downloading); break;
        case Kind::completed: {
            const auto batch = task->batch();
            callbacks_.onCompleted(task, true);
            task->downloadSpeed.set(0);
            tasks_.spawn(dropCompleted(task, running_.at(task->id)));
            break;
        }
        case Kind::failed:
            callbacks_.onFailed(task, state.message);
            tasks_.spawn(dropSession(task));
            break;
    }
}

void TaskSessions::applyMetadata(TorrentTask& task, const TorrentMetaInfo& metaInfo) {
    const auto batch = task.batch();
    task.name.set(metaInfo.name);
    task.files.set(metaInfo.files);
    task.totalSize.set(metaInfo.totalSize);
    task.pieceLength.set(metaInfo.pieceLength);
    task.pieceCount.set(metaInfo.pieceCount());
    task.comment.set(metaInfo.comment);
    task.creationDate.set(metaInfo.creationDate);
    task.isPrivate.set(metaInfo.isPrivate);
    if (!metaInfo.announceList.empty()) task.trackers.set(metaInfo.announceList);
}

}  // namespace skein
