#pragma once

#include "Core/engine/TorrentSession.h"
#include "Core/formats/MagnetLink.h"
#include "downloads/HTTPDownloadSession.h"
#include "downloads/TaskTargets.h"
#include "downloads/TorrentTask.h"
#include "public/common/FileLogger.h"
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

/// What a torrent can be started from.
struct TorrentOrigin {
    std::optional<Bytes> torrentData;
    std::optional<MagnetLink> magnet;
    TaskPlace place = {};  ///< for one that was never started
};

/// What is asked of a torrent's session beside what the settings say.
struct SessionWishes {
    TaskPlace place;  ///< where the files go, with the folder
    std::vector<std::string> linkTrackers;
    bool accelerates = false;
    bool seedsOnly = false;  ///< serves what is there, and downloads nothing
};

/// The sessions that run, one a task at most, and what they report, written into their tasks.
///
/// A report of a session that was stopped or replaced is not listened to. Owner: the manager, which stops every session
/// before it awaits `stop()`. Thread: the main executor.
class TaskSessions {
public:
    using Task = std::shared_ptr<TorrentTask>;

    struct Makers {
        std::function<std::unique_ptr<TorrentSession>(const SHA1Digest& infoHash, const SessionWishes& wishes)> torrent;
        /// `fileName` is empty where the server and the URL are to say it.
        std::function<std::unique_ptr<HTTPDownloadSession>(const std::string& url, const std::filesystem::path& folder,
                                                           const std::optional<std::string>& fileName)>
            http;
        std::int64_t httpDownloadLimit = 0;  ///< bytes a second and file; 0: none
    };

    struct Callbacks {
        /// Something of the task changed that is to be saved.
        std::function<void()> onDurableChange;
        /// Figures moved, or a session came or went.
        std::function<void()> onMovement;
        /// `hasDownloaded`: something was missing when the session started.
        std::function<void(const Task&, bool hasDownloaded)> onCompleted;
        /// The session is stopped after that.
        std::function<void(const Task&, const std::string& message)> onFailed;
        /// Returns once what changed is saved; false when that failed.
        std::function<asio::awaitable<bool>()> whenSaved;
        /// A check of the files, if there was one, is over.
        std::function<void(const Task&)> onChecked;
        /// The last word on a torrent's traffic, before its session stops.
        std::function<asio::awaitable<void>(std::shared_ptr<TorrentSession>)> beforeStop;
        /// What is left to say of it once it has stopped.
        std::function<asio::awaitable<void>(std::shared_ptr<TorrentSession>)> afterStop;
    };

    TaskSessions(const Strand& main, FileLogger& log, TaskTargets& targets, Makers makers, Callbacks callbacks);

    bool isRunning(const Task& task) const { return running_.contains(task->id); }
    std::size_t count() const noexcept { return running_.size(); }
    /// Null for a web file, and before the session has its target.
    std::shared_ptr<TorrentSession> torrentOf(const Task& task) const;
    std::vector<std::shared_ptr<TorrentSession>> torrents() const;

    // They return at once. A session that cannot have its target fails.
    void startTorrent(const Task& task, TorrentOrigin origin, bool seedsOnly = false);
    void startHTTP(const Task& task, const std::optional<std::string>& fileName, TaskPlace place = {});
    /// Deletes what an unfinished download left in `folder`, which its session alone knows. None runs.
    asio::awaitable<void> clearHTTPDownload(Task task, std::filesystem::path folder);
    /// From here on nothing is started.
    void close() noexcept { isClosed_ = true; }
    /// Returns when nothing of the task's session runs any more.
    asio::awaitable<void> stopSession(Task task);
    asio::awaitable<void> stop() { return tasks_.stop(); }

    /// What a torrent says of itself, written into its task.
    static void applyMetadata(TorrentTask& task, const TorrentMetaInfo& metaInfo);

private:
    /// Of the two sessions one, once it has its target.
    struct Running {
        std::shared_ptr<TorrentSession> torrent;
        std::shared_ptr<HTTPDownloadSession> http;
        std::unique_ptr<TaskTargets::Hold> target;  // none for one that only serves
        TaskPlace place;
        bool isPreparing = true;
        bool hasDownloaded = false;
        bool isStopping = false;
        bool isSaved = false;               // that it is complete
        TorrentSession::Progress reported;  // last
    };
    class StopMark;

    /// Hands what a session reports on to `apply(task)` on the main executor, as long as that session is the task's.
    template <class Apply>
    void relay(const std::weak_ptr<TorrentTask>& task, const std::weak_ptr<Running>& running, Apply apply);
    TorrentSession::Callbacks torrentCallbacks(const Task& task, const std::shared_ptr<Running>& running);
    HTTPDownloadSession::Callbacks httpCallbacks(const Task& task, const std::shared_ptr<Running>& running);
    std::shared_ptr<Running> admit(const Task& task);
    asio::awaitable<bool> prepare(Task task, std::shared_ptr<Running> running, bool writes, TaskPlace wanted);
    asio::awaitable<void> runTorrent(Task task, std::shared_ptr<Running> running, TorrentOrigin origin, bool seedsOnly);
    asio::awaitable<void> runHTTP(Task task, std::shared_ptr<Running> running, std::optional<std::string> fileName,
                                  TaskPlace place);
    asio::awaitable<void> dropSession(Task task);
    asio::awaitable<void> dropCompleted(Task task, std::shared_ptr<Running> running);
    void applyProgress(const Task& task, const TorrentSession::Progress& progress);
    void applyState(const Task& task, const TorrentSession::State& state);
    void applyHTTPState(const Task& task, const HTTPDownloadSession::State& state);

    FileLogger& log_;
    TaskTargets& targets_;
    const Makers makers_;
    const Callbacks callbacks_;
    std::map<UUID, std::shared_ptr<Running>> running_;
    bool isClosed_ = false;
    Notifier stopEnded_;  // or the preparation
    TaskGroup tasks_;
};

}  // namespace skein
