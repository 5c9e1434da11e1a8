#include "downloads/DownloadManager.h"

#include "Core/engine/TorrentFile.h"
#include "Core/formats/MagnetParser.h"
#include "Core/formats/TorrentParser.h"
#include "downloads/SavedTask.h"
#include "downloads/TaskListChanged.h"
#include "public/common/RunOn.h"

#include <boost/url/parse.hpp>

#include <algorithm>
#include <stdexcept>

namespace skein {

namespace {

constexpr std::chrono::seconds speedInterval{1};

bool isHTTPURL(const std::string& text) {
    const auto url = boost::urls::parse_uri(text);
    if (!url || url->host().empty()) return false;
    return url->scheme_id() == boost::urls::scheme::http || url->scheme_id() == boost::urls::scheme::https;
}

SHA1Digest digestOf(const std::string& infoHash) {
    SHA1Digest digest{};
    const auto bytes = fromHex(infoHash);
    if (bytes && bytes->size() == digest.size()) std::copy(bytes->begin(), bytes->end(), digest.begin());
    return digest;
}

}  // namespace

DownloadManager::DownloadManager(Environment environment)
    : environment_(std::move(environment)),
      archive_(environment_.home),
      pendingDeletes_(environment_.settings, environment_.log),
      tasks_(environment_.io),
      commandEnded_(tasks_.strand()),
      wake_(tasks_.strand()),
      store_(tasks_.strand(), environment_.disk, environment_.clock, environment_.log, environment_.home,
             [this] { return snapshot(); }),
      memoryMonitor_(tasks_.strand(), environment_.disk, environment_.clock, environment_.memoryLimitMB,
                     [this](const std::string& footprint) { tasks_.spawn(shed(footprint)); }) {}

DownloadManager::~DownloadManager() = default;

// --- life ------------------------------------------------------------------------------------------------------------

asio::awaitable<void> DownloadManager::start() { return tasks_.call(load()); }

asio::awaitable<void> DownloadManager::load() {
    for (SavedTask& saved : co_await store_.loadSavedTasks()) {
        list_.push_back(std::move(saved).restore(environment_.center, environment_.random));
        if (list_.back()->status() == TaskStatus::paused) rest(list_.back(), TaskStatus::paused);
    }
    auto makeFolder = [this] {
        std::error_code error;  // told with the first download that cannot be written
        std::filesystem::create_directories(environment_.downloadsDirectory, error);
    };
    co_await runOn(environment_.disk, std::move(makeFolder));
    tasks_.spawn(speedLoop());
    tasks_.spawn(flushPendingDeletes());
}

asio::awaitable<void> DownloadManager::stop() {
    // Not a task of the group that it stops, and not given up half way.
    return asio::co_spawn(tasks_.strand(), shutDown(),
                          asio::bind_cancellation_slot(asio::cancellation_slot(), asio::use_awaitable));
}

asio::awaitable<void> DownloadManager::shutDown() {
    co_await stopAll();
    co_await tasks_.stop();
    co_await memoryMonitor_.stop();
    co_await store_.stop();
}

/// Side by side: each session may wait some seconds for its trackers.
asio::awaitable<void> DownloadManager::stopAll() {
    std::vector<Task> running;
    for (const Task& task : list_)
        if (sessions_.contains(task->id)) running.push_back(task);
    TaskGroup stopping(tasks_.strand());
    std::size_t left = running.size();
    for (const Task& task : running) stopping.spawn(stopCounted(task, left));
    while (left > 0) co_await commandEnded_.wait();
    co_await stopping.stop();
}

asio::awaitable<void> DownloadManager::stopCounted(Task task, std::size_t& left) {
    co_await stopSession(task);
    --left;
    commandEnded_.notify();
}

std::vector<SavedTask> DownloadManager::snapshot() const {
    std::vector<SavedTask> saved;
    saved.reserve(list_.size());
    for (const Task& task : list_) saved.push_back(SavedTask::of(*task));
    return saved;
}

// --- adding ----------------------------------------------------------------------------------------------------------

DownloadManager::Task DownloadManager::find(const std::string& infoHash) const {
    const auto found =
        std::find_if(list_.begin(), list_.end(), [&](const Task& task) { return task->infoHash == infoHash; });
    return found == list_.end() ? nullptr : *found;
}

DownloadManager::Task DownloadManager::makeTask(TaskIdentity identity, std::string name, TaskStatus status) {
    identity.id = UUID::random(environment_.random);
    auto task = std::make_shared<TorrentTask>(environment_.center, std::move(identity));
    task->name.set(std::move(name));
    task->status.set(status);
    task->addedDate.set(environment_.clock.wallNow());
    if (std::string user = environment_.service.signedInUserID(); !user.empty()) task->ownerUserID.set(std::move(user));
    return task;
}

void DownloadManager::append(const Task& task) {
    list_.push_back(task);
    environment_.center.publish(TaskListChanged{TaskListChanged::Kind::added, task->id, task->infoHash});
    store_.saveTasks();
}

DownloadManager::Task DownloadManager::addMagnet(const std::string& text) {
    MagnetLink magnet = MagnetParser::parse(text);
    if (Task known = find(magnet.infoHashHex)) return known;
    TaskIdentity identity;
    identity.infoHash = magnet.infoHashHex;
    identity.magnetURI = text;
    const Task task =
        makeTask(std::move(identity), magnet.displayName.value_or("Fetching..."), TaskStatus::fetchingMetadata);
    for (const std::string& tracker : magnet.trackers) {
        auto tiers = task->trackers();
        tiers.push_back({tracker});
        task->trackers.set(std::move(tiers));
    }
    append(task);
    startTorrent(task, {std::nullopt, std::move(magnet)});
    return task;
}

asio::awaitable<DownloadManager::Task> DownloadManager::addTorrentFile(Bytes torrentData) {
    return tasks_.call(addParsed(std::move(torrentData)));
}

asio::awaitable<DownloadManager::Task> DownloadManager::addParsed(Bytes torrentData) {
    auto parse = [&] {
        if (const auto fault = TorrentFile::faultOf(torrentData)) throw std::runtime_error(*fault);
        return TorrentParser::parse(torrentData);
    };
    const TorrentMetaInfo metaInfo = co_await runOn(environment_.disk, std::move(parse));
    if (Task known = find(metaInfo.infoHashHex)) co_return known;
    TaskIdentity identity;
    identity.infoHash = metaInfo.infoHashHex;
    const Task task = makeTask(std::move(identity), metaInfo.name, TaskStatus::downloading);
    applyMetadata(task, metaInfo);
    append(task);
    Origin origin;
    origin.torrentData = std::move(torrentData);
    startTorrent(task, std::move(origin));
    co_return task;
}

DownloadManager::Task DownloadManager::addHTTPDownload(const std::string& text) {
    constexpr std::string_view blanks = " \t\r\n";
    std::string url = text;
    url.erase(0, std::min(url.find_first_not_of(blanks), url.size()));
    url.erase(url.find_last_not_of(blanks) + 1);
    TaskIdentity identity;
    identity.downloadType = DownloadType::http;
    if (!isHTTPURL(url)) {
        identity.infoHash = "http_" + UUID::random(environment_.random).text();
        const Task task = makeTask(std::move(identity), url, TaskStatus::error);
        task->errorMessage.set("Invalid URL");
        append(task);
        return task;
    }
    const auto known =
        std::find_if(list_.begin(), list_.end(), [&](const Task& task) { return task->downloadURL == url; });
    if (known != list_.end()) return *known;
    // Unique among the tasks that there are; saved with the task and never worked out again.
    std::size_t key = std::hash<std::string>{}(url);
    while (find("http_" + std::to_string(key))) ++key;
    identity.infoHash = "http_" + std::to_string(key);
    identity.downloadURL = url;
    std::string name = HTTPDownloadSession::deriveFileName(url, environment_.random);
    const Task task = makeTask(std::move(identity), std::move(name), TaskStatus::downloading);
    append(task);
    startHTTP(task, std::nullopt);
    return task;
}

// --- commands --------------------------------------------------------------------------------------------------------

/// Runs the command to its end, whether or not the caller waits for it. While one runs, others for its task do nothing.
asio::awaitable<void> DownloadManager::perform(Task task, asio::awaitable<void> command) {
    if (!busy_.insert(task->id).second) co_return;
    const auto hasEnded = std::make_shared<bool>(false);
    tasks_.spawn(performTracked(task, std::move(command), hasEnded));
    while (!*hasEnded && !tasks_.isStopping()) co_await commandEnded_.wait();
}

asio::awaitable<void> DownloadManager::performTracked(Task task, asio::awaitable<void> command,
                                                      std::shared_ptr<bool> hasEnded) {
    std::string failure;
    try {
        co_await std::move(command);
    } catch (const boost::system::system_error&) {
        // Cancelled: the manager stops.
    } catch (const std::exception& error) {
        failure = error.what();
    }
    if (!failure.empty()) fail(task, failure);
    task->isControlOperationInProgress.set(false);
    task->controlOperationMessage.set(std::nullopt);
    task->isVerifying.set(false);
    busy_.erase(task->id);
    *hasEnded = true;
    commandEnded_.notify();
}

asio::awaitable<void> DownloadManager::pauseTask(Task task) { return perform(task, pause(task)); }
asio::awaitable<void> DownloadManager::resumeTask(Task task) { return perform(task, resume(task)); }
asio::awaitable<void> DownloadManager::recheckTask(Task task) { return perform(task, recheck(task)); }
asio::awaitable<void> DownloadManager::redownloadTask(Task task) { return perform(task, redownload(task)); }
asio::awaitable<void> DownloadManager::removeTask(Task task, bool deleteFiles) {
    // Unlike the others a removal is not forgotten because another command runs.
    while (busy_.contains(task->id)) co_await commandEnded_.wait();
    co_await perform(task, remove(task, deleteFiles));
}
asio::awaitable<void> DownloadManager::shedAllSessionsPeers(std::string reason) {
    return tasks_.call(shed(std::move(reason)));
}

asio::awaitable<void> DownloadManager::pause(Task task) {
    task->isControlOperationInProgress.set(true);
    task->controlOperationMessage.set("正在暂停，请稍候…");
    co_await stopSession(task);
    rest(task, TaskStatus::paused);
    store_.saveTasks();
}

asio::awaitable<void> DownloadManager::resume(Task task) {
    if (sessions_.contains(task->id)) co_return;
    task->isControlOperationInProgress.set(true);
    task->controlOperationMessage.set("正在继续，请稍候…");
    task->errorMessage.set(std::nullopt);
    co_await rebuild(task, "Cannot resume: ");
    store_.saveTasks();
}

/// Starts a fresh session from what is known of the task; `missing` begins the message when that is not enough.
asio::awaitable<void> DownloadManager::rebuild(Task task, std::string missing) {
    task->stallReason.set(std::nullopt);
    if (task->downloadType == DownloadType::http) {
        if (!task->downloadURL) co_return fail(task, missing + "download URL missing");
        environment_.log.info("[Manager] Rebuilding HTTP session for ", task->name());
        task->status.set(TaskStatus::downloading);
        // A file that was named before keeps its name.
        co_return startHTTP(task, task->files().empty() ? std::nullopt : std::optional(task->name()));
    }
    Origin origin = co_await originOf(task);
    if (!origin.torrentData && !task->magnetURI) co_return fail(task, missing + "magnet link missing");
    if (!origin.torrentData && !origin.magnet) co_return fail(task, "Failed to parse magnet link");
    environment_.log.info("[Manager] Rebuilding session for ", task->name());
    task->status.set(origin.torrentData ? TaskStatus::downloading : TaskStatus::fetchingMetadata);
    startTorrent(task, std::move(origin));
}

asio::awaitable<DownloadManager::Origin> DownloadManager::originOf(Task task) {
    Origin origin;
    auto read = [this, infoHash = digestOf(task->infoHash), name = task->name()] {
        return archive_.torrent(infoHash, environment_.downloadsDirectory, name);
    };
    origin.torrentData = co_await runOn(environment_.disk, std::move(read));
    if (!task->magnetURI) co_return origin;
    try {
        origin.magnet = MagnetParser::parse(*task->magnetURI);
    } catch (const MagnetParseException&) {
        // Without the link, the .torrent alone has to do.
    }
    co_return origin;
}

/// Hashes everything, whatever a resume record says.
asio::awaitable<void> DownloadManager::recheck(Task task) {
    if (task->downloadType != DownloadType::torrent) co_return;
    Origin origin = co_await originOf(task);
    if (!origin.torrentData && !origin.magnet) {
        task->errorMessage.set("Cannot verify: magnet link missing");
        co_return;
    }
    task->isVerifying.set(true);
    task->statusMessage.set("Verifying files...");
    task->errorMessage.set(std::nullopt);
    co_await stopSession(task);
    auto forget = [this, infoHash = digestOf(task->infoHash)] { archive_.forgetResumeRecord(infoHash); };
    co_await runOn(environment_.disk, std::move(forget));
    task->status.set(origin.torrentData ? TaskStatus::downloading : TaskStatus::fetchingMetadata);
    startTorrent(task, std::move(origin));
    // The state that follows the check ends it.
    while (sessions_.contains(task->id) && task->isVerifying()) co_await commandEnded_.wait();
}

asio::awaitable<void> DownloadManager::redownload(Task task) {
    co_await stopSession(task);
    if (task->downloadType == DownloadType::http) co_await clearHTTPDownload(task);
    const TaskFiles files = task->filesIn(environment_.downloadsDirectory);
    auto clear = [this, files, infoHash = digestOf(task->infoHash)] {
        archive_.forgetResumeRecord(infoHash);
        return files.remove();
    };
    const TaskFiles::Removal removal = co_await runOn(environment_.disk, std::move(clear));
    if (removal.failures > 0)
        environment_.log.warning("[Manager] deleting the files of ", task->name(), " failed: ", removal.firstFailure);
    {
        const auto batch = task->batch();
        task->progress.set(0);
        task->downloadedBytes.set(0);
        task->pieceBitmap.set({});
        task->errorMessage.set(std::nullopt);
    }
    co_await rebuild(task, "Cannot redownload: ");
    store_.saveTasks();
}

asio::awaitable<void> DownloadManager::remove(Task task, bool deleteFiles) {
    const bool isTorrent = task->downloadType == DownloadType::torrent;
    const std::string user = environment_.service.signedInUserID();
    // First, so that the service forgets the torrent even if we die now.
    if (isTorrent) co_await pendingDeletes_.add(user, task->infoHash);
    co_await stopSession(task);
    std::erase(list_, task);
    environment_.center.publish(TaskListChanged{TaskListChanged::Kind::removed, task->id, task->infoHash});
    store_.saveTasks();
    if (!isTorrent) co_await clearHTTPDownload(task);
    const TaskFiles files = task->filesIn(environment_.downloadsDirectory);
    auto clear = [this, files, isTorrent, deleteFiles, infoHash = digestOf(task->infoHash)] {
        if (isTorrent) archive_.forget(infoHash);
        return deleteFiles ? files.remove() : TaskFiles::Removal();
    };
    const TaskFiles::Removal removal = co_await runOn(environment_.disk, std::move(clear));
    if (removal.failures > 0)
        environment_.log.warning("[Manager] deleting the files of ", task->name(), " failed: ", removal.firstFailure);
    if (!isTorrent) co_return;
    const bool isForgotten = co_await environment_.service.deleteResource(task->infoHash);
    if (isForgotten) co_await pendingDeletes_.remove(user, task->infoHash);
}

asio::awaitable<void> DownloadManager::flushPendingDeletes() {
    const std::string user = environment_.service.signedInUserID();
    const std::set<std::string> hashes = co_await pendingDeletes_.all(user);
    if (hashes.empty()) co_return;
    environment_.log.info("[Manager] flushPendingDeletes: ", hashes.size(), " item(s)");
    for (const std::string& infoHash : hashes) {
        const bool isForgotten = co_await environment_.service.deleteResource(infoHash);
        if (isForgotten) co_await pendingDeletes_.remove(user, infoHash);
    }
}

void DownloadManager::setAccelerate(const Task& task, bool isEnabled) {
    environment_.log.info("[Accelerate] task=", task->name(), " accelerate=", isEnabled ? "true" : "false");
    task->accelerateEnabled.set(isEnabled);
    store_.saveTasks();
}

void DownloadManager::setCategory(const Task& task, ResearchCategory category) {
    task->category.set(category);
    store_.saveTasks();
}

void DownloadManager::setNotes(const Task& task, std::string notes) {
    task->notes.set(std::move(notes));
    store_.saveTasks();
}

asio::awaitable<void> DownloadManager::shed(std::string reason) {
    constexpr std::size_t keepAtMost = 10;
    environment_.log.info("[Manager] memory shed triggered by ", reason);
    std::vector<std::shared_ptr<TorrentSession>> sessions;
    for (const auto& [id, running] : sessions_)
        if (running->torrent) sessions.push_back(running->torrent);
    for (const auto& session : sessions) {
        try {
            co_await session->shedPeers(keepAtMost);
        } catch (const boost::system::system_error&) {
            // It stops already, which frees more.
        }
    }
}

// --- sessions --------------------------------------------------------------------------------------------------------

void DownloadManager::startTorrent(const Task& task, Origin origin) {
    std::vector<std::string> extraTrackers;
    if (origin.torrentData && origin.magnet) extraTrackers = origin.magnet->trackers;
    const auto running = std::make_shared<Running>();
    running->torrent = environment_.makeTorrentSession(digestOf(task->infoHash), extraTrackers);
    running->torrent->setCallbacks(torrentCallbacks(task, running));
    sessions_[task->id] = running;
    noteSessions();
    tasks_.spawn(runTorrent(task, running, std::move(origin)));
}

asio::awaitable<void> DownloadManager::runTorrent(Task task, std::shared_ptr<Running> running, Origin origin) {
    // Held here too: a stopped session leaves the table before its start has returned.
    const std::shared_ptr<TorrentSession> session = running->torrent;
    try {
        if (origin.torrentData) {
            co_await session->start(std::move(*origin.torrentData));
        } else {
            co_await session->startWithMagnet(std::move(*origin.magnet));
        }
    } catch (const boost::system::system_error&) {
        // Stopped while it started.
    }
    relay(task, running, [this](const Task& ended) {
        ended->isVerifying.set(false);
        commandEnded_.notify();
    });
}

void DownloadManager::startHTTP(const Task& task, std::optional<std::string> fileName) {
    const auto running = std::make_shared<Running>();
    running->http = environment_.makeHTTPSession(*task->downloadURL, fileName);
    running->http->setCallbacks(httpCallbacks(task, running));
    running->hasDownloaded = true;
    sessions_[task->id] = running;
    noteSessions();
    tasks_.spawn(runHTTP(running));
}

asio::awaitable<void> DownloadManager::runHTTP(std::shared_ptr<Running> running) {
    const std::shared_ptr<HTTPDownloadSession> session = running->http;
    co_await session->start();
}

/// Deletes what an unfinished download left, which the session alone knows.
asio::awaitable<void> DownloadManager::clearHTTPDownload(Task task) {
    if (!task->downloadURL) co_return;
    const std::shared_ptr<HTTPDownloadSession> session = environment_.makeHTTPSession(*task->downloadURL, std::nullopt);
    co_await session->clearResumeData();
    co_await session->stop();
}

/// Reports the last bytes, then returns when nothing of the session runs any more.
asio::awaitable<void> DownloadManager::stopSession(Task task) {
    const auto found = sessions_.find(task->id);
    if (found == sessions_.end()) co_return;
    const std::shared_ptr<Running> running = found->second;
    if (running->torrent) {
        co_await environment_.service.flushFinalHeartbeat(*task, *running->torrent);
        co_await running->torrent->stop();
    } else {
        co_await running->http->stop();
    }
    sessions_.erase(task->id);
    noteSessions();
}

void DownloadManager::noteSessions() {
    memoryMonitor_.setRunningSessions(sessions_.size());
    wake_.notify();
}

asio::awaitable<void> DownloadManager::dropSession(Task task) {
    co_await stopSession(task);
    updateGlobalSpeed();
}

void DownloadManager::fail(const Task& task, const std::string& message) {
    const auto batch = task->batch();
    rest(task, TaskStatus::error);
    task->errorMessage.set(message);
    store_.saveTasks();
}

/// The figures of a task that moves nothing.
void DownloadManager::rest(const Task& task, TaskStatus status) {
    const auto batch = task->batch();
    task->status.set(status);
    task->downloadSpeed.set(0);
    task->uploadSpeed.set(0);
    task->peerCount.set(0);
    task->peerDetailStore.replace({});
    task->statusMessage.set(std::nullopt);
    StallFacts facts;
    facts.isPaused = status == TaskStatus::paused;
    task->stallReason.set(facts.isPaused ? std::optional(stallReasonOf(facts)->sentence()) : std::nullopt);
}

void DownloadManager::complete(const Task& task, bool hasDownloaded) {
    task->markCompleted();
    task->stallReason.set(std::nullopt);
    store_.saveTasks();
    if (!hasDownloaded) return;
    environment_.center.publish(DownloadCompleted{task->id, task->name()});
    environment_.notifier.sendCompletionNotification(task->name());
}

// --- what sessions report --------------------------------------------------------------------------------------------

template <class Apply>
void DownloadManager::relay(const std::weak_ptr<TorrentTask>& task, const std::weak_ptr<Running>& running,
                            Apply apply) {
    // The manager stops its sessions before it goes, and what they posted comes before their end.
    asio::post(tasks_.strand(), [this, task, running, apply = std::move(apply)] {
        const Task held = task.lock();
        const auto current = running.lock();
        if (!held || !current) return;
        const auto found = sessions_.find(held->id);
        if (found != sessions_.end() && found->second == current) apply(held);
    });
}

TorrentSession::Callbacks DownloadManager::torrentCallbacks(const Task& task, const std::shared_ptr<Running>& running) {
    const std::weak_ptr<TorrentTask> weakTask = task;
    const std::weak_ptr<Running> weak = running;
    TorrentSession::Callbacks callbacks;
    callbacks.onStateChanged = [this, weakTask, weak](const TorrentSession::State& state) {
        relay(weakTask, weak, [this, state](const Task& of) { applyState(of, state); });
    };
    callbacks.onProgressUpdated = [this, weakTask, weak](const TorrentSession::Progress& progress) {
        relay(weakTask, weak, [this, progress](const Task& of) {
            const auto batch = of->batch();
            of->progress.set(progress.fraction);
            of->downloadedBytes.set(progress.completedBytes);
            of->downloadSpeed.set(progress.downloadRate);
            of->uploadSpeed.set(progress.uploadRate);
            wake_.notify();
        });
    };
    callbacks.onMetadataReceived = [this, weakTask, weak](const TorrentMetaInfo& metaInfo) {
        relay(weakTask, weak, [this, metaInfo](const Task& of) {
            environment_.log.info("[Manager] ✅ Metadata received: ", metaInfo.name, ", ", metaInfo.files.size(),
                                  " files");
            applyMetadata(of, metaInfo);
            store_.saveTasks();
        });
    };
    callbacks.onStatusMessage = [this, weakTask, weak](const std::string& text) {
        relay(weakTask, weak, [text](const Task& of) { of->statusMessage.set(text); });
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
        relay(weakTask, weak, [reason](const Task& of) {
            of->stallReason.set(reason ? std::optional(reason->sentence()) : std::nullopt);
        });
    };
    return callbacks;
}

void DownloadManager::applyState(const Task& task, const TorrentSession::State& state) {
    using Kind = TorrentSession::State::Kind;
    Running& running = *sessions_.at(task->id);
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
        case Kind::completed: complete(task, running.hasDownloaded); break;
        case Kind::seeding: task->status.set(TaskStatus::seeding); break;
        case Kind::error:
            fail(task, state.message);
            tasks_.spawn(dropSession(task));
            break;
    }
    if (state.kind == Kind::fetchingMetadata) return;
    task->isVerifying.set(false);
    commandEnded_.notify();
}

