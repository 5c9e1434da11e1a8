#include "downloads/DownloadManager.h"

#include "Core/engine/TorrentFile.h"
#include "Core/formats/MagnetParser.h"
#include "Core/formats/TorrentParser.h"
#include "downloads/SavedTask.h"
#include "downloads/TaskListChanged.h"
#include "public/common/Database.h"
#include "public/common/RunOn.h"
#include "public/common/ShownURL.h"

#include <boost/system/system_error.hpp>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <stdexcept>

namespace skein {

namespace {

constexpr std::chrono::seconds speedInterval{1};
/// How far the saved list may lag behind what is downloaded, in speed intervals.
constexpr int saveEvery = 30;

}  // namespace

DownloadManager::DownloadManager(Environment environment)
    : environment_(std::move(environment)),
      uploadMode_(environment_.uploadMode),
      archive_(environment_.home),
      pendingDeletes_(environment_.settings, environment_.log),
      removals_(environment_.home),
      tasks_(environment_.io),
      commandEnded_(tasks_.strand()),
      wake_(tasks_.strand()),
      uploadModeChanged_(tasks_.strand()),
      store_(tasks_.strand(), environment_.disk, environment_.clock, environment_.log, environment_.home,
             [this] { return snapshot(); }),
      targets_(tasks_.strand(), environment_.disk, environment_.home, environment_.downloadsDirectory,
               environment_.claims),
      sessions_(tasks_.strand(), environment_.log, targets_, environment_.makers, sessionCallbacks()),
      heartbeat_(heartbeatEnvironment()),
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
    auto read = [this] { return removals_.all(); };
    std::vector<PendingRemovals::Removal> unfinished = co_await runOn(environment_.disk, std::move(read));
    for (const auto& [gone, deletesFiles] : unfinished)
        std::erase_if(list_, [&gone = gone](const Task& task) {
            // Another one of the same source was added since.
            return task->infoHash == gone.infoHash && task->addedDate() == gone.addedDate;
        });
    giveNumbers();
    std::set<SHA1Digest> listed;
    std::vector<SHA1Digest> keys;
    for (const Task& task : list_) keys.push_back(TaskTargets::keyOf(*task));
    listed.insert(keys.begin(), keys.end());
    std::vector<std::filesystem::path> folders;
    auto prepare = [this, &listed, &keys, &folders] {
        folders = targets_.foldersOf(keys);
        std::error_code error;  // told with the first download that cannot be written
        std::filesystem::create_directories(environment_.downloadsDirectory, error);
        try {
            environment_.claims.keepListed(listed);
        } catch (const DatabaseException& failure) {
            environment_.log.warning("[Manager] whose files are whose: ", failure.what());
        }
    };
    co_await runOn(environment_.disk, std::move(prepare));
    for (std::size_t i = 0; i < folders.size(); ++i) list_[i]->folder.set(std::move(folders[i]));
    for (PendingRemovals::Removal& removal : unfinished) co_await finishRemoval(std::move(removal));
    co_await heartbeat_.load();
    tasks_.spawn(speedLoop());
    tasks_.spawn(beginAccountTasks());
}

asio::awaitable<void> DownloadManager::stop() { return tasks_.finish(shutDown()); }

asio::awaitable<void> DownloadManager::shutDown() {
    sessions_.close();  // or the commands that still run would start some
    // Side by side: a command may be waiting for its session's last words, as we are for the others'.
    TaskGroup ending(tasks_.strand());
    bool haveCommandsEnded = false;
    ending.spawn(endCommands(haveCommandsEnded));
    co_await stopAll(list_);
    while (!haveCommandsEnded) co_await commandEnded_.wait();
    co_await ending.stop();
    co_await stopAll(list_);  // what a command gave up to stop
    co_await sessions_.stop();
    co_await memoryMonitor_.stop();
    store_.saveTasks();  // what was sent, which is no reason to save on its own
    co_await store_.stop();
}

asio::awaitable<void> DownloadManager::endCommands(bool& haveEnded) {
    co_await tasks_.stop();
    co_await endAccountTasks();
    haveEnded = true;
    commandEnded_.notify();
}

/// Side by side: each session may wait some seconds for its trackers.
asio::awaitable<void> DownloadManager::stopAll(std::vector<Task> running) {
    std::erase_if(running, [this](const Task& task) { return !sessions_.isRunning(task); });
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
    task->folder.set(targets_.usualFolder());
    if (!userID_.empty()) task->ownerUserID.set(userID_);
    return task;
}

/// One more than the highest that is taken.
std::int64_t DownloadManager::nextNumber() const {
    std::int64_t highest = 0;
    for (const Task& task : list_) highest = std::max(highest, task->number());
    return highest + 1;
}

/// To the loaded tasks that have none, or that of one before them.
void DownloadManager::giveNumbers() {
    std::set<std::int64_t> taken;
    for (const Task& task : list_)
        if (!taken.insert(task->number()).second) task->number.set(0);
    std::int64_t next = nextNumber();
    for (const Task& task : list_)
        if (task->number() == 0) task->number.set(next++);
}

void DownloadManager::append(const Task& task) {
    task->number.set(nextNumber());
    list_.push_back(task);
    environment_.center.publish(TaskListChanged{TaskListChanged::Kind::added, task->id, task->infoHash});
    store_.saveTasks();
}

DownloadManager::Task DownloadManager::addMagnet(const std::string& text, TaskPlace place) {
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
    sessions_.startTorrent(task, {std::nullopt, std::move(magnet), std::move(place)});
    return task;
}

