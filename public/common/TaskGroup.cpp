#include "public/common/TaskGroup.h"

#include "public/common/FatalFault.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_state.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <cassert>
#include <exception>
#include <new>
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
    } catch (const std::bad_alloc&) {
        endProgram("not enough memory");
    } catch (const std::exception& error) {
        text = error.what();
    } catch (...) {
        // Whatever it is, it must not vanish.
    }
    stopProgram("a background task failed: " + text);
}

}  // namespace

/// Takes a task's signal out of the list when the task ends, however it ends.
class TaskGroup::Entry {
public:
    Entry(TaskGroup& group, const std::shared_ptr<asio::cancellation_signal>& signal)
        : group_(group), position_(group.running_.insert(group.running_.end(), signal)) {}
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    ~Entry() {
        group_.running_.erase(position_);
        if (group_.stopping_) group_.changed_.cancel();
    }

private:
    TaskGroup& group_;
    Signals::iterator position_;
};

TaskGroup::TaskGroup(const asio::any_io_executor& pool) : TaskGroup(asio::make_strand(pool)) {}

TaskGroup::TaskGroup(const Strand& strand) : strand_(strand), changed_(strand_) {
    changed_.expires_at(asio::steady_timer::time_point::max());
}

TaskGroup::~TaskGroup() {
    // An actor that goes without having been stopped met a lack of memory while it was handed from one owner to
    // another. Its tasks would go on in freed memory.
    if (!running_.empty() && std::uncaught_exceptions() > 0) endProgram("not enough memory");
    assert(running_.empty());
}

asio::awaitable<void> TaskGroup::call(asio::awaitable<void> task) {
    // Shared, because co_spawn's own forwarding follows a pointer that the caller's strand may have freed by then.
    const auto signal = std::make_shared<asio::cancellation_signal>();
    const asio::cancellation_state caller = co_await asio::this_coro::cancellation_state;
    if (caller.slot().is_connected())
        caller.slot().assign([strand = strand_, signal](asio::cancellation_type type) {
            asio::dispatch(strand, [signal, type] { signal->emit(type); });
        });
    co_await asio::co_spawn(strand_, tracked(signal, std::move(task)),
                            asio::bind_cancellation_slot(signal->slot(), asio::use_awaitable));
}

asio::awaitable<void> TaskGroup::tracked(std::shared_ptr<asio::cancellation_signal> signal,
                                         asio::awaitable<void> task) {
    if (stopping_) throw boost::system::system_error(asio::error::operation_aborted);
    const Entry entry(*this, signal);
    co_await std::move(task);
}

asio::awaitable<void> TaskGroup::finish(asio::awaitable<void> work) {
    return asio::co_spawn(strand_, std::move(work),
                          asio::bind_cancellation_slot(asio::cancellation_slot(), asio::use_awaitable));
}

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

asio::awaitable<void> TaskGroup::stop() { return finish(drain()); }

asio::awaitable<void> TaskGroup::drain() {
    stopping_ = true;
    const Signals signals = running_;
    for (const auto& signal : signals) signal->emit(asio::cancellation_type::terminal);
    while (!running_.empty()) co_await changed_.async_wait(asio::as_tuple(asio::use_awaitable));
}

}  // namespace skein