HTTPDownloadSession::Callbacks DownloadManager::httpCallbacks(const Task& task,
                                                              const std::shared_ptr<Running>& running) {
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
            wake_.notify();
        });
    };
    callbacks.onFileInfoReceived = [this, weakTask, weak](const std::string& fileName, std::int64_t total) {
        relay(weakTask, weak, [this, fileName, total](const Task& of) {
            const auto batch = of->batch();
            const std::int64_t size = std::max<std::int64_t>(total, 0);
            of->name.set(fileName);
            of->totalSize.set(size);
            of->files.set(FileList::Files{TorrentFileInfo{fileName, size, 0}});
            store_.saveTasks();
        });
    };
    callbacks.onStatusMessage = [this, weakTask, weak](const std::string& text) {
        relay(weakTask, weak, [text](const Task& of) { of->statusMessage.set(text); });
    };
    return callbacks;
}

void DownloadManager::applyHTTPState(const Task& task, const HTTPDownloadSession::State& state) {
    using Kind = HTTPDownloadSession::State::Kind;
    StallFacts facts;
    facts.waitsToRetry = state.kind == Kind::connecting && task->downloadedBytes() > 0;
    task->stallReason.set(facts.waitsToRetry ? std::optional(stallReasonOf(facts)->sentence()) : std::nullopt);
    switch (state.kind) {
        case Kind::idle:
        case Kind::paused: break;
        case Kind::connecting:
        case Kind::downloading: task->status.set(TaskStatus::downloading); break;
        case Kind::completed: {
            const auto batch = task->batch();
            complete(task, true);
            task->downloadSpeed.set(0);
            tasks_.spawn(dropSession(task));
            break;
        }
        case Kind::failed:
            fail(task, state.message);
            tasks_.spawn(dropSession(task));
            break;
    }
}

