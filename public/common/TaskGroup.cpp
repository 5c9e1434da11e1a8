#include "public/common/TaskGroup.h"

#include "public/common/FatalFault.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/detached.hpp>

#include <cassert>
#include <string>

namespace skein {

namespace {

void reportEscaped(const std::exception_ptr& failure, bool isStopping) {
    if (!failure) return;
    std::string text = "something that is no exception";
    try {
        std::rethrow_exception(failure);
    } catch (const boost::system::system_error& error) {
        if (isStopping || error.code() == asio::error::operation_aborted) return;
        text = error.what();
    } catch (const std::exception& error) {
        text = error.what();
    } catch (...) {
        // Whatever it is, it must not vanish.
    }
    stopProgram("a background task failed: " + text);
}

}  // namespace

TaskGroup::TaskGroup(const asio::any_io_executor& pool) : TaskGroup(asio::make_strand(pool)) {}

TaskGroup::TaskGroup(const Strand& strand) : strand_(strand), changed_(strand_) {
    changed_.expires_at(asio::steady_timer::time_point::max());
}

TaskGroup::~TaskGroup() { assert(running_.empty()); }

void TaskGroup::spawn(asio::awaitable<void> task) {
    asio::co_spawn(strand_, supervise(std::move(task)), asio::detached);
}

asio::awaitable<void> TaskGroup::supervise(asio::awaitable<void> task) {
    std::exception_ptr failure;
    try {
        co_await call(std::move(task));  // whose frame keeps the cancellation signal until the task's own is gone
    } catch (...) {
        failure = std::current_exception();
    }
    reportEscaped(failure, stopping_);
}

asio::awaitable<void> TaskGroup::stop() {
    // Stopping is not given up half way, so the caller's cancellation does not reach it.
    return asio::co_spawn(strand_, drain(),
                          asio::bind_cancellation_slot(asio::cancellation_slot(), asio::use_awaitable));
}

asio::awaitable<void> TaskGroup::drain() {
    stopping_ = true;
    const Signals signals = running_;
    for (const auto& signal : signals) signal->emit(asio::cancellation_type::terminal);
    while (!running_.empty()) co_await changed_.async_wait(asio::as_tuple(asio::use_awaitable));
}

}  // namespace skein
