#include "public/common/Within.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/experimental/parallel_group.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <array>
#include <exception>

namespace skein {

asio::awaitable<void> within(Clock& clock, Clock::Duration limit, asio::awaitable<void> work) {
    const auto executor = co_await asio::this_coro::executor;
    auto both = asio::experimental::make_parallel_group(asio::co_spawn(executor, std::move(work), asio::deferred),
                                                        asio::co_spawn(executor, clock.sleep(limit), asio::deferred));
    const auto [order, failure, alarm] =
        co_await both.async_wait(asio::experimental::wait_for_one(), asio::use_awaitable);
    if (order[0] == 1 && !alarm) throw TimeLimitExceeded();
    if (failure) std::rethrow_exception(failure);
}

}  // namespace skein
