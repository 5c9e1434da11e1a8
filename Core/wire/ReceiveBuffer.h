#pragma once

#include "public/common/Bytes.h"

#include <cstring>
#include <memory>
#include <span>

namespace skein {

/// Bytes that came in and are not yet used up, in one run. Small while little comes, so that a thousand idle
/// connections cost little; large once data flows, so that one system call brings many messages.
class ReceiveBuffer {
public:
    static constexpr std::size_t smallSize = std::size_t{4} << 10U;
    static constexpr std::size_t largeSize = std::size_t{512} << 10U;

    ByteView unread() const noexcept { return {data_.get() + start_, end_ - start_}; }
    void consume(std::size_t count) noexcept {
        start_ += count;
        if (start_ == end_) start_ = end_ = 0;
    }

    /// Room for the next receive. Only a message longer than the buffer makes it grow beyond `largeSize`, and only as
    /// its bytes arrive: a promised length alone costs nothing.
    std::span<std::uint8_t> prepare() {
        if (capacity_ == 0) {
            grow(smallSize);
        } else if (wasFilled_ && capacity_ < largeSize) {
            grow(largeSize);
        } else if (start_ > 0 && capacity_ - end_ < capacity_ / 4) {
            std::memmove(data_.get(), data_.get() + start_, end_ - start_);
            end_ -= start_;
            start_ = 0;
        }
        if (end_ == capacity_) grow(capacity_ * 2);
        return {data_.get() + end_, capacity_ - end_};
    }
    void commit(std::size_t count) noexcept {
        end_ += count;
        wasFilled_ = end_ == capacity_;
    }

private:
    void grow(std::size_t capacity) {
        auto larger = std::make_unique_for_overwrite<std::uint8_t[]>(capacity);
        if (end_ > start_) std::memcpy(larger.get(), data_.get() + start_, end_ - start_);
        end_ -= start_;
        start_ = 0;
        capacity_ = capacity;
        data_ = std::move(larger);
    }

    std::unique_ptr<std::uint8_t[]> data_;
    std::size_t capacity_ = 0;
    std::size_t start_ = 0;
    std::size_t end_ = 0;
    bool wasFilled_ = false;
};

}  // namespace skein
