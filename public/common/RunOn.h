#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

namespace skein {

namespace asio = boost::asio;

/// Runs `work` on `pool` (the disk pool, for file calls and hashing) and returns its result where the caller was;
/// what it throws comes through. Cancelling the caller does not end the wait: `work` may still use what the caller
/// owns. `pool` ends before the caller's own executor does, which its threads still hold for a moment after they
/// resumed it.
asio::awaitable<void> runOnPool(asio::any_io_executor pool, std::function<void()> work);

/// The same for work that returns something, or is not copied.
template <class Work>
asio::awaitable<std::invoke_result_t<Work&>> runOn(asio::any_io_executor pool, Work work) {
    using Result = std::invoke_result_t<Work&>;
    if constexpr (std::is_void_v<Result>) {
        std::function<void()> step = [&work] { work(); };
        co_await runOnPool(pool, std::move(step));
    } else {
        std::optional<Result> result;
        std::function<void()> step = [&work, &result] { result.emplace(work()); };
        co_await runOnPool(pool, std::move(step));
        co_return std::move(*result);
    }
}

}  // namespace skein
