#include "public/common/RunOn.h"

#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/execution/outstanding_work.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/prefer.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <exception>

namespace skein {

asio::awaitable<void> runOnPool(asio::any_io_executor pool, std::function<void()> work) {
    std::exception_ptr failure;
    auto attempt = [&]() noexcept {
        try {
            work();
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
}

}  // namespace skein
