#include "downloads/ServiceHeartbeat.h"

#include "public/common/Within.h"

#include <boost/system/system_error.hpp>

#include <algorithm>
#include <utility>

namespace skein {

ServiceHeartbeat::ServiceHeartbeat(Environment environment)
    : environment_(std::move(environment)),
      figures_(environment_.clock, environment_.settings, environment_.log),
      outbox_(environment_.strand, environment_.settings, environment_.log),
      cycleEnded_(environment_.strand) {}

asio::awaitable<void> ServiceHeartbeat::load() {
    co_await figures_.load();
    co_await outbox_.load();
}

asio::awaitable<void> ServiceHeartbeat::forgetUser() {
    figures_.forgetUser();
    co_await figures_.save();
    environment_.onFigures();
}

// --- the loop --------------------------------------------------------------------------------------------------------

class ServiceHeartbeat::Cycle {
public:
    explicit Cycle(ServiceHeartbeat& heartbeat) : heartbeat_(heartbeat) { heartbeat_.isSending_ = true; }
    Cycle(const Cycle&) = delete;
    Cycle& operator=(const Cycle&) = delete;
    ~Cycle() {
        heartbeat_.isSending_ = false;
        heartbeat_.cycleEnded_.notify();
    }

private:
    ServiceHeartbeat& heartbeat_;
};

asio::awaitable<void> ServiceHeartbeat::svcHeartbeatLoop() {
    for (;;) {
        co_await environment_.clock.sleep(interval);
        // A new day begins with the balance that the service has, also while there is nothing to report.
        if (figures_.rollOver()) co_await updateCurrencyEstimates();
        co_await sendBatchHeartbeat();
    }
}

// --- one cycle -------------------------------------------------------------------------------------------------------

asio::awaitable<void> ServiceHeartbeat::sendBatchHeartbeat() {
    while (isSending_) co_await cycleEnded_.wait();
    const Cycle cycle(*this);
    const ServiceAccess access = co_await environment_.service.access();
    if (!access.isUsable()) co_return;
    std::vector<Contribution> contributions = co_await gather(access.userID);
    if (contributions.empty()) co_return;
    const bool isConfirmed = co_await report(std::move(contributions));
    if (isConfirmed) co_await updateCurrencyEstimates();
}

asio::awaitable<std::vector<ServiceHeartbeat::Contribution>> ServiceHeartbeat::gather(std::string userID) {
    std::vector<Contribution> contributions;
    for (HeartbeatPayload& payload : outbox_.reportsOf(userID)) contributions.push_back({std::move(payload), nullptr});
    const std::vector<Running> sessions = environment_.running();
    for (const Running& running : sessions) {
        std::optional<HeartbeatPayload> payload;
        try {
            payload = co_await running.session->svcDrainDeltas();
        } catch (const boost::system::system_error&) {
            continue;  // it stops, and its last report follows by itself
        }
        if (payload && payload->userID == userID) contributions.push_back({std::move(*payload), running.session});
    }
    co_return contributions;
}

asio::awaitable<bool> ServiceHeartbeat::report(std::vector<Contribution> contributions) {
    std::vector<HeartbeatPayload> items;
    items.reserve(contributions.size());
    for (const Contribution& contribution : contributions) items.push_back(contribution.payload);
    const auto result = co_await environment_.service.batchHeartbeat(std::move(items));
    if (!result || !result->ok) co_return false;
    co_await commit(std::move(contributions));
    apply(*result);
    co_await figures_.save();
    co_return true;
}

asio::awaitable<void> ServiceHeartbeat::commit(std::vector<Contribution> contributions) {
    std::vector<HeartbeatPayload> fromOutbox;
    for (Contribution& contribution : contributions) {
        if (!contribution.session) {
            settle(contribution.payload);
            fromOutbox.push_back(std::move(contribution.payload));
            continue;
        }
        try {
            co_await contribution.session->svcCommitDeltas(contribution.payload);
        } catch (const boost::system::system_error&) {
            // It has stopped meanwhile, and hands the report over as unconfirmed: the service knows its event id.
        }
    }
    co_await outbox_.remove(std::move(fromOutbox));
}

/// What the task shows as not confirmed, of a session that is no more; the others show it themselves.
void ServiceHeartbeat::settle(const HeartbeatPayload& payload) {
    const Task task = environment_.find(payload.infoHash);
    if (!task) return;
    const auto batch = task->batch();
    const BytesBySource& bytes = payload.downloadedBySource;
    const auto reduce = [](auto& value, std::int64_t by) { value.set(std::max<std::int64_t>(value() - by, 0)); };
    reduce(task->uncommittedDlBytesFromPlatformPeers, bytes.platform);
    reduce(task->uncommittedDlBytesFromPublicBT, bytes.publicBT);
    reduce(task->uncommittedDlBytesFromRelay, bytes.relay);
    task->uncommittedUploadedBytes = std::max<std::int64_t>(task->uncommittedUploadedBytes - payload.uploadDelta, 0);
}

void ServiceHeartbeat::apply(const HeartbeatBatchResult& result) {
    if (result.rates) figures_.applyRates(*result.rates);
    for (const ResourceBalanceItem& item : result.items) {
        figures_.applyConfirmed(item);
        const Task task = environment_.find(item.infoHash);
        if (!task) continue;
        const auto batch = task->batch();
        task->currencyEarnedConfirmed.set(item.earned);
        task->currencySpentConfirmed.set(item.spent);
        task->dlBytesFromPlatformPeers.set(item.dlBytesPlatform + task->uncommittedDlBytesFromPlatformPeers());
        task->dlBytesFromPublicBT.set(item.dlBytesPublicBT + task->uncommittedDlBytesFromPublicBT());
        task->dlBytesFromRelay.set(item.dlBytesRelay + task->uncommittedDlBytesFromRelay());
        estimate(*task);
    }
    environment_.onFigures();
}

// --- estimates -------------------------------------------------------------------------------------------------------

asio::awaitable<void> ServiceHeartbeat::updateCurrencyEstimates() {
    if (const auto balance = co_await environment_.service.fetchBalance()) figures_.applyBalance(*balance);
    figures_.rollOver();
    for (const Running& running : environment_.running()) estimate(*running.task);
    environment_.onFigures();
}

void ServiceHeartbeat::estimate(TorrentTask& task) const {
    const auto batch = task.batch();
    const std::int64_t paid = task.uncommittedDlBytesFromPlatformPeers() + task.uncommittedDlBytesFromRelay();
    task.currencySpent.set(task.currencySpentConfirmed() +
                           figures_.costOf(paid, task.uncommittedDlBytesFromPublicBT()));
    task.currencyEarned.set(task.currencyEarnedConfirmed() + figures_.shareFor(task.uncommittedUploadedBytes));
}

// --- the last of a session -------------------------------------------------------------------------------------------

asio::awaitable<void> ServiceHeartbeat::flushFinalHeartbeat(Session session) {
    try {
        co_await within(environment_.clock, finalLimit, reportLast(std::move(session)));
    } catch (const TimeLimitExceeded&) {
        // What was not confirmed is taken over once the session has stopped.
    } catch (const boost::system::system_error&) {
        // The session has stopped already, or the program stops for good.
    }
}

/// A report whose answer was lost goes first, and what came after it in a second one.
asio::awaitable<void> ServiceHeartbeat::reportLast(Session session) {
    const ServiceAccess access = co_await environment_.service.access();
    if (!access.isUsable()) co_return;
    co_await session->svcGoOffline();
    for (bool isLast = false; !isLast;) {
        std::optional<HeartbeatPayload> payload = co_await session->svcDrainDeltas();
        if (!payload || payload->userID != access.userID) co_return;
        isLast = payload->status == ResourceStatus::offline;
        std::vector<Contribution> contributions;
        contributions.push_back({std::move(*payload), session});
        const bool isConfirmed = co_await report(std::move(contributions));
        if (!isConfirmed) co_return;
    }
}

asio::awaitable<void> ServiceHeartbeat::takeOver(Session session) {
    return outbox_.add(session->takeUnconfirmedReports());
}

}  // namespace skein
