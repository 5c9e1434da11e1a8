#pragma once

#include "public/common/HTTPWorker.h"

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/execution/outstanding_work.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/prefer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <memory>
#include <utility>

namespace skein {

/// Has `start(done)` ask the worker something of the transfer `id` and returns, where the caller was, when it is done.
/// Cancelling the caller ends the transfer. Throws what the exchange says went wrong.
template <class Start>
asio::awaitable<void> askWorker(std::shared_ptr<HTTPWorker> worker, HTTPWorker::Id id,
                                std::shared_ptr<HTTPExchange> exchange, Start start) {
    const auto initiate = [worker, id, &start](auto handler) {
        auto home = asio::prefer(asio::get_associated_executor(handler), asio::execution::outstanding_work.tracked);
        const auto slot = asio::get_associated_cancellation_slot(handler);
        if (slot.is_connected()) {
            // The worker is held: this may be told to cancel what has ended long ago.
            auto cancel = [worker, id](asio::cancellation_type) { worker->cancel(id); };
            auto assignable = slot;
            assignable.assign(std::move(cancel));
        }
        const auto shared = std::make_shared<decltype(handler)>(std::move(handler));
        start([home, shared] { asio::post(home, std::move(*shared)); });
    };
    co_await asio::async_initiate<const asio::use_awaitable_t<>, void()>(initiate, asio::use_awaitable);
    const HTTPOutcome& outcome = exchange->outcome;
    if (outcome.error) throw HTTPException(*outcome.error, outcome.detail);
    if (exchange->isAborted) throw boost::system::system_error(asio::error::operation_aborted);
}

}  // namespace skein
