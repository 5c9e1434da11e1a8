// The manager's dealings with the account at the resource service.

#include "Core/discovery/LocalIPv4Address.h"
#include "downloads/CreditChanged.h"
#include "downloads/DownloadManager.h"
#include "public/common/RunOn.h"
#include "public/common/Within.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>

namespace skein {

namespace {

/// A user who signs out does not wait longer for a service that is silent.
constexpr std::chrono::seconds releaseLimit{3};
/// A registration that failed is sent again after 10 s, then after twice as long each time, up to 10 minutes.
constexpr std::chrono::seconds firstRegisterDelay{10};
constexpr std::chrono::seconds longestRegisterDelay{600};

}  // namespace

void DownloadManager::syncWithServer() { tasks_.spawn(beginAccountTasks()); }

void DownloadManager::refreshCredit() {
    if (accountTasks_) accountTasks_->spawn(heartbeat_.updateCurrencyEstimates());
}

asio::awaitable<void> DownloadManager::prepareForAccountLogout() { return tasks_.finish(signOut()); }

asio::awaitable<void> DownloadManager::beginAccountTasks() {
    co_await endAccountTasks();
    accountTasks_ = std::make_shared<TaskGroup>(tasks_.strand());
    accountTasks_->spawn(signIn());
}

asio::awaitable<void> DownloadManager::endAccountTasks() {
    while (accountTasks_) {
        const std::shared_ptr<TaskGroup> ending = accountTasks_;
        co_await ending->stop();
        if (accountTasks_ == ending) accountTasks_.reset();
    }
}

ServiceHeartbeat::Environment DownloadManager::heartbeatEnvironment() {
    ServiceHeartbeat::Environment environment{tasks_.strand(), environment_.clock, environment_.log,
                                              environment_.settings, environment_.service};
    environment.running = [this] {
        std::vector<ServiceHeartbeat::Running> running;
        for (const Task& task : list_)
            if (auto session = sessions_.torrentOf(task)) running.push_back({task, std::move(session)});
        return running;
    };
    environment.find = [this](const std::string& infoHash) { return find(infoHash); };
    environment.onFigures = [this] { environment_.center.publish(CreditChanged()); };
    return environment;
}

// --- signing in ------------------------------------------------------------------------------------------------------

/// The life of an account here, cancelled by the sign-out.
asio::awaitable<void> DownloadManager::signIn() {
    ServiceAccess access = co_await environment_.service.access();
    // Somebody who has just signed in may still have to say where the service is.
    while (!access.userID.empty() && access.serverURL.empty()) {
        co_await environment_.clock.sleep(ServiceHeartbeat::interval);
        access = co_await environment_.service.access();
    }
    if (!access.isUsable()) co_return;
    userID_ = access.userID;
    heartbeat_.beginUser(userID_);
    claimLocalTorrentTasks();
    co_await flushPendingDeletes(userID_);
    co_await heartbeat_.updateCurrencyEstimates();
    for (const auto& session : sessions_.torrents()) {
        try {
            co_await session->svcSignIn();
        } catch (const boost::system::system_error&) {
            // It stops already.
        }
    }
    co_await ensureCompletedTasksRegistered();
    co_await heartbeat_.sendBatchHeartbeat();
    co_await heartbeat_.svcHeartbeatLoop();
}

void DownloadManager::claimLocalTorrentTasks() {
    for (const Task& task : list_) {
        if (task->downloadType != DownloadType::torrent || task->ownerUserID()) continue;
        task->ownerUserID.set(userID_);
        store_.saveTasks();
    }
}

asio::awaitable<void> DownloadManager::flushPendingDeletes(std::string userID) {
    const std::set<std::string> hashes = co_await pendingDeletes_.all(userID);
    if (hashes.empty()) co_return;
    environment_.log.info("[Manager] flushPendingDeletes: ", hashes.size(), " item(s)");
    for (const std::string& infoHash : hashes) {
        const bool isForgotten = co_await environment_.service.deleteResource(infoHash);
        if (isForgotten) co_await pendingDeletes_.remove(userID, infoHash);
    }
}

// --- serving what is whole -------------------------------------------------------------------------------------------

asio::awaitable<void> DownloadManager::ensureCompletedTasksRegistered() {
    const std::vector<Task> tasks = list_;
    for (const Task& task : tasks) {
        const bool isWhole = task->downloadType == DownloadType::torrent && task->status() == TaskStatus::completed;
        if (isWhole && task->ownerUserID() == userID_ && !sessions_.isRunning(task) && !busy_.contains(task->id))
            co_await rebuildSeedingSession(task);
    }
}

/// Serves what is there; whatever is missing by now is not downloaded again behind the user's back.
asio::awaitable<void> DownloadManager::rebuildSeedingSession(Task task) {
    const std::string& name = task->name();
    environment_.log.info("[Manager] Rebuilding seeding session for ", name);
    const auto digest = fromHex(task->infoHash);
    if (!digest || digest->size() != SHA1Digest().size()) {
        environment_.log.info("[Manager] ensureRegistered: cannot derive infoHash Data for ", name, ", register-only");
        accountTasks_->spawn(registerOnly(task));
        co_return;
    }
    TorrentOrigin origin = co_await originOf(task);
    if (!origin.torrentData && !origin.magnet) {
        environment_.log.info("[Manager] ensureRegistered: no .torrent and no magnet for ", name, ", register-only");
        accountTasks_->spawn(registerOnly(task));
        co_return;
    }
    if (!origin.torrentData)
        environment_.log.info("[Manager] ensureRegistered: .torrent missing, rebuilding via magnet for ", name);
    if (!sessions_.isRunning(task)) sessions_.startTorrent(task, std::move(origin), true);
}

bool DownloadManager::isForRegisterOnly(const Task& task) const {
    return find(task->infoHash) == task && task->status() == TaskStatus::completed && !sessions_.isRunning(task);
}

/// Tells the service of a torrent that no session can serve, again until it has understood and whenever the upload mode
/// changes. One of the tasks of the account, which ends with it.
asio::awaitable<void> DownloadManager::registerOnly(Task task) {
    std::chrono::seconds delay = firstRegisterDelay;
    while (isForRegisterOnly(task)) {
        const UploadMode told = uploadMode_;
        // Looked up each time: a machine that was offline has other addresses afterwards.
        auto look = [this] { return getLocalIPv4Addresses(environment_.log, environment_.binding); };
        std::vector<std::string> addresses = co_await runOn(environment_.disk, std::move(look));
        ResourceRegistration registration{task->infoHash,       ResourceStatus::seeding, told,
                                          std::move(addresses), environment_.listenPort, task->totalSize()};
        const bool isConfirmed = co_await environment_.service.registerResource(std::move(registration));
        if (isConfirmed) {
            environment_.log.info("[Manager] register-only confirmed for ", task->name());
            delay = firstRegisterDelay;
            while (uploadMode_ == told) co_await uploadModeChanged_.wait();
        } else {
            environment_.log.warning("[Manager] register-only failed for ", task->name(), "; retry in ", delay.count(),
                                     "s");
            co_await environment_.clock.sleep(delay);
            delay = std::min(delay * 2, longestRegisterDelay);
        }
    }
}

asio::awaitable<void> DownloadManager::tellCompleted(std::string infoHash) {
    co_await environment_.service.markComplete(std::move(infoHash));
}

asio::awaitable<void> DownloadManager::tellAccelerate(std::shared_ptr<TorrentSession> session, bool isEnabled) {
    try {
        co_await session->setAccelerate(isEnabled);
    } catch (const boost::system::system_error&) {
        // It stops already; the next one is told when it is made.
    }
}

// --- signing out -----------------------------------------------------------------------------------------------------

asio::awaitable<void> DownloadManager::signOut() {
    co_await endAccountTasks();
    std::vector<Task> torrents = list_;
    std::erase_if(torrents, [this](const Task& task) {
        return task->downloadType != DownloadType::torrent || !sessions_.isRunning(task);
    });
    co_await stopAll(torrents);
    for (const Task& task : torrents) rest(task, task->isFinished() ? TaskStatus::completed : TaskStatus::paused);
    try {
        co_await within(environment_.clock, releaseLimit, releaseResources());
    } catch (const TimeLimitExceeded&) {
        environment_.log.warning("[Manager] the service did not confirm the release of this device's torrents");
    }
    userID_.clear();
    for (const Task& task : list_) task->forgetCredit();
    co_await heartbeat_.forgetUser();
    store_.saveTasks();
}

asio::awaitable<void> DownloadManager::releaseResources() { co_await environment_.service.releaseResourcesForLogout(); }

}  // namespace skein
