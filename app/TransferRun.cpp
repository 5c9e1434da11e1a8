#include "app/TransferRun.h"

#include "Core/formats/MagnetLink.h"
#include "Core/formats/TorrentParser.h"
#include "app/Command.h"
#include "downloads/PendingRemovals.h"
#include "public/common/ShownURL.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_future.hpp>

#include <algorithm>
#include <stop_token>
#include <utility>

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

void TransferRun::add(TransferSource source, const std::string& name) {
    auto transfer = std::make_unique<Transfer>();
    transfer->source = std::move(source);
    if (std::holds_alternative<WebFile>(transfer->source)) {
        if (goal_.seedsOnly) throw CommandFailure(name, "a .torrent file is needed to seed");
        addWebFile(std::move(transfer), name);
    } else {
        addTorrent(std::move(transfer), name);
    }
}

std::filesystem::path TransferRun::folder() const {
    return options_.folder.empty() ? host_.downloadFolder() : options_.folder;
}

std::unique_ptr<TargetLock> TransferRun::lock(const SHA1Digest& source, const std::string& name) const {
    try {
        auto lock = std::make_unique<TargetLock>(folder(), source);
        // The user has thought better of a removal that was killed: what it left is wanted again.
        PendingRemovals(host_.home()).end(source);
        return lock;
    } catch (const std::exception& error) {
        throw CommandFailure(name, error.what());
    }
}

bool TransferRun::isKnown(const Transfer& transfer) const {
    return std::any_of(transfers_.begin(), transfers_.end(), [&](const auto& other) {
        return other->status.infoHashHex == transfer.status.infoHashHex && other->status.url == transfer.status.url;
    });
}

void TransferRun::addTorrent(std::unique_ptr<Transfer> transfer, const std::string& name) {
    TorrentSession::Options defaults = host_.sessionDefaults();
    SHA1Digest infoHash{};
    try {
        infoHash = identify(*transfer, defaults.discovery.linkTrackers);
    } catch (const std::exception& error) {
        throw CommandFailure(name, error.what());
    }
    if (goal_.seedsOnly && std::holds_alternative<MagnetLink>(transfer->source))
        throw CommandFailure(name, "a .torrent file is needed to seed");
    if (isKnown(*transfer)) return;
    if (!goal_.seedsOnly) transfer->lock = lock(infoHash, name);
    TorrentSession::Options options = options_.sessionOptions(folder(), std::move(defaults));
    options.seedsOnly = goal_.seedsOnly;
    // Who asks to seed means it, whatever holds of downloads.
    if (goal_.seedsOnly && options.uploadMode == UploadMode::disabled) options.uploadMode = UploadMode::paid;
    transfer->session = std::make_unique<TorrentSession>(infoHash, MagnetLink::generatePeerID(host_.random()),
                                                         host_.services(), std::move(options));
    transfer->session->setCallbacks(callbacksFor(*transfer));
    transfers_.push_back(std::move(transfer));
}

void TransferRun::addWebFile(std::unique_ptr<Transfer> transfer, const std::string& name) {
    const std::string& url = std::get<WebFile>(transfer->source).url;
    transfer->status.url = url;
    transfer->status.name = shownURL(url);
    if (isKnown(*transfer)) return;
    transfer->lock = lock(sha1(asBytes(url)), name);
    std::error_code error;
    std::filesystem::create_directories(folder(), error);
    if (error) throw CommandFailure(folder().string(), error.message());
    const std::optional<std::string> fileName = options_.output.empty() ? std::nullopt : std::optional(options_.output);
    transfer->web = host_.makeHTTPSession(url, folder(), fileName);
    transfer->web->setCallbacks(webCallbacksFor(*transfer));
    transfers_.push_back(std::move(transfer));
}

/// Fills in what the source says of itself. A magnet link whose torrent was seen before becomes that torrent, and its
/// trackers are added to it.
SHA1Digest TransferRun::identify(Transfer& transfer, std::vector<std::string>& linkTrackers) {
    if (const auto* const link = std::get_if<MagnetLink>(&transfer.source)) {
        const SHA1Digest infoHash = link->infoHash;
        transfer.status.infoHashHex = link->infoHashHex;
        transfer.status.name = link->displayName.value_or(link->infoHashHex);
        auto saved = host_.archive().torrent(infoHash);
        if (!saved) return infoHash;
        linkTrackers = link->trackers;
        transfer.source = std::move(*saved);
    }
    const TorrentMetaInfo metaInfo = TorrentParser::parse(std::get<Bytes>(transfer.source));
    transfer.status.infoHashHex = metaInfo.infoHashHex;
    transfer.status.name = metaInfo.name;
    transfer.status.total = metaInfo.totalSize;
    return metaInfo.infoHash;
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
    for (const auto& transfer : transfers_) tasks_.spawn(startOne(*transfer));
    tasks_.spawn(showOverview());
    if (goal_.timeout > std::chrono::seconds::zero()) tasks_.spawn(giveUpAfterTimeout());
    while (!isOver()) co_await changed_.wait();
    co_await stopAll();
    co_await tasks_.stop();
}

bool TransferRun::isOver() const {
    if (isTimedOut_ || interrupt_.exitStatus() != 0) return true;
    const bool serves = goal_.seedsOnly || goal_.seedsAfterwards;
    return std::all_of(transfers_.begin(), transfers_.end(), [&](const auto& transfer) {
        return transfer->hasFailed || (transfer->isDone && (!serves || transfer->web));
    });
}

