#pragma once

#include "public/common/Bytes.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace skein {

/// What has come of a body and was not yet read, in chunks of one size whose memory is used again. Not thread-safe.
class HTTPBodyBuffer {
public:
    /// Few thread changes a MiB, and what is copied is still in the cache when it is written.
    static constexpr std::size_t chunkBytes = std::size_t{256} << 10U;
    static constexpr std::size_t maxHeldBytes = std::size_t{4} << 20U;
    /// What a reader is woken for while more comes at once.
    static constexpr std::size_t portionBytes = std::size_t{1} << 20U;

    /// False, and nothing is taken, when it is full: the sender waits.
    bool append(ByteView bytes) {
        if (heldBytes_ > 0 && heldBytes_ + bytes.size() > maxHeldBytes) return false;
        heldBytes_ += bytes.size();
        while (!bytes.empty()) {
            if (filled_.empty() || filled_.back().size() == chunkBytes) filled_.push_back(emptyChunk());
            Bytes& chunk = filled_.back();
            const std::size_t count = std::min(bytes.size(), chunkBytes - chunk.size());
            skein::append(chunk, bytes.first(count));
            bytes = bytes.subspan(count);
        }
        return true;
    }
    /// All of it.
    std::vector<Bytes> take() {
        heldBytes_ = 0;
        return std::exchange(filled_, {});
    }
    /// Keeps the memory of chunks that are done with.
    void recycle(std::vector<Bytes> chunks) {
        for (Bytes& chunk : chunks)
            if (spare_.size() < maxHeldBytes / chunkBytes) spare_.push_back(std::move(chunk));
    }
    std::size_t heldBytes() const noexcept { return heldBytes_; }

private:
    Bytes emptyChunk() {
        Bytes chunk;
        if (!spare_.empty()) {
            chunk = std::move(spare_.back());
            spare_.pop_back();
        }
        chunk.clear();
        chunk.reserve(chunkBytes);
        return chunk;
    }

    std::vector<Bytes> filled_;
    std::vector<Bytes> spare_;
    std::size_t heldBytes_ = 0;
};

}  // namespace skein
