#pragma once

#include "public/common/Clock.h"
#include "public/common/StoreIn.h"

#include <boost/asio/awaitable.hpp>

#include <optional>
#include <stdexcept>
#include <utility>

namespace skein {

/// Thrown by `within` when the time is over first.
class TimeLimitExceeded : public std::runtime_error {
public:
    TimeLimitExceeded() : std::runtime_error("Timed out") {}
};

/// Awaits `work`, at most `limit` long: then it is cancelled, its end awaited, and TimeLimitExceeded thrown.
/// What `work` throws comes through. Both run on the caller's executor.
asio::awaitable<void> within(Clock& clock, Clock::Duration limit, asio::awaitable<void> work);

template <class T>
asio::awaitable<T> within(Clock& clock, Clock::Duration limit, asio::awaitable<T> work) {
    std::optional<T> result;
    asio::awaitable<void> storing = storeIn(result, std::move(work));
    co_await within(clock, limit, std::move(storing));
    co_return std::move(*result);
}

}  // namespace skein