asio::awaitable<void> TransferRun::startOne(Transfer& transfer) {
    transfer.startedAt = host_.clock().now();
    if (transfer.web) {
        co_await transfer.web->setDownloadLimit(options_.downloadBytesPerSecond());
        co_await transfer.web->start();
    } else if (std::holds_alternative<Bytes>(transfer.source)) {
        co_await transfer.session->start(std::get<Bytes>(std::move(transfer.source)));
    } else {
        co_await transfer.session->startWithMagnet(std::get<MagnetLink>(std::move(transfer.source)));
    }
}

asio::awaitable<void> TransferRun::giveUpAfterTimeout() {
    co_await host_.clock().sleep(goal_.timeout);
    if (isOver()) co_return;
    isTimedOut_ = true;
    for (const auto& transfer : transfers_)
        if (!transfer->isDone && !transfer->hasFailed)
            report_.error(transfer->status, "not complete after " + std::to_string(goal_.timeout.count()) + " s" +
                                                (transfer->status.stall.empty() ? "" : ": " + transfer->status.stall));
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
    if (transfer.web) {
        co_await transfer.web->stop();
    } else {
        co_await transfer.session->stop();
    }
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
        onOurs([this, &transfer, metaInfo] { onMetadata(transfer, metaInfo); });
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
    callbacks.onStallChanged = [this, onOurs, &transfer](const std::optional<StallReason>& reason) {
        onOurs([this, &transfer, reason] { report_.stall(transfer.status, reason); });
    };
    callbacks.onListening = [this, onOurs, &transfer] {
        onOurs([this, &transfer] { report_.listening(transfer.status, host_.listener().port(), host_.dhtPort()); });
    };
    callbacks.onVerifyProgress = [onOurs, &transfer](int checked, int total) {
        onOurs([&transfer, checked, total] { transfer.status.verified = total == 0 ? 1 : 1.0 * checked / total; });
    };
    return callbacks;
}

void TransferRun::onMetadata(Transfer& transfer, const TorrentMetaInfo& metaInfo) {
    transfer.status.name = metaInfo.name;
    transfer.status.total = metaInfo.totalSize;
    report_.metadata(transfer.status, metaInfo);
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
    if (state.kind == Kind::downloading && !std::exchange(transfer.hasDownloaded, true))
        transfer.status.present = transfer.status.downloaded;
    if (state.kind == Kind::error) {
        report_.error(transfer.status, state.message);
        transfer.hasFailed = true;
    }
    if (state.kind == Kind::completed) complete(transfer);
    changed_.notify();
}

void TransferRun::complete(Transfer& transfer) {
    if (std::exchange(transfer.isDone, true) || goal_.seedsOnly) return;
    const std::chrono::duration<double> taken = host_.clock().now() - transfer.startedAt;
    report_.completed(transfer.status, taken.count(), transfer.hasDownloaded);
}

// --- web files -------------------------------------------------------------------------------------------------------

HTTPDownloadSession::Callbacks TransferRun::webCallbacksFor(Transfer& transfer) {
    HTTPDownloadSession::Callbacks callbacks;
    const auto onOurs = [this](auto task) { asio::post(tasks_.strand(), std::move(task)); };
    callbacks.onStateChanged = [this, onOurs, &transfer](const HTTPDownloadSession::State& state) {
        onOurs([this, &transfer, state] { onWebState(transfer, state); });
    };
    callbacks.onProgressUpdated = [this, onOurs, &transfer](double fraction, std::int64_t downloaded,
                                                            std::int64_t total, double bytesPerSecond) {
        onOurs([this, &transfer, fraction, downloaded, total, bytesPerSecond] {
            transfer.status.progress = fraction;
            transfer.status.downloaded = downloaded;
            if (total >= 0) transfer.status.total = total;
            transfer.status.present = std::min(transfer.status.present, downloaded);
            transfer.status.downloadRate = static_cast<std::int64_t>(bytesPerSecond);
            report_.progress(transfer.status);
        });
    };
    callbacks.onFileInfoReceived = [this, onOurs, &transfer](const std::string& fileName, std::int64_t total) {
        onOurs([this, &transfer, fileName, total] {
            transfer.status.name = fileName;
            transfer.status.total = total >= 0 ? std::optional(total) : std::nullopt;
            report_.fileInfo(transfer.status);
        });
    };
    callbacks.onStatusMessage = [this, onOurs, &transfer](const std::string& message) {
        onOurs([this, &transfer, message] { report_.status(transfer.status, message); });
    };
    return callbacks;
}

void TransferRun::onWebState(Transfer& transfer, const HTTPDownloadSession::State& state) {
    using WebKind = HTTPDownloadSession::State::Kind;
    const Kind before = transfer.status.state;
    switch (state.kind) {
        case WebKind::idle: break;
        case WebKind::connecting:
        case WebKind::downloading: transfer.status.state = Kind::downloading; break;
        case WebKind::paused: transfer.status.state = Kind::paused; break;
        case WebKind::completed: transfer.status.state = Kind::completed; break;
        case WebKind::failed: transfer.status.state = Kind::error; break;
    }
    if (state.kind == WebKind::downloading && !std::exchange(transfer.hasDownloaded, true))
        transfer.status.present = transfer.status.downloaded;
    if (transfer.status.state != before) report_.state(transfer.status, state.message);
    if (state.kind == WebKind::failed) {
        report_.error(transfer.status, state.message);
        transfer.hasFailed = true;
    }
    if (state.kind == WebKind::completed) complete(transfer);
    changed_.notify();
}

}  // namespace skein
