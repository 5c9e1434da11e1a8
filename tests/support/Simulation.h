#pragma once

#include "public/common/Clock.h"
#include "tests/support/FailureIn.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_future.hpp>

#include <functional>
#include <future>
#include <map>
#include <optional>
#include <utility>

namespace skein {

/// A Clock moved by hand, and the one thread (the test's) on which everything under test runs.
///
/// Real sockets on loopback work beside it: `finish` and `runUntil` wait for them in real time, and fail the test
/// after `patience` instead of hanging.
class Simulation final : public Clock {
public:
    static constexpr std::chrono::seconds patience{120};

    Simulation();
    ~Simulation() override;

    asio::any_io_executor executor() { return context_.get_executor(); }

    TimePoint now() const override { return now_; }
    WallTime wallNow() const override;
    asio::awaitable<void> sleep(Duration duration) override;

    /// Moves time on, stopping at each sleeper's deadline to run all that is ready.
    void advance(Duration duration);
    /// Runs what is ready, and what sockets bring, until `condition` holds.
    void runUntil(const std::function<bool()>& condition);
    /// The same, and lets time pass while the sockets are quiet: what waits for either comes about.
    void advanceUntil(const std::function<bool()>& condition);
    /// Runs until `amount` stands still in real time: full buffers let the sockets bring no more.
    void runUntilStill(const std::function<std::uint64_t()>& amount);
    /// Runs what is ready now, without waiting for anything.
    void settle();
    /// Starts `task`; the future has its result or what it threw.
    template <class T>
    std::future<T> begin(asio::awaitable<T> task) {
        return asio::co_spawn(context_, std::move(task), asio::use_future);
    }
    template <class T>
    static bool hasEnded(const std::future<T>& begun) {
        return begun.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }
    /// Runs until `begun` has ended and returns its result or throws what it threw. Time does not move.
    template <class T>
    T finish(std::future<T> begun) {
        runUntil([&] { return hasEnded(begun); });
        return begun.get();
    }
    template <class T>
    T finish(asio::awaitable<T> task) {
        return finish(begin(std::move(task)));
    }
    /// The text of what `task`, begun or not, throws; "none" when it throws nothing.
    template <class Task>
    std::string failureOf(Task task) {
        return failureIn<std::exception>([&] { finish(std::move(task)); });
    }
    /// How many wait for a time to come.
    std::size_t sleepers() const noexcept { return sleepers_.size(); }
    /// Starts `task`; its end and its failures go unnoticed.
    void start(asio::awaitable<void> task);

private:
    struct Sleeper {
        explicit Sleeper(const asio::any_io_executor& executor)
            : wake(executor, asio::steady_timer::time_point::max()) {}
        asio::steady_timer wake;
        bool isDue = false;
    };

    asio::io_context context_{1};
    TimePoint start_{};
    TimePoint now_{};
    std::multimap<TimePoint, Sleeper*> sleepers_;
};

}  // namespace skein
