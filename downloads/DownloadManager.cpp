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
/// How far the saved list may lag behind what is downloaded, in speed intervals.
constexpr int saveEvery = 30;

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
      sessions_(tasks_.strand(), environment_.log, environment_.makers, sessionCallbacks()),
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
    // First the commands, which would start sessions behind our back.
    sessions_.close();
    co_await tasks_.stop();
    co_await stopAll();
    co_await sessions_.stop();
    co_await memoryMonitor_.stop();
    co_await store_.stop();
}

/// Side by side: each session may wait some seconds for its trackers.
asio::awaitable<void> DownloadManager::stopAll() {
    std::vector<Task> running;
    for (const Task& task : list_)
        if (sessions_.isRunning(task)) running.push_back(task);
    TaskGroup stopping(tasks_.strand());
    std::size_t left = running.size();
    for (const Task& task : running) stopping.spawn(stopCounted(task, left));
    while (left > 0) co_await commandEnded_.wait();
    co_await stopping.stop();
}

asio::awaitable<void> DownloadManager::stopCounted(Task task, std::size_t& left) {
    co_await sessions_.stopSession(task);
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
    Task task = makeTask(std::move(identity), magnet.displayName.value_or("Fetching..."), TaskStatus::fetchingMetadata);
    for (const std::string& tracker : magnet.trackers) {
        auto tiers = task->trackers();
        tiers.push_back({tracker});
        task->trackers.set(std::move(tiers));
    }
    append(task);
    sessions_.startTorrent(task, digestOf(task->infoHash), {std::nullopt, std::move(magnet)});
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
    Task task = makeTask(std::move(identity), metaInfo.name, TaskStatus::downloading);
    TaskSessions::applyMetadata(*task, metaInfo);
    append(task);
    TorrentOrigin origin;
    origin.torrentData = std::move(torrentData);
    sessions_.startTorrent(task, digestOf(task->infoHash), std::move(origin));
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
        Task task = makeTask(std::move(identity), url, TaskStatus::error);
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
    Task task = makeTask(std::move(identity), std::move(name), TaskStatus::downloading);
    append(task);
    sessions_.startHTTP(task, std::nullopt);
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
    // A check may take long, and is not worth waiting for.
    if (task->isVerifying()) {
        co_await sessions_.stopSession(task);
        commandEnded_.notify();
    }
    while (busy_.contains(task->id)) co_await commandEnded_.wait();
    co_await perform(task, remove(task, deleteFiles));
}
asio::awaitable<void> DownloadManager::shedAllSessionsPeers(std::string reason) {
    return tasks_.call(shed(std::move(reason)));
}

asio::awaitable<void> DownloadManager::pause(Task task) {
    task->isControlOperationInProgress.set(true);
    task->controlOperationMessage.set("正在暂停，请稍候…");
    co_await sessions_.stopSession(task);
    rest(task, TaskStatus::paused);
    store_.saveTasks();
}

asio::awaitable<void> DownloadManager::resume(Task task) {
    // A web file that is whole has nothing to go on with; a torrent would be served again.
    const bool isWhole = task->downloadType == DownloadType::http && task->status() == TaskStatus::completed;
    if (isWhole || sessions_.isRunning(task)) co_return;
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
        co_return sessions_.startHTTP(task, task->files().empty() ? std::nullopt : std::optional(task->name()));
    }
    TorrentOrigin origin = co_await originOf(task);
    if (!origin.torrentData && !task->magnetURI) co_return fail(task, missing + "magnet link missing");
    if (!origin.torrentData && !origin.magnet) co_return fail(task, "Failed to parse magnet link");
    environment_.log.info("[Manager] Rebuilding session for ", task->name());
    task->status.set(origin.torrentData ? TaskStatus::downloading : TaskStatus::fetchingMetadata);
    sessions_.startTorrent(task, digestOf(task->infoHash), std::move(origin));
}

