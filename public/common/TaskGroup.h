#pragma once

#include "public/common/StoreIn.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>

#include <list>
#include <memory>
#include <optional>
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
    asio::awaitable<void> call(asio::awaitable<void> task);
    template <class T>
    asio::awaitable<T> call(asio::awaitable<T> task) {
        std::optional<T> result;
        asio::awaitable<void> storing = storeIn(result, std::move(task));
        co_await call(std::move(storing));
        co_return std::move(*result);
    }

    /// Runs `work` on the strand to its end, also when the caller is cancelled and when the group stops: it is none of
    /// the group's tasks, and may itself stop the group. What an actor's `stop()` does is such work.
    asio::awaitable<void> finish(asio::awaitable<void> work);

    /// Starts `task` on the strand. It catches its own failures: what escapes it is a programming error and stops the
    /// program, but for the end by cancellation. An operation that fails in the moment in which it is cancelled (a
    /// look-up, a connect) reports its own error instead: while the group stops, that is such an end, too.
    void spawn(asio::awaitable<void> task);

    /// Cancels all that runs, refuses what comes, and returns when the last task has ended. May be called again.
    asio::awaitable<void> stop();

private:
    using Signals = std::list<std::shared_ptr<asio::cancellation_signal>>;

    class Entry;

    asio::awaitable<void> tracked(std::shared_ptr<asio::cancellation_signal> signal, asio::awaitable<void> task);
    asio::awaitable<void> supervise(asio::awaitable<void> task);
    asio::awaitable<void> drain();

    Strand strand_;
    asio::steady_timer changed_;
    Signals running_;
    bool stopping_ = false;
};

}  // namespace skein
