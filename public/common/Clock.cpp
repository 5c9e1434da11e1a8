#include "public/common/Clock.h"

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace skein {

Clock::TimePoint RealClock::now() const { return std::chrono::steady_clock::now(); }
Clock::WallTime RealClock::wallNow() const { return std::chrono::system_clock::now(); }

asio::awaitable<void> RealClock::sleep(Duration duration) {
    if (duration <= Duration::zero()) co_return;
    const auto executor = co_await asio::this_coro::executor;
    asio::steady_timer timer(executor, duration);
    co_await timer.async_wait(asio::use_awaitable);
}

}  // namespace skein
