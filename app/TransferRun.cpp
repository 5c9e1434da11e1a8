#include "app/TransferRun.h"

#include "Core/formats/MagnetLink.h"
#include "Core/formats/TorrentParser.h"
#include "app/Command.h"

#include <boost/asio/post.hpp>
#include <boost/asio/use_future.hpp>

#include <algorithm>
#include <stop_token>

namespace skein {

using Kind = TorrentSession::State::Kind;

namespace {

constexpr std::chrono::seconds overviewInterval{1};

}  // namespace

TransferRun::TransferRun(EngineHost& host, const TransferOptions& options, Goal goal)
    : host_(host),
      options_(options),
      goal_(goal),
      interrupt_(host.pools().io()),
      tasks_(host.pools().io()),
      changed_(tasks_.strand()),
      report_(host.clock(), options.isJSON) {}

TransferRun::~TransferRun() = default;

void TransferRun::add(Bytes torrentData, const std::string& source) {
    auto transfer = std::make_unique<Transfer>();
    SHA1Digest infoHash{};
    try {
        const TorrentMetaInfo metaInfo = TorrentParser::parse(torrentData);
        infoHash = metaInfo.infoHash;
        transfer->status.infoHashHex = metaInfo.infoHashHex;
        transfer->status.name = metaInfo.name;
        transfer->status.total = metaInfo.totalSize;
    } catch (const std::exception& error) {
        throw CommandFailure(source, error.what());
    }
    for (const auto& other : transfers_)
        if (other->status.infoHashHex == transfer->status.infoHashHex) return;  // named twice

    const auto folder = options_.folder.empty() ? host_.downloadFolder() : options_.folder;
    if (!goal_.seedsOnly) transfer->lock = std::make_unique<TargetLock>(folder, infoHash);
    TorrentSession::Options options = options_.sessionOptions(folder, host_.fallbackTrackers());
    options.seedsOnly = goal_.seedsOnly;
    transfer->torrentData = std::move(torrentData);
    transfer->session = std::make_unique<TorrentSession>(infoHash, MagnetLink::generatePeerID(host_.random()),
                                                         host_.services(), std::move(options));
    transfer->session->setCallbacks(callbacksFor(*transfer));
    transfers_.push_back(std::move(transfer));
}

int TransferRun::run() {
    {
        const std::stop_callback onInterrupt(interrupt_.token(),
                                             [this] { asio::post(tasks_.strand(), [this] { changed_.notify(); }); });
        asio::co_spawn(tasks_.strand(), runAll(), asio::use_future).get();
    }
    // A wake-up that was posted at the last moment still uses what goes with us.
    asio::post(tasks_.strand(), asio::use_future).get();
    if (interrupt_.exitStatus() != 0) return interrupt_.exitStatus();
    const bool hasFailed = isTimedOut_ || std::any_of(transfers_.begin(), transfers_.end(),
                                                      [](const auto& transfer) { return transfer->hasFailed; });
    return hasFailed ? exitStatus::failed : exitStatus::done;
}

asio::awaitable<void> TransferRun::runAll() {
    for (const auto& transfer : transfers_) {
        report_.listening(transfer->status, host_.listener().port());
        tasks_.spawn(startOne(*transfer));
    }
    tasks_.spawn(showOverview());
    if (goal_.timeout > std::chrono::seconds::zero()) tasks_.spawn(giveUpAfterTimeout());
    while (!isOver()) co_await changed_.wait();
    co_await stopAll();
    co_await tasks_.stop();
}

bool TransferRun::isOver() const {
    if (isTimedOut_ || interrupt_.exitStatus() != 0) return true;
    const bool serves = goal_.seedsOnly || goal_.seedsAfterwards;
    return std::all_of(transfers_.begin(), transfers_.end(),
                       [&](const auto& transfer) { return transfer->hasFailed || (transfer->isDone && !serves); });
}

asio::awaitable<void> TransferRun::startOne(Transfer& transfer) {
    transfer.startedAt = host_.clock().now();
    co_await transfer.session->start(std::move(transfer.torrentData));
}

asio::awaitable<void> TransferRun::giveUpAfterTimeout() {
    co_await host_.clock().sleep(goal_.timeout);
    if (isOver()) co_return;
    isTimedOut_ = true;
    for (const auto& transfer : transfers_)
        if (!transfer->isDone && !transfer->hasFailed)
            report_.error(transfer->status, "not complete after " + std::to_string(goal_.timeout.count()) + " s");
    changed_.notify();
}

asio::awaitable<void> TransferRun::showOverview() {
    if (options_.isJSON) co_return;
    std::vector<const TransferStatus*> all;
    for (const auto& transfer : transfers_) all.push_back(&transfer->status);
    for (;;) {
        co_await host_.clock().sleep(overviewInterval);
        if (isOver()) co_return;
        report_.overview(all);
    }
}

asio::awaitable<void> TransferRun::stopAll() {
    // Side by side: each may wait some seconds for its trackers.
    TaskGroup stopping(tasks_.strand());
    std::size_t left = transfers_.size();
    for (const auto& transfer : transfers_) stopping.spawn(stopCounted(*transfer, left));
    while (left > 0) co_await changed_.wait();
    co_await stopping.stop();
}

asio::awaitable<void> TransferRun::stopCounted(Transfer& transfer, std::size_t& left) {
    co_await transfer.session->stop();
    --left;
    changed_.notify();
}

/// What sessions report on their strands goes on ours, in order.
TorrentSession::Callbacks TransferRun::callbacksFor(Transfer& transfer) {
    TorrentSession::Callbacks callbacks;
    const auto onOurs = [this](auto task) { asio::post(tasks_.strand(), std::move(task)); };
    callbacks.onStateChanged = [this, onOurs, &transfer](const TorrentSession::State& state) {
        onOurs([this, &transfer, state] { onState(transfer, state); });
    };
    callbacks.onProgressUpdated = [this, onOurs, &transfer](const TorrentSession::Progress& progress) {
        onOurs([this, &transfer, progress] { onProgress(transfer, progress); });
    };
    callbacks.onMetadataReceived = [this, onOurs, &transfer](const TorrentMetaInfo& metaInfo) {
        onOurs([this, &transfer, metaInfo] { report_.metadata(transfer.status, metaInfo); });
    };
    callbacks.onStatusMessage = [this, onOurs, &transfer](const std::string& message) {
        onOurs([this, &transfer, message] { report_.status(transfer.status, message); });
    };
    callbacks.onPeerDetailsUpdated = [this, onOurs, &transfer](const std::vector<PeerRuntimeInfo>& rows) {
        onOurs([this, &transfer, rows] { onPeers(transfer, rows); });
    };
    callbacks.onTrackerDetailsUpdated = [this, onOurs, &transfer](const std::vector<TrackerRuntimeInfo>& rows) {
        onOurs([this, &transfer, rows] { report_.trackers(transfer.status, rows); });
    };
    callbacks.onVerifyProgress = [onOurs, &transfer](int checked, int total) {
        onOurs([&transfer, checked, total] { transfer.status.verified = total == 0 ? 1 : 1.0 * checked / total; });
    };
    return callbacks;
}

void TransferRun::onProgress(Transfer& transfer, const TorrentSession::Progress& progress) {
    transfer.status.progress = progress.fraction;
    transfer.status.downloaded = progress.completedBytes;
    transfer.status.downloadRate = progress.downloadRate;
    transfer.status.uploadRate = progress.uploadRate;
    transfer.status.uploaded = progress.uploadedBytes;
    report_.progress(transfer.status);
}

void TransferRun::onPeers(Transfer& transfer, const std::vector<PeerRuntimeInfo>& rows) {
    transfer.status.peers = static_cast<std::size_t>(
        std::count_if(rows.begin(), rows.end(), [](const PeerRuntimeInfo& row) { return row.isConnected; }));
    report_.peers(transfer.status, rows);
}

void TransferRun::onState(Transfer& transfer, const TorrentSession::State& state) {
    transfer.status.state = state.kind;
    report_.state(transfer.status, state.message);
    if (state.kind == Kind::error) {
        report_.error(transfer.status, state.message);
        transfer.hasFailed = true;
    }
    if (state.kind == Kind::completed && !transfer.isDone) {
        transfer.isDone = true;
        if (!goal_.seedsOnly) {
            const std::chrono::duration<double> taken = host_.clock().now() - transfer.startedAt;
            report_.completed(transfer.status, taken.count());
        }
    }
    changed_.notify();
}

}  // namespace skein
