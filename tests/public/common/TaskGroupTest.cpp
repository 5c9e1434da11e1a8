#include "public/common/RunOn.h"
#include "public/common/TaskGroup.h"
#include "public/common/ThreadPools.h"
#include "tests/support/Simulation.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/system/system_error.hpp>
#include <gtest/gtest.h>

#include <thread>

namespace skein {
namespace {

using namespace std::chrono_literals;

asio::awaitable<void> sleepThen(Clock& clock, Clock::Duration duration, int& count) {
    co_await clock.sleep(duration);
    ++count;
}

TEST(TaskGroup, stopCancelsWhatRunsAndRefusesWhatComes) {
    Simulation simulation;
    int count = 0;
    TaskGroup tasks(simulation.executor());
    tasks.spawn(sleepThen(simulation, 1s, count));
    tasks.spawn(sleepThen(simulation, 1h, count));
    simulation.advance(2s);
    EXPECT_EQ(count, 1);
    simulation.finish(tasks.stop());
    tasks.spawn(sleepThen(simulation, 0s, count));
    EXPECT_THROW(simulation.finish(tasks.call(sleepThen(simulation, 0s, count))), boost::system::system_error);
    simulation.advance(2h);
    EXPECT_EQ(count, 1);
}

/// Ends like a look-up that finds nothing in the moment in which it is cancelled.
asio::awaitable<void> failWhenCancelled(Clock& clock, int& count) {
    try {
        co_await clock.sleep(1h);
    } catch (const boost::system::system_error&) {
        ++count;
    }
    if (count > 0) throw boost::system::system_error(asio::error::host_not_found);
}

TEST(TaskGroup, anErrorThatComesWithTheCancellationIsAnEndLikeAnother) {
    Simulation simulation;
    int count = 0;
    TaskGroup tasks(simulation.executor());
    tasks.spawn(failWhenCancelled(simulation, count));
    simulation.settle();
    simulation.finish(tasks.stop());
    EXPECT_EQ(count, 1);
}

asio::awaitable<void> throwANumber() {
    throw 7;
    co_return;
}

TEST(TaskGroupDeathTest, whatIsNoExceptionDoesNotVanishEither) {
    const auto run = [] {
        Simulation simulation;
        TaskGroup tasks(simulation.executor());
        tasks.spawn(throwANumber());
        simulation.settle();
    };
    EXPECT_DEATH(run(), "a background task failed: something that is no exception");
}

/// An actor whose count is only safe because every call moves to its strand.
class Counter {
public:
    explicit Counter(const asio::any_io_executor& pool) : tasks_(pool) {}
    asio::awaitable<int> add() { return tasks_.call(addOne()); }
    asio::awaitable<void> stop() { return tasks_.stop(); }

private:
    asio::awaitable<int> addOne() { co_return ++count_; }
    int count_ = 0;
    TaskGroup tasks_;
};

asio::awaitable<void> addMany(Counter& counter, int times) {
    for (int i = 0; i < times; ++i) co_await counter.add();
}

TEST(TaskGroup, callsFromManyThreadsMeetOnOneStrand) {
    ThreadPools pools;
    Counter counter(pools.io());
    std::vector<std::future<void>> callers;
    for (int i = 0; i < 8; ++i) callers.push_back(asio::co_spawn(pools.io(), addMany(counter, 500), asio::use_future));
    for (auto& caller : callers) caller.get();
    EXPECT_EQ(asio::co_spawn(pools.io(), counter.add(), asio::use_future).get(), 4001);
    asio::co_spawn(pools.io(), counter.stop(), asio::use_future).get();
}

asio::awaitable<std::thread::id> threadAfter(asio::any_io_executor disk, std::thread::id& worker) {
    worker = co_await runOn(disk, [] { return std::this_thread::get_id(); });
    co_return std::this_thread::get_id();
}

TEST(RunOn, worksElsewhereAndComesBack) {
    Simulation simulation;
    ThreadPools pools;  // goes first: its thread lets go of the caller's executor a little after the caller came back
    std::thread::id worker;
    EXPECT_EQ(simulation.finish(threadAfter(pools.disk(), worker)), std::this_thread::get_id());
    EXPECT_NE(worker, std::this_thread::get_id());
    const auto fail = []() -> int { throw std::runtime_error("no disk"); };
    EXPECT_THROW(simulation.finish(runOn(pools.disk(), fail)), std::runtime_error);
}

}  // namespace
}  // namespace skein
