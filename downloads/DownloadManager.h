#pragma once

#include "Core/engine/TorrentArchive.h"
#include "downloads/CompletionNotifier.h"
#include "downloads/MemoryMonitor.h"
#include "downloads/PendingDeletes.h"
#include "downloads/PendingRemovals.h"
#include "downloads/ResourceService.h"
#include "downloads/ServiceHeartbeat.h"
#include "downloads/TaskSessions.h"
#include "downloads/TaskStore.h"
#include "downloads/TaskTargets.h"
#include "downloads/TorrentTask.h"
#include "public/common/ActorSettings.h"
#include "public/common/LocalBinding.h"
#include "public/common/MsgCenter/MsgCenter.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// Owner of every download: the list, the sessions that run, and the user's commands.
///
/// What changes in a task is published as TaskChanged, what changes in the list as TaskListChanged.
/// Owner: the program, which awaits `stop()`. Thread: the main executor, `strand()`: everything of the manager and its
/// tasks is touched from there alone.
class DownloadManager {
public:
    using Task = std::shared_ptr<TorrentTask>;

    struct Environment {
        asio::any_io_executor io;
        asio::any_io_executor disk;
        Clock& clock;
        FileLogger& log;
        Random& random;
        MsgCenter& center;
        ActorSettings settings;
        FileClaims& claims;
        ResourceService& service;
        CompletionNotifier& notifier;
        std::filesystem::path home;
        std::filesystem::path downloadsDirectory;
        std::int64_t memoryLimitMB = 0;  ///< 0: none
        UploadMode uploadMode = UploadMode::paid;
        std::uint16_t listenPort = 0;  ///< of the peer-wire listener
        LocalBinding binding;          ///< the addresses that it listens on
        TaskSessions::Makers makers;
        /// Acceleration was turned on for a torrent that has a magnet link; others may be told.
        std::function<void(const TorrentTask&)> onAccelerate;
    };

    /// What of the environment may change while the manager runs.
    struct Tuning {
        std::filesystem::path downloadsDirectory;  ///< of tasks that are begun from now on
        std::int64_t memoryLimitMB = 0;
        SessionTuning sessions;
    };

    explicit DownloadManager(Environment environment);
    ~DownloadManager();

    const Strand& strand() const noexcept { return tasks_.strand(); }

    /// Loads the saved list, does removals to their end that were killed, and starts the timers. No session is started.
    asio::awaitable<void> start();
    /// Stops every session, saves the list. Nothing of the manager runs any more after it.
    asio::awaitable<void> stop();

    /// Returns once everything that the list and its tasks say by now is on the disk; false when it is not. Only then
    /// may somebody be told that what they asked for is done.
    asio::awaitable<bool> whenSaved() { return store_.saveNow(); }

    /// In the order added.
    const std::vector<Task>& tasks() const noexcept { return list_; }
    std::int64_t globalDownloadSpeed() const noexcept { return globalDownloadSpeed_; }
    std::int64_t globalUploadSpeed() const noexcept { return globalUploadSpeed_; }

    /// Each returns the task that is there already when the same was added before. Throw what the parsers throw.
    Task addMagnet(const std::string& text, TaskPlace place = {});
    asio::awaitable<Task> addTorrentFile(Bytes torrentData, TaskPlace place = {});
    /// Whether `text` is a whole http or https URL.
    static bool isWebAddress(const std::string& text);
    /// Never throws: what is no such URL becomes a task in the state `error`.
    Task addHTTPDownload(const std::string& text, TaskPlace place = {});

    // Commands. They return when the command has ended; giving up the wait does not stop it. A command for a task on
    // which one is running does nothing, and returns false. A check gives way to a pause; a removal ends a check, and
    // waits for all else.
    asio::awaitable<bool> pauseTask(Task task);
    asio::awaitable<bool> resumeTask(Task task);
    asio::awaitable<bool> recheckTask(Task task);
    asio::awaitable<bool> redownloadTask(Task task);
    asio::awaitable<bool> removeTask(Task task, bool deleteFiles = false);
    void setAccelerate(const Task& task, bool isEnabled);
    void setCategory(const Task& task, ResearchCategory category);
    void setNotes(const Task& task, std::string notes);
    /// Acts at once, in sessions that run too.
    asio::awaitable<void> retune(Tuning tuning);
    /// Asks every running torrent session to drop peers.
    asio::awaitable<void> shedAllSessionsPeers(std::string reason);

    /// The task's files. The list of one that has not run since the start is read first where it is too long to be
    /// saved with the task; empty while the torrent's is not known.
    asio::awaitable<FileList> filesOf(Task task);
    /// A file as it lies on the disk.
    struct PlacedFile {
        TorrentFileInfo file;
        double progress = 0;  ///< 0 to 1
        TaskFiles::Place place;
    };
    /// Of the task's files, in their order, at most `count` from `first` on.
    asio::awaitable<std::vector<PlacedFile>> placesOf(Task task, std::size_t first, std::size_t count);

