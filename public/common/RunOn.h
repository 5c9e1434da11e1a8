#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/execution/outstanding_work.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/prefer.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

namespace skein {

namespace asio = boost::asio;

/// Runs `work` on `pool` (the disk pool, for file calls and hashing) and returns its result where the caller was;
/// what it throws comes through. Cancelling the caller does not end the wait: `work` may still use what the caller
/// owns. `pool` ends before the caller's own executor does, which its threads still hold for a moment after they
/// resumed it.
template <class Work>
asio::awaitable<std::invoke_result_t<Work&>> runOn(asio::any_io_executor pool, Work work) {
    using Result = std::invoke_result_t<Work&>;
    std::exception_ptr failure;
    std::optional<std::conditional_t<std::is_void_v<Result>, bool, Result>> result;
    auto attempt = [&]() noexcept {
        try {
            if constexpr (std::is_void_v<Result>) {
                work();
            } else {
                result.emplace(work());
            }
        } catch (...) {
            failure = std::current_exception();
        }
    };
    auto initiate = [&](auto handler) {
        auto home = asio::prefer(asio::get_associated_executor(handler), asio::execution::outstanding_work.tracked);
        asio::post(pool, [&attempt, home = std::move(home), handler = std::move(handler)]() mutable {
            attempt();
            asio::dispatch(home, std::move(handler));
        });
    };
    co_await asio::async_initiate<const asio::use_awaitable_t<>, void()>(initiate, asio::use_awaitable);
    if (failure) std::rethrow_exception(failure);
    if constexpr (!std::is_void_v<Result>) co_return std::move(*result);
}

}  // namespace skein
