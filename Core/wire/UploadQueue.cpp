#include "Core/wire/UploadQueue.h"

#include <algorithm>

namespace skein {

namespace {

constexpr std::int64_t smallestBatch = std::int64_t{16} << 10U;
/// Few system calls and thread changes a MiB, and still at home in the second-level cache.
constexpr std::int64_t largestBatch = std::int64_t{1024} << 10U;
constexpr std::chrono::milliseconds quickWrite{100};
constexpr std::chrono::seconds slowWrite{1};

}  // namespace

bool UploadQueue::push(const BlockRequest& request) {
    if (request.pieceIndex < 0 || request.begin < 0 || request.length <= 0 || request.length > maxBlockLength)
        return false;
    queue_.push_back(request);
    return true;
}

void UploadQueue::cancel(const BlockRequest& request) {
    const auto found = std::find(queue_.begin(), queue_.end(), request);
    if (found != queue_.end()) queue_.erase(found);
}

std::vector<BlockRequest> UploadQueue::takeBatch(std::int64_t maxBytes) {
    std::vector<BlockRequest> batch;
    const std::int64_t room = std::min(maxBytes, batchBytes_);
    std::int64_t bytes = 0;
    while (!queue_.empty() && (batch.empty() || bytes + queue_.front().length <= room)) {
        bytes += queue_.front().length;
        batch.push_back(queue_.front());
        queue_.pop_front();
    }
    return batch;
}

void UploadQueue::noteWriteTime(Clock::Duration taken) noexcept {
    if (taken < quickWrite) batchBytes_ = std::min(largestBatch, batchBytes_ * 2);
    if (taken > slowWrite) batchBytes_ = std::max(smallestBatch, batchBytes_ / 2);
}

}  // namespace skein
