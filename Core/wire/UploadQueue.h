#pragma once

#include "Core/wire/BlockRequest.h"
#include "public/common/Clock.h"

#include <deque>
#include <vector>

namespace skein {

/// The requests of one peer that wait for an answer, and how many to answer in one write. Not thread-safe.
class UploadQueue {
public:
    /// Deployed peers queue a few hundred; one that asks for more is not read until its queue is shorter.
    static constexpr std::size_t maxQueued = 1024;
    /// Larger requests are refused by deployed peers too.
    static constexpr int maxBlockLength = 131'072;

    /// False for a request that no peer should make; it is not queued.
    bool push(const BlockRequest& request);
    /// Drops a queued request.
    void cancel(const BlockRequest& request);
    void clear() noexcept { queue_.clear(); }
    bool isEmpty() const noexcept { return queue_.empty(); }
    bool isFull() const noexcept { return queue_.size() >= maxQueued; }

    /// The next requests to answer together, at most `maxBytes` of blocks, at least one; empty when none waits.
    std::vector<BlockRequest> takeBatch(std::int64_t maxBytes);
    /// Learns from how long the last batch took to write: a quick peer gets larger ones.
    void noteWriteTime(Clock::Duration taken) noexcept;

private:
    std::deque<BlockRequest> queue_;
    std::int64_t batchBytes_ = std::int64_t{64} << 10U;
};

}  // namespace skein
