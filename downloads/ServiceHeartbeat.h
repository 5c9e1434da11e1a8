#pragma once

#include "Core/engine/TorrentSession.h"
#include "downloads/CreditFigures.h"
#include "downloads/HeartbeatOutbox.h"
#include "downloads/ResourceService.h"
#include "downloads/TorrentTask.h"
#include "public/common/ActorSettings.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace skein {

/// Reports to the resource service what the torrents moved, in one request for all of them, and writes what it confirms
/// into the tasks.
///
/// A report that was not confirmed is sent again as it was, also when its session has ended meanwhile: no byte is lost,
/// and none counted twice.
/// Owner: the manager, whose tasks run it. Thread: the main executor.
class ServiceHeartbeat {
public:
    static constexpr std::chrono::seconds interval{30};
    /// For a session that is about to stop, and its user waits.
    static constexpr std::chrono::milliseconds finalLimit{1500};

    using Task = std::shared_ptr<TorrentTask>;
    using Session = std::shared_ptr<TorrentSession>;

    struct Running {
        Task task;
        Session session;
    };

    struct Environment {
        Strand strand;
        Clock& clock;
        FileLogger& log;
        ActorSettings settings;
        ResourceService& service;
        std::function<std::vector<Running>()> running;
        std::function<Task(const std::string& infoHash)> find;
        /// The figures have changed.
        std::function<void()> onFigures;
    };

    explicit ServiceHeartbeat(Environment environment);

    /// What was left by the process before.
    asio::awaitable<void> load();
    /// Whose figures they are from now on.
    void beginUser(const std::string& userID) { figures_.beginUser(userID); }
    /// A cycle every `interval`, until it is cancelled: what was not confirmed then goes out again.
    asio::awaitable<void> svcHeartbeatLoop();
    /// One cycle.
    asio::awaitable<void> sendBatchHeartbeat();
    /// The last of a session that still runs; returns after `finalLimit` at the latest.
    asio::awaitable<void> flushFinalHeartbeat(Session session);
    /// Takes over what a session that has stopped could not report.
    asio::awaitable<void> takeOver(Session session);
    /// Fetches the balance and works the estimates out anew.
    asio::awaitable<void> updateCurrencyEstimates();
    /// The estimates of one task, from what was not confirmed of it.
    void estimate(TorrentTask& task) const;
    /// The figures were another user's.
    asio::awaitable<void> forgetUser();

    const CreditFigures& figures() const noexcept { return figures_; }

private:
    /// A report and where it came from.
    struct Contribution {
        HeartbeatPayload payload;
        Session session;  ///< none: from the outbox
    };
    /// While it lives, no other cycle begins.
    class Cycle;

    asio::awaitable<std::vector<Contribution>> gather(std::string userID);
    /// True when the service confirmed them.
    asio::awaitable<bool> report(std::vector<Contribution> contributions);
    asio::awaitable<void> commit(std::vector<Contribution> contributions);
    asio::awaitable<void> reportLast(Session session);
    void settle(const HeartbeatPayload& payload);
    void apply(const HeartbeatBatchResult& result);

    const Environment environment_;
    CreditFigures figures_;
    HeartbeatOutbox outbox_;
    bool isSending_ = false;
    Notifier cycleEnded_;
};

}  // namespace skein
