#pragma once

#include <boost/asio/awaitable.hpp>

#include <chrono>

namespace skein {

namespace asio = boost::asio;

/// Where time comes from: the real one in the program, one that is moved by hand in tests.
///
/// Thread: any. A clock outlives all that sleeps by it.
class Clock {
public:
    using Duration = std::chrono::steady_clock::duration;
    using TimePoint = std::chrono::steady_clock::time_point;
    using WallTime = std::chrono::system_clock::time_point;

    Clock() = default;
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;
    virtual ~Clock() = default;

    /// Monotonic; for measuring and for deadlines.
    virtual TimePoint now() const = 0;
    /// The date, for what is shown or stored.
    virtual WallTime wallNow() const = 0;
    /// Returns after `duration` (at once when it is not positive). Throws boost::system::system_error
    /// (operation_aborted) when the caller is cancelled.
    virtual asio::awaitable<void> sleep(Duration duration) = 0;
};

class RealClock final : public Clock {
public:
    TimePoint now() const override;
    WallTime wallNow() const override;
    asio::awaitable<void> sleep(Duration duration) override;
};

}  // namespace skein
