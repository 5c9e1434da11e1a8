#pragma once

#include "Core/engine/TorrentArchive.h"
#include "Core/engine/TorrentSession.h"
#include "Core/formats/MagnetLink.h"
#include "downloads/CompletionNotifier.h"
#include "downloads/HTTPDownloadSession.h"
#include "downloads/MemoryMonitor.h"
#include "downloads/PendingDeletes.h"
#include "downloads/ResourceService.h"
#include "downloads/TaskStore.h"
#include "downloads/TorrentTask.h"
#include "public/common/ActorSettings.h"
#include "public/common/MsgCenter/MsgCenter.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
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
        ResourceService& service;
        CompletionNotifier& notifier;
        std::filesystem::path home;
        std::filesystem::path downloadsDirectory;
        std::int64_t memoryLimitMB = 0;  ///< 0: none
        /// Makes the session of a torrent. `extraTrackers` come beside what the settings say.
        std::function<std::unique_ptr<TorrentSession>(const SHA1Digest& infoHash,
                                                      const std::vector<std::string>& extraTrackers)>
            makeTorrentSession;
        /// `fileName` is empty where the server and the URL are to say it.
        std::function<std::unique_ptr<HTTPDownloadSession>(const std::string& url,
                                                           const std::optional<std::string>& fileName)>
            makeHTTPSession;
    };

    explicit DownloadManager(Environment environment);
    ~DownloadManager();

    const Strand& strand() const noexcept { return tasks_.strand(); }

    /// Loads the saved list and starts the timers. No session is started.
    asio::awaitable<void> start();
    /// Stops every session, saves the list. Nothing of the manager runs any more after it.
    asio::awaitable<void> stop();

    /// In the order added.
    const std::vector<Task>& tasks() const noexcept { return list_; }
    std::int64_t globalDownloadSpeed() const noexcept { return globalDownloadSpeed_; }
    std::int64_t globalUploadSpeed() const noexcept { return globalUploadSpeed_; }

    /// Each returns the task that is there already when the same was added before. Throw what the parsers throw.
    Task addMagnet(const std::string& text);
    asio::awaitable<Task> addTorrentFile(Bytes torrentData);
    /// Never throws: what is no URL becomes a task in the state `error`.
    Task addHTTPDownload(const std::string& text);

    // Commands. They return when the command has ended; giving up the wait does not stop it. A command for a task on
    // which one is running does nothing.
    asio::awaitable<void> pauseTask(Task task);
    asio::awaitable<void> resumeTask(Task task);
    asio::awaitable<void> recheckTask(Task task);
    asio::awaitable<void> redownloadTask(Task task);
    asio::awaitable<void> removeTask(Task task, bool deleteFiles = false);
    void setAccelerate(const Task& task, bool isEnabled);
    void setCategory(const Task& task, ResearchCategory category);
    void setNotes(const Task& task, std::string notes);
    /// Asks every running torrent session to drop peers.
    asio::awaitable<void> shedAllSessionsPeers(std::string reason);

private:
    /// What runs for one task; of the two, one.
    struct Running {
        std::shared_ptr<TorrentSession> torrent;
        std::shared_ptr<HTTPDownloadSession> http;
        bool hasDownloaded = false;  // something was missing when it started
    };
    /// What a torrent can be started from.
    struct Origin {
        std::optional<Bytes> torrentData;
        std::optional<MagnetLink> magnet;
    };

    Task find(const std::string& infoHash) const;
    Task makeTask(TaskIdentity identity, std::string name, TaskStatus status);
    void append(const Task& task);

    asio::awaitable<void> load();
    asio::awaitable<void> shutDown();
    asio::awaitable<void> stopAll();
    asio::awaitable<void> stopCounted(Task task, std::size_t& left);
    asio::awaitable<Task> addParsed(Bytes torrentData);

    asio::awaitable<void> perform(Task task, asio::awaitable<void> command);
    asio::awaitable<void> performTracked(Task task, asio::awaitable<void> command, std::shared_ptr<bool> hasEnded);
    asio::awaitable<void> pause(Task task);
    asio::awaitable<void> resume(Task task);
    asio::awaitable<void> recheck(Task task);
    asio::awaitable<void> redownload(Task task);
    asio::awaitable<void> remove(Task task, bool deleteFiles);
    asio::awaitable<void> shed(std::string reason);

    asio::awaitable<Origin> originOf(Task task);
    asio::awaitable<void> rebuild(Task task, std::string missing);
    void startTorrent(const Task& task, Origin origin);
    asio::awaitable<void> runTorrent(Task task, std::shared_ptr<Running> running, Origin origin);
    void startHTTP(const Task& task, std::optional<std::string> fileName);
    asio::awaitable<void> runHTTP(std::shared_ptr<Running> running);
    asio::awaitable<void> clearHTTPDownload(Task task);
    asio::awaitable<void> stopSession(Task task);
    asio::awaitable<void> dropSession(Task task);
    void fail(const Task& task, const std::string& message);
    void rest(const Task& task, TaskStatus status);
    void complete(const Task& task, bool hasDownloaded);

    /// Hands what a session reports on to `apply(task)` on the main executor, as long as that session is the task's.
    template <class Apply>
    void relay(const std::weak_ptr<TorrentTask>& task, const std::weak_ptr<Running>& running, Apply apply);
    TorrentSession::Callbacks torrentCallbacks(const Task& task, const std::shared_ptr<Running>& running);
    HTTPDownloadSession::Callbacks httpCallbacks(const Task& task, const std::shared_ptr<Running>& running);
    void applyHTTPState(const Task& task, const HTTPDownloadSession::State& state);
    void applyState(const Task& task, const TorrentSession::State& state);
    void applyMetadata(const Task& task, const TorrentMetaInfo& metaInfo);

    asio::awaitable<void> speedLoop();
    bool isAnythingMoving() const;
    void updateGlobalSpeed();
    asio::awaitable<void> updatePieceBitmaps();
    asio::awaitable<void> flushPendingDeletes();
    std::vector<SavedTask> snapshot() const;
    void noteSessions();

    const Environment environment_;
    const TorrentArchive archive_;
    PendingDeletes pendingDeletes_;
    std::vector<Task> list_;
    std::map<UUID, std::shared_ptr<Running>> sessions_;
    std::set<UUID> busy_;  // tasks on which a command runs
    std::int64_t globalDownloadSpeed_ = 0;
    std::int64_t globalUploadSpeed_ = 0;
    TaskGroup tasks_;
    Notifier commandEnded_;
    Notifier wake_;  // something moves that did not
    TaskStore store_;
    MemoryMonitor memoryMonitor_;
};

}  // namespace skein