void DownloadManager::applyMetadata(const Task& task, const TorrentMetaInfo& metaInfo) {
    const auto batch = task->batch();
    task->name.set(metaInfo.name);
    task->files.set(metaInfo.files);
    task->totalSize.set(metaInfo.totalSize);
    task->pieceLength.set(metaInfo.pieceLength);
    task->pieceCount.set(metaInfo.pieceCount());
    task->comment.set(metaInfo.comment);
    task->creationDate.set(metaInfo.creationDate);
    if (!metaInfo.announceList.empty()) task->trackers.set(metaInfo.announceList);
}

// --- the speed timer -------------------------------------------------------------------------------------------------

/// A list that nothing happens to wakes nobody up.
asio::awaitable<void> DownloadManager::speedLoop() {
    for (;;) {
        while (!isAnythingMoving()) co_await wake_.wait();
        co_await environment_.clock.sleep(speedInterval);
        updateGlobalSpeed();
        co_await updatePieceBitmaps();
    }
}

bool DownloadManager::isAnythingMoving() const {
    if (globalDownloadSpeed_ > 0 || globalUploadSpeed_ > 0) return true;
    return std::any_of(list_.begin(), list_.end(), [&](const Task& task) {
        return sessions_.contains(task->id) && (!task->isFinished() || task->uploadSpeed() > 0);
    });
}

void DownloadManager::updateGlobalSpeed() {
    globalDownloadSpeed_ = 0;
    globalUploadSpeed_ = 0;
    for (const Task& task : list_) {
        globalDownloadSpeed_ += task->downloadSpeed();
        globalUploadSpeed_ += task->uploadSpeed();
    }
}

asio::awaitable<void> DownloadManager::updatePieceBitmaps() {
    std::vector<std::pair<Task, std::shared_ptr<Running>>> running;
    for (const Task& task : list_) {
        const auto found = sessions_.find(task->id);
        if (found != sessions_.end() && found->second->torrent && task->pieceCount() > 0 && !task->isFinished())
            running.emplace_back(task, found->second);
    }
    for (const auto& [task, held] : running) {
        std::vector<bool> bitmap;
        try {
            bitmap = co_await held->torrent->getCompletionBitmap();
        } catch (const boost::system::system_error&) {
            continue;  // it was stopped meanwhile
        }
        if (!bitmap.empty() && !task->isFinished()) task->pieceBitmap.set(std::move(bitmap));
    }
}

}  // namespace skein
