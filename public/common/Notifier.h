#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/steady_timer.hpp>

namespace skein {

namespace asio = boost::asio;

/// Wakes the coroutines of one strand that wait for something to change. Thread: that strand.
class Notifier {
public:
    explicit Notifier(const asio::any_io_executor& strand) : timer_(strand, asio::steady_timer::time_point::max()) {}

    /// Wakes all that wait now; one that comes later waits for the next change.
    void notify() {
        ++changes_;
        timer_.cancel();
    }
    /// Returns after the next `notify`. Throws boost::system::system_error (operation_aborted) when cancelled.
    /// The caller looks at its condition before and after.
    asio::awaitable<void> wait();

private:
    asio::steady_timer timer_;
    unsigned long changes_ = 0;
};

}  // namespace skein
