#pragma once

#include "Core/engine/TorrentSession.h"
#include "app/EngineHost.h"
#include "app/Interrupt.h"
#include "app/TransferOptions.h"
#include "app/TransferReport.h"
#include "app/TransferSource.h"
#include "downloads/HTTPDownloadSession.h"
#include "public/common/Notifier.h"
#include "public/common/TargetLock.h"
#include "public/common/TaskGroup.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// One run of `get` or `seed`: a session for each torrent or web file, until all are done, time is over, or the user
/// interrupts.
///
/// Owner and thread: the command, on the main thread; inside it lives on one strand.
class TransferRun {
public:
    struct Goal {
        bool seedsOnly = false;           ///< serve what is there, until interrupted
        bool seedsAfterwards = false;     ///< keep serving after completion, until interrupted
        std::chrono::seconds timeout{0};  ///< 0: none
    };

    TransferRun(EngineHost& host, const TransferOptions& options, Goal goal);
    ~TransferRun();

    /// Adds a transfer; `name` is what the user called it. Throws CommandFailure when it is no torrent, or another
    /// process writes it.
    void add(TransferSource source, const std::string& name);
    /// The user's wish to end it, heard from the beginning on.
    const Interrupt& interrupt() const noexcept { return interrupt_; }
    /// Runs to the end and returns the exit status.
    int run();

private:
    struct Transfer {
        TransferSource source;
        TransferStatus status;
        Clock::TimePoint startedAt;
        bool hasDownloaded = false;  ///< something was missing when it started
        bool isDone = false;
        bool hasFailed = false;
        std::unique_ptr<TargetLock> lock;
        std::unique_ptr<TorrentSession> session;
        std::unique_ptr<HTTPDownloadSession> web;  ///< in place of `session`, for a web file
    };

    void addTorrent(std::unique_ptr<Transfer> transfer, const std::string& name);
    void addWebFile(std::unique_ptr<Transfer> transfer, const std::string& name);
    bool isKnown(const Transfer& transfer) const;
    std::filesystem::path folder() const;
    std::unique_ptr<TargetLock> lock(const SHA1Digest& source, const std::string& name) const;
    SHA1Digest identify(Transfer& transfer, std::vector<std::string>& linkTrackers);
    asio::awaitable<void> runAll();
    asio::awaitable<void> startOne(Transfer& transfer);
    asio::awaitable<void> showOverview();
    asio::awaitable<void> stopAll();
    asio::awaitable<void> stopCounted(Transfer& transfer, std::size_t& left);
    asio::awaitable<void> giveUpAfterTimeout();
    TorrentSession::Callbacks callbacksFor(Transfer& transfer);
    HTTPDownloadSession::Callbacks webCallbacksFor(Transfer& transfer);
    void onWebState(Transfer& transfer, const HTTPDownloadSession::State& state);
    void complete(Transfer& transfer);
    void onMetadata(Transfer& transfer, const TorrentMetaInfo& metaInfo);
    void onState(Transfer& transfer, const TorrentSession::State& state);
    void onProgress(Transfer& transfer, const TorrentSession::Progress& progress);
    void onPeers(Transfer& transfer, const std::vector<PeerRuntimeInfo>& rows);
    bool isOver() const;

    EngineHost& host_;
    const TransferOptions options_;
    const Goal goal_;
    const Interrupt interrupt_;
    std::vector<std::unique_ptr<Transfer>> transfers_;
    bool isTimedOut_ = false;
    TaskGroup tasks_;
    Notifier changed_;
    TransferReport report_;
};

}  // namespace skein
