#pragma once

#include "public/common/Notifier.h"
#include "public/common/Within.h"

#include <cstdint>

namespace skein {

/// Changes that are counted, so that none is missed between looking at a state and waiting for its change. Thread: one
/// strand.
class ChangeCount {
public:
    explicit ChangeCount(const asio::any_io_executor& strand) : changed_(strand) {}

    std::uint64_t seen() const noexcept { return changes_; }
    void note() {
        ++changes_;
        changed_.notify();
    }
    /// Returns once there were changes after `seen`.
    asio::awaitable<void> since(std::uint64_t seen) {
        while (changes_ == seen) co_await changed_.wait();
    }
    /// The same, but returns after `limit` at the latest.
    asio::awaitable<void> since(std::uint64_t seen, Clock& clock, Clock::Duration limit) {
        try {
            co_await within(clock, limit, since(seen));
        } catch (const TimeLimitExceeded&) {
            // The caller looks at the clock.
        }
    }

private:
    std::uint64_t changes_ = 0;
    Notifier changed_;
};

}  // namespace skein
