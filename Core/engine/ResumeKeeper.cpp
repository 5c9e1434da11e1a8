#include "Core/engine/ResumeKeeper.h"

#include "public/common/RunOn.h"

#include <system_error>

namespace skein {

/// One sync at a time, however it ends.
class ResumeKeeper::Turn {
public:
    explicit Turn(ResumeKeeper& keeper) : keeper_(keeper) { keeper_.isSyncing_ = true; }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() {
        keeper_.isSyncing_ = false;
        keeper_.syncEnded_.notify();
    }

private:
    ResumeKeeper& keeper_;
};

ResumeKeeper::ResumeKeeper(Environment environment)
    : environment_(std::move(environment)), tasks_(environment_.strand), syncEnded_(environment_.strand) {}

asio::awaitable<Bytes> ResumeKeeper::read() const {
    if (!environment_.archive) co_return Bytes();
    auto read = [this] { return environment_.archive->resumeRecord(environment_.infoHash); };
    co_return co_await runOn(environment_.disk, std::move(read));
}

void ResumeKeeper::noteProgress(const std::shared_ptr<PieceManager>& pieces) {
    const Clock::TimePoint now = environment_.clock.now();
    if (isSyncing_ || (lastSyncAt_ && now - *lastSyncAt_ < syncInterval)) return;
    lastSyncAt_ = now;
    tasks_.spawn(secureSome(pieces));
}

void ResumeKeeper::forget() {
    recorded_ = {};
    lastRecordAt_.reset();
    lastSyncAt_.reset();
}

asio::awaitable<void> ResumeKeeper::finish(std::shared_ptr<PieceManager> pieces) {
    co_await tasks_.stop();
    co_await secure(std::move(pieces), Occasion::last);
}

asio::awaitable<bool> ResumeKeeper::secureAll(std::shared_ptr<PieceManager> pieces) {
    co_return co_await secure(std::move(pieces), Occasion::completion);
}

asio::awaitable<void> ResumeKeeper::secureSome(std::shared_ptr<PieceManager> pieces) {
    co_await secure(std::move(pieces), Occasion::progress);
}

asio::awaitable<bool> ResumeKeeper::secure(std::shared_ptr<PieceManager> pieces, Occasion occasion) {
    while (isSyncing_) co_await syncEnded_.wait();
    const Turn turn(*this);
    const auto scrutiny =
        occasion == Occasion::completion ? PieceManager::Scrutiny::allFiles : PieceManager::Scrutiny::writtenFiles;
    PieceSet secured;
    try {
        secured = co_await pieces->secure(scrutiny);
    } catch (const StorageException&) {
        co_return false;  // the piece manager has said so
    }
    const Clock::TimePoint now = environment_.clock.now();
    const bool isDue = occasion != Occasion::progress || !lastRecordAt_ || now - *lastRecordAt_ >= recordInterval;
    const bool areAllSafe = secured.count() == secured.size();
    if (isDue && (occasion == Occasion::completion || !(secured == recorded_))) {
        lastRecordAt_ = now;
        recorded_ = secured;
        co_await record(std::move(pieces), std::move(secured));
    }
    co_return areAllSafe;
}

asio::awaitable<void> ResumeKeeper::record(std::shared_ptr<PieceManager> pieces, PieceSet verified) {
    if (!environment_.archive) co_return;
    const Bytes encoded = co_await pieces->resumeRecord(std::move(verified));
    std::string failure;
    auto write = [&] {
        try {
            environment_.archive->saveResumeRecord(environment_.infoHash, encoded);
        } catch (const std::system_error& error) {
            failure = error.what();
        }
    };
    co_await runOn(environment_.disk, std::move(write));
    if (!failure.empty()) environment_.log.warning("[Session] Failed to save the resume record: ", failure);
}

}  // namespace skein
