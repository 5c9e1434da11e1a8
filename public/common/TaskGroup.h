#pragma once

#include "public/common/Clock.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/cancellation_state.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <list>
#include <memory>
#include <utility>

namespace skein {

using Strand = asio::strand<asio::any_io_executor>;

/// A strand and the list of what runs on it: the inside of every actor.
///
/// Owner: the actor, as its last member. Before the group goes, `stop()` has returned, or nothing runs: its end asserts
/// that.
/// Thread: any.
class TaskGroup {
public:
    /// A group with a strand of its own over `pool`.
    explicit TaskGroup(const asio::any_io_executor& pool);
    /// A group that shares the strand of an actor that it works hand in glove with: calls between them change no
    /// thread.
    explicit TaskGroup(const Strand& strand);
    TaskGroup(const TaskGroup&) = delete;
    TaskGroup& operator=(const TaskGroup&) = delete;
    ~TaskGroup();

    const Strand& strand() const noexcept { return strand_; }
    /// True from the moment `stop()` reached the strand. Thread: the strand.
    bool isStopping() const noexcept { return stopping_; }

    /// Runs `task` on the strand and returns its result; cancelling the caller cancels it. Throws
    /// boost::system::system_error (operation_aborted) once the group stops.
    template <class T>
    asio::awaitable<T> call(asio::awaitable<T> task) {
        // Shared, because co_spawn's own forwarding follows a pointer that the caller's strand may have freed by then.
        const auto signal = std::make_shared<asio::cancellation_signal>();
        const asio::cancellation_state caller = co_await asio::this_coro::cancellation_state;
        if (caller.slot().is_connected())
            caller.slot().assign([strand = strand_, signal](asio::cancellation_type type) {
                asio::dispatch(strand, [signal, type] { signal->emit(type); });
            });
        co_return co_await asio::co_spawn(strand_, tracked(signal, std::move(task)),
                                          asio::bind_cancellation_slot(signal->slot(), asio::use_awaitable));
    }

    /// Starts `task` on the strand. It catches its own failures: what escapes it is a programming error and stops the
    /// program, but for the end by cancellation. An operation that fails in the moment in which it is cancelled (a
    /// look-up, a connect) reports its own error instead: while the group stops, that is such an end, too.
    void spawn(asio::awaitable<void> task);

    /// Cancels all that runs, refuses what comes, and returns when the last task has ended. May be called again.
    asio::awaitable<void> stop();

private:
    using Signals = std::list<std::shared_ptr<asio::cancellation_signal>>;

    /// Takes a task's signal out of the list when the task ends, however it ends.
    class Entry {
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

    template <class T>
    asio::awaitable<T> tracked(std::shared_ptr<asio::cancellation_signal> signal, asio::awaitable<T> task) {
        if (stopping_) throw boost::system::system_error(asio::error::operation_aborted);
        const Entry entry(*this, signal);
        co_return co_await std::move(task);
    }

    asio::awaitable<void> supervise(asio::awaitable<void> task);
    asio::awaitable<void> drain();

    Strand strand_;
    asio::steady_timer changed_;
    Signals running_;
    bool stopping_ = false;
};

}  // namespace skein
