#pragma once

#include "public/common/Clock.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/experimental/parallel_group.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <array>
#include <exception>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace skein {

/// Thrown by `within` when the time is over first.
class TimeLimitExceeded : public std::runtime_error {
public:
    TimeLimitExceeded() : std::runtime_error("Timed out") {}
};

/// Awaits `work`, at most `limit` long: then it is cancelled, its end awaited, and TimeLimitExceeded thrown.
/// What `work` throws comes through. Both run on the caller's executor.
template <class T>
asio::awaitable<T> within(Clock& clock, Clock::Duration limit, asio::awaitable<T> work) {
    const auto executor = co_await asio::this_coro::executor;
    auto both = asio::experimental::make_parallel_group(asio::co_spawn(executor, std::move(work), asio::deferred),
                                                        asio::co_spawn(executor, clock.sleep(limit), asio::deferred));
    if constexpr (std::is_void_v<T>) {
        const auto [order, failure, alarm] =
            co_await both.async_wait(asio::experimental::wait_for_one(), asio::use_awaitable);
        if (order[0] == 1 && !alarm) throw TimeLimitExceeded();
        if (failure) std::rethrow_exception(failure);
    } else {
        auto [order, failure, result, alarm] =
            co_await both.async_wait(asio::experimental::wait_for_one(), asio::use_awaitable);
        if (order[0] == 1 && !alarm) throw TimeLimitExceeded();
        if (failure) std::rethrow_exception(failure);
        co_return std::move(result);
    }
}

}  // namespace skein
