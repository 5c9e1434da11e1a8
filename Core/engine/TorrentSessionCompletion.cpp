#include "Core/engine/TorrentSession.h"
#include "Core/formats/TorrentParser.h"
#include "public/common/RunOn.h"

#include <algorithm>
#include <utility>

// From files that were verified to a download that is complete, and back when they are verified anew.

namespace skein {

using Kind = TorrentSession::State::Kind;

/// What was found may have been written by a run that did not live to sync it.
asio::awaitable<void> TorrentSession::secureWhatIsThere() {
    if (!pieceManager_->isComplete()) co_return;
    isSafe_ = options_.seedsOnly;
    if (!isSafe_) isSafe_ = co_await resumeKeeper_.secureAll(pieceManager_);
}

/// A download is complete when its bytes are on the device, and are still what was written.
asio::awaitable<void> TorrentSession::completeWhenSafe() {
    if (isCompleting_) co_return;
    isCompleting_ = true;
    std::chrono::seconds wait = WriteTrouble::firstWait;
    while (pieceManager_ && pieceManager_->isComplete() && !isSafe_) {
        const std::shared_ptr<PieceManager> pieces = pieceManager_;
        const bool isSafe = co_await resumeKeeper_.secureAll(pieces);
        if (pieces != pieceManager_) continue;  // a check began meanwhile
        isSafe_ = isSafe;
        if (!isSafe && pieces->storageProblem())
            co_await services_.clock.sleep(std::exchange(wait, std::min(2 * wait, WriteTrouble::longestWait)));
    }
    isCompleting_ = false;
    if (isSafe_ && state_.kind == Kind::downloading) markCompleted();
}

void TorrentSession::markCompleted() {
    services_.log.info("[Session] ✅ Download completed!");
    setStatus("Download complete");
    setState(Kind::completed);
    updateProgress();
    if (discovery_) discovery_->noteCompleted();
    setState(Kind::seeding);
    if (service_) service_->svcStartSeeding();
}

asio::awaitable<void> TorrentSession::doRecheck() {
    if (!metaInfo_) co_return;
    setStatus("Verifying files...");
    co_await peerPool_.disconnectAll();
    co_await openPieces(false);
    if (!pieceManager_) co_return;
    co_await secureWhatIsThere();
    const int missing = metaInfo_->pieceCount() - pieceManager_->completedPieces();
    setStatus(missing == 0 ? "Verification complete — files intact, seeding started"
                           : "Verification complete — " + std::to_string(missing) + " pieces missing");
    enterRunning();
}

asio::awaitable<void> TorrentSession::doRecheckWith(Bytes torrentData) {
    std::shared_ptr<const TorrentMetaInfo> parsed;
    auto parse = [&]() -> std::shared_ptr<const TorrentMetaInfo> {
        try {
            return std::make_shared<TorrentMetaInfo>(TorrentParser::parse(torrentData));
        } catch (const std::exception&) {
            return nullptr;
        }
    };
    parsed = co_await runOn(services_.disk, std::move(parse));
    if (!parsed) {
        setStatus("Failed to parse torrent file");
    } else if (parsed->infoHash != infoHash_) {
        setStatus("Torrent info hash mismatch");
    } else {
        co_await adopt(parsed);
        co_await doRecheck();
    }
}

}  // namespace skein
