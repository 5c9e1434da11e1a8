#include "Core/engine/ResumeKeeper.h"

#include "public/common/RunOn.h"

#include <system_error>

namespace skein {

ResumeKeeper::ResumeKeeper(Environment environment)
    : environment_(std::move(environment)), tasks_(environment_.strand) {}

asio::awaitable<Bytes> ResumeKeeper::read() const {
    if (!environment_.archive) co_return Bytes();
    auto read = [this] { return environment_.archive->resumeRecord(environment_.infoHash); };
    co_return co_await runOn(environment_.disk, std::move(read));
}

void ResumeKeeper::noteProgress(const std::shared_ptr<PieceManager>& pieces) {
    const Clock::TimePoint now = environment_.clock.now();
    if (isSyncing_ || (lastSyncAt_ && now - *lastSyncAt_ < syncInterval)) return;
    lastSyncAt_ = now;
    isSyncing_ = true;
    tasks_.spawn(sync(pieces, false));
}

void ResumeKeeper::forget() {
    recordedPieces_ = -1;
    lastRecordAt_.reset();
    lastSyncAt_.reset();
}

asio::awaitable<void> ResumeKeeper::finish(std::shared_ptr<PieceManager> pieces) {
    co_await tasks_.stop();
    co_await sync(std::move(pieces), true);
}

asio::awaitable<void> ResumeKeeper::sync(std::shared_ptr<PieceManager> pieces, bool isLast) {
    PieceSet verified = pieces->completedSet();  // what is complete now is on the device after the sync
    bool isSynced = false;
    try {
        co_await pieces->sync();
        isSynced = true;
    } catch (const StorageException& error) {
        environment_.log.warning("[PieceManager] sync failed: ", error.what());
    }
    const Clock::TimePoint now = environment_.clock.now();
    const bool isDue = isLast || !lastRecordAt_ || now - *lastRecordAt_ >= recordInterval;
    if (isSynced && isDue && verified.count() != recordedPieces_) {
        lastRecordAt_ = now;
        const int count = verified.count();
        co_await record(std::move(pieces), std::move(verified));
        recordedPieces_ = count;
    }
    isSyncing_ = false;
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
