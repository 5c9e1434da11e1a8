#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <sys/uio.h>

namespace skein {

/// Walks along a list of buffers for calls that transfer only part of it.
class VectorCursor {
public:
    explicit VectorCursor(std::span<const iovec> buffers) noexcept : buffers_(buffers) {}

    /// Describes up to `limit` of the bytes that are left in at most `window.size()` entries; returns how many it used.
    int describe(std::span<iovec> window, std::size_t limit) const noexcept {
        int used = 0;
        std::size_t skip = inFirst_;
        for (const iovec& buffer : buffers_) {
            if (limit == 0 || used == static_cast<int>(window.size())) break;
            const std::size_t length = std::min(buffer.iov_len - skip, limit);
            if (length > 0)
                window[static_cast<std::size_t>(used++)] = {static_cast<std::byte*>(buffer.iov_base) + skip, length};
            limit -= length;
            skip = 0;
        }
        return used;
    }
    /// Leaves `length` bytes behind.
    void advance(std::size_t length) noexcept {
        inFirst_ += length;
        while (!buffers_.empty() && inFirst_ >= buffers_.front().iov_len) {
            inFirst_ -= buffers_.front().iov_len;
            buffers_ = buffers_.subspan(1);
        }
    }
    static std::size_t total(std::span<const iovec> buffers) noexcept {
        std::size_t length = 0;
        for (const iovec& buffer : buffers) length += buffer.iov_len;
        return length;
    }

private:
    std::span<const iovec> buffers_;
    std::size_t inFirst_ = 0;
};

}  // namespace skein