asio::awaitable<TorrentOrigin> DownloadManager::originOf(Task task) {
    TorrentOrigin origin;
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
    TorrentOrigin origin = co_await originOf(task);
    if (!origin.torrentData && !origin.magnet) {
        task->errorMessage.set("Cannot verify: magnet link missing");
        co_return;
    }
    task->isVerifying.set(true);
    task->statusMessage.set("Verifying files...");
    task->errorMessage.set(std::nullopt);
    co_await sessions_.stopSession(task);
    auto forget = [this, infoHash = digestOf(task->infoHash)] { archive_.forgetResumeRecord(infoHash); };
    co_await runOn(environment_.disk, std::move(forget));
    task->status.set(origin.torrentData ? TaskStatus::downloading : TaskStatus::fetchingMetadata);
    sessions_.startTorrent(task, digestOf(task->infoHash), std::move(origin));
    // The state that follows the check ends it.
    while (sessions_.isRunning(task) && task->isVerifying()) co_await commandEnded_.wait();
}

asio::awaitable<void> DownloadManager::redownload(Task task) {
    co_await sessions_.stopSession(task);
    if (task->downloadType == DownloadType::http) co_await sessions_.clearHTTPDownload(task);
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
    if (std::find(list_.begin(), list_.end(), task) == list_.end()) co_return;  // removed while this waited
    const bool isTorrent = task->downloadType == DownloadType::torrent;
    const std::string user = environment_.service.signedInUserID();
    // First, so that the service forgets the torrent even if we die now.
    if (isTorrent) co_await pendingDeletes_.add(user, task->infoHash);
    co_await sessions_.stopSession(task);
    std::erase(list_, task);
    environment_.center.publish(TaskListChanged{TaskListChanged::Kind::removed, task->id, task->infoHash});
    store_.saveTasks();
    if (!isTorrent) co_await sessions_.clearHTTPDownload(task);
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
    for (const auto& session : sessions_.torrents()) {
        try {
            co_await session->shedPeers(keepAtMost);
        } catch (const boost::system::system_error&) {
            // It stops already, which frees more.
        }
    }
}

// --- what becomes of tasks -------------------------------------------------------------------------------------------

TaskSessions::Callbacks DownloadManager::sessionCallbacks() {
    TaskSessions::Callbacks callbacks;
    callbacks.onDurableChange = [this] { store_.saveTasks(); };
    callbacks.onMovement = [this] {
        memoryMonitor_.setRunningSessions(sessions_.count());
        wake_.notify();
    };
    callbacks.onCompleted = [this](const Task& task, bool hasDownloaded) { complete(task, hasDownloaded); };
    callbacks.onFailed = [this](const Task& task, const std::string& message) { fail(task, message); };
    callbacks.onChecked = [this](const Task& task) {
        task->isVerifying.set(false);
        commandEnded_.notify();
    };
    callbacks.beforeStop = [this](Task task, std::shared_ptr<TorrentSession> session) {
        return reportLastBytes(std::move(task), std::move(session));
    };
    return callbacks;
}

asio::awaitable<void> DownloadManager::reportLastBytes(Task task, std::shared_ptr<TorrentSession> session) {
    co_await environment_.service.flushFinalHeartbeat(*task, *session);
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

// --- the speed timer -------------------------------------------------------------------------------------------------

/// A list that nothing happens to wakes nobody up.
asio::awaitable<void> DownloadManager::speedLoop() {
    for (int tick = 1;; ++tick) {
        while (!isAnythingMoving()) co_await wake_.wait();
        co_await environment_.clock.sleep(speedInterval);
        if (tick % saveEvery == 0) store_.saveTasks();
        updateGlobalSpeed();
        co_await updatePieceBitmaps();
    }
}

bool DownloadManager::isAnythingMoving() const {
    if (globalDownloadSpeed_ > 0 || globalUploadSpeed_ > 0) return true;
    return std::any_of(list_.begin(), list_.end(), [&](const Task& task) {
        return sessions_.isRunning(task) && (!task->isFinished() || task->uploadSpeed() > 0);
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
    const std::vector<Task> tasks = list_;
    for (const Task& task : tasks) {
        const std::shared_ptr<TorrentSession> session = sessions_.torrentOf(task);
        if (!session || task->pieceCount() == 0 || task->isFinished()) continue;
        std::vector<bool> bitmap;
        try {
            bitmap = co_await session->getCompletionBitmap();
        } catch (const boost::system::system_error&) {
            continue;  // it was stopped meanwhile
        }
        if (!bitmap.empty() && !task->isFinished()) task->pieceBitmap.set(std::move(bitmap));
    }
}

}  // namespace skein