    // The account at the resource service, whose figures are published as CreditChanged.
    const CreditFigures& credit() const noexcept { return heartbeat_.figures(); }
    /// Asks the service for the balance, which something other than a report has changed. Returns at once.
    void refreshCredit();
    const std::string& signedInUserID() const noexcept { return userID_; }
    /// Somebody has signed in: their torrents are registered and served, and reported from now on. Returns at once.
    void syncWithServer();
    /// Before the user signs out: reports the last bytes, stops every torrent, and has the service forget this device.
    asio::awaitable<void> prepareForAccountLogout();

private:
    /// The command that runs on a task.
    struct Command {
        bool isCheck = false;
        bool isToEnd = false;  ///< somebody waits for the check
    };

    Task find(const std::string& infoHash) const;
    Task makeTask(TaskIdentity identity, std::string name, TaskStatus status);
    void append(const Task& task);
    std::int64_t nextNumber() const;
    void giveNumbers();

    asio::awaitable<void> load();
    asio::awaitable<void> shutDown();
    asio::awaitable<void> endCommands(bool& haveEnded);
    asio::awaitable<void> stopAll(std::vector<Task> running);
    asio::awaitable<void> stopCounted(Task task, std::size_t& left);
    asio::awaitable<Task> addParsed(Bytes torrentData, TaskPlace place);
    asio::awaitable<void> keepCopy(SHA1Digest infoHash, Bytes torrentData);

    asio::awaitable<bool> perform(Task task, asio::awaitable<void> work, bool isCheck = false);
    asio::awaitable<void> performTracked(Task task, asio::awaitable<void> work, std::shared_ptr<bool> hasEnded);
    asio::awaitable<void> waitForCommand(Task task);
    bool isToEnd(const Task& task) const;
    asio::awaitable<void> pause(Task task);
    asio::awaitable<void> resume(Task task);
    asio::awaitable<void> recheck(Task task);
    asio::awaitable<void> redownload(Task task);
    asio::awaitable<void> clearDownloaded(Task task);
    asio::awaitable<void> remove(Task task, bool deleteFiles);
    asio::awaitable<void> shed(std::string reason);
    asio::awaitable<void> applyTuning(Tuning tuning);

    asio::awaitable<TorrentOrigin> originOf(Task task);
    asio::awaitable<std::optional<TorrentOrigin>> originFor(Task task, std::string missing);
    void rebuild(const Task& task, TorrentOrigin origin);
    asio::awaitable<std::unique_ptr<TaskTargets::Hold>> takeToDelete(Task task);
    asio::awaitable<bool> beginRemoval(Task task, bool deleteFiles);
    asio::awaitable<void> endRemoval(SHA1Digest key);
    asio::awaitable<void> finishRemoval(PendingRemovals::Removal removal);
    asio::awaitable<void> deleteTraces(Task task, const TaskTargets::Hold* target, bool deleteFiles,
                                       bool isSecondTry = false);
    void report(const TaskFiles::Removal& removal, const std::string& name);
    TaskSessions::Callbacks sessionCallbacks();
    void endCheck(const Task& task);
    void fail(const Task& task, const std::string& message);
    void rest(const Task& task, TaskStatus status);
    void complete(const Task& task, bool hasDownloaded);

    ServiceHeartbeat::Environment heartbeatEnvironment();
    asio::awaitable<void> beginAccountTasks();
    asio::awaitable<void> endAccountTasks();
    asio::awaitable<void> signIn();
    asio::awaitable<void> signOut();
    void claimLocalTorrentTasks();
    asio::awaitable<void> ensureCompletedTasksRegistered();
    asio::awaitable<void> rebuildSeedingSession(Task task);
    asio::awaitable<void> registerOnly(Task task);
    bool isForRegisterOnly(const Task& task) const;
    asio::awaitable<void> tellCompleted(std::string infoHash);
    asio::awaitable<void> tellAccelerate(std::shared_ptr<TorrentSession> session, bool isEnabled);
    asio::awaitable<void> flushPendingDeletes(std::string userID);
    asio::awaitable<void> releaseResources();

    asio::awaitable<void> speedLoop();
    bool isAnythingMoving() const;
    void updateGlobalSpeed();
    asio::awaitable<void> updatePieceBitmaps();
    std::vector<SavedTask> snapshot() const;

    const Environment environment_;
    UploadMode uploadMode_;
    const TorrentArchive archive_;
    PendingDeletes pendingDeletes_;
    const PendingRemovals removals_;
    std::vector<Task> list_;
    std::map<UUID, Command> busy_;             // tasks on which one runs
    std::string userID_;                       // who is signed in; empty: nobody
    std::shared_ptr<TaskGroup> accountTasks_;  // what runs for that user
    std::int64_t globalDownloadSpeed_ = 0;
    std::int64_t globalUploadSpeed_ = 0;
    TaskGroup tasks_;
    Notifier commandEnded_;
    Notifier wake_;  // something moves that did not
    Notifier uploadModeChanged_;
    TaskStore store_;
    TaskTargets targets_;
    TaskSessions sessions_;
    ServiceHeartbeat heartbeat_;
    MemoryMonitor memoryMonitor_;
};

}  // namespace skein