asio::awaitable<DownloadManager::Task> DownloadManager::addTorrentFile(Bytes torrentData, TaskPlace place) {
    return tasks_.call(addParsed(std::move(torrentData), std::move(place)));
}

asio::awaitable<DownloadManager::Task> DownloadManager::addParsed(Bytes torrentData, TaskPlace place) {
    auto parse = [&] {
        if (const auto fault = TorrentFile::faultOf(torrentData)) throw std::runtime_error(*fault);
        return TorrentParser::parse(torrentData);
    };
    const TorrentMetaInfo metaInfo = co_await runOn(environment_.disk, std::move(parse));
    if (Task known = find(metaInfo.infoHashHex)) co_return known;
    // First: a task that is listed can always be resumed.
    co_await keepCopy(metaInfo.infoHash, torrentData);
    if (Task known = find(metaInfo.infoHashHex)) co_return known;
    TaskIdentity identity;
    identity.infoHash = metaInfo.infoHashHex;
    Task task = makeTask(std::move(identity), metaInfo.name, TaskStatus::downloading);
    TaskSessions::applyMetadata(*task, metaInfo);
    append(task);
    TorrentOrigin origin;
    origin.torrentData = std::move(torrentData);
    origin.place = std::move(place);
    sessions_.startTorrent(task, std::move(origin));
    co_return task;
}

asio::awaitable<void> DownloadManager::keepCopy(SHA1Digest infoHash, Bytes torrentData) {
    // What is being removed under this hash must not take the copy along.
    co_await targets_.whenFree(infoHash);
    auto keep = [this, &infoHash, &torrentData] { archive_.keep(infoHash, torrentData); };
    co_await runOn(environment_.disk, std::move(keep));
}

bool DownloadManager::isWebAddress(const std::string& text) {
    const auto url = boost::urls::parse_uri(text);
    if (!url || url->host().empty()) return false;
    return url->scheme_id() == boost::urls::scheme::http || url->scheme_id() == boost::urls::scheme::https;
}

DownloadManager::Task DownloadManager::addHTTPDownload(const std::string& text, TaskPlace place) {
    constexpr std::string_view blanks = " \t\r\n";
    std::string url = text;
    url.erase(0, std::min(url.find_first_not_of(blanks), url.size()));
    url.erase(url.find_last_not_of(blanks) + 1);
    TaskIdentity identity;
    identity.downloadType = DownloadType::http;
    if (!isWebAddress(url)) {
        identity.infoHash = "http_" + UUID::random(environment_.random).text();
        Task task = makeTask(std::move(identity), shownURL(url), TaskStatus::error);
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
    const std::optional<std::string> named = place.topName.empty() ? std::nullopt : std::optional(place.topName);
    std::string name = named.value_or(HTTPDownloadSession::deriveFileName(url, environment_.random));
    Task task = makeTask(std::move(identity), std::move(name), TaskStatus::downloading);
    append(task);
    sessions_.startHTTP(task, named, std::move(place));
    return task;
}

// --- what users say of a task
// -----------------------------------------------------------------------------------------

void DownloadManager::setAccelerate(const Task& task, bool isEnabled) {
    environment_.log.info("[Accelerate] task=", task->name(), " accelerate=", isEnabled ? "true" : "false");
    task->accelerateEnabled.set(isEnabled);
    store_.saveTasks();
    if (std::shared_ptr<TorrentSession> session = sessions_.torrentOf(task))
        tasks_.spawn(tellAccelerate(std::move(session), isEnabled));
    if (isEnabled && task->downloadType == DownloadType::torrent && task->magnetURI && environment_.onAccelerate)
        environment_.onAccelerate(*task);
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

asio::awaitable<void> DownloadManager::retune(Tuning tuning) { return tasks_.call(applyTuning(std::move(tuning))); }

asio::awaitable<void> DownloadManager::applyTuning(Tuning tuning) {
    targets_.setDownloadsDirectory(tuning.downloadsDirectory);
    memoryMonitor_.setLimit(tuning.memoryLimitMB);
    if (uploadMode_ != tuning.sessions.uploadMode) {
        uploadMode_ = tuning.sessions.uploadMode;
        uploadModeChanged_.notify();
    }
    for (const auto& session : sessions_.torrents()) {
        try {
            co_await session->retune(tuning.sessions);
        } catch (const boost::system::system_error&) {
            // It stops already.
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
    callbacks.whenSaved = [this] { return store_.whenSaved(); };
    callbacks.onChecked = [this](const Task& task) {
        endCheck(task);
        commandEnded_.notify();
    };
    callbacks.beforeStop = [this](std::shared_ptr<TorrentSession> session) {
        return heartbeat_.flushFinalHeartbeat(std::move(session));
    };
    callbacks.afterStop = [this](std::shared_ptr<TorrentSession> session) {
        return heartbeat_.takeOver(std::move(session));
    };
    return callbacks;
}

void DownloadManager::endCheck(const Task& task) {
    const auto batch = task->batch();
    task->isVerifying.set(false);
    task->verifyProgress.set(std::nullopt);
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
    task->stallReason.set(facts.isPaused ? stallReasonOf(facts) : std::nullopt);
}

void DownloadManager::complete(const Task& task, bool hasDownloaded) {
    task->markCompleted();
    task->stallReason.set(std::nullopt);
    store_.saveTasks();
    if (!hasDownloaded) return;
    if (!userID_.empty() && task->downloadType == DownloadType::torrent) tasks_.spawn(tellCompleted(task->infoHash));
    environment_.center.publish(DownloadCompleted{task->id, task->infoHash, task->name()});
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
        if (!userID_.empty())
            for (const Task& task : list_)
                if (sessions_.isRunning(task)) heartbeat_.estimate(*task);
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
