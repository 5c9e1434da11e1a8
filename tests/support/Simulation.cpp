#include "tests/support/Simulation.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <stdexcept>

namespace skein {

namespace {

/// 2026-01-01 00:00:00 UTC, the simulated date at the start.
constexpr std::chrono::seconds startOfSimulation{1767225600};

}  // namespace

Simulation::Simulation() : start_(TimePoint{} + std::chrono::hours(1)), now_(start_) {}

Simulation::~Simulation() = default;

Clock::WallTime Simulation::wallNow() const {
    return WallTime{startOfSimulation} + std::chrono::duration_cast<WallTime::duration>(now_ - start_);
}

asio::awaitable<void> Simulation::sleep(Duration duration) {
    if (duration <= Duration::zero()) co_return;
    const auto executor = co_await asio::this_coro::executor;
    Sleeper sleeper(executor);
    const auto entry = sleepers_.emplace(now_ + duration, &sleeper);
    const auto [error] = co_await sleeper.wake.async_wait(asio::as_tuple(asio::use_awaitable));
    if (sleeper.isDue) co_return;
    sleepers_.erase(entry);
    throw boost::system::system_error(error);
}

void Simulation::advance(Duration duration) {
    const TimePoint target = now_ + duration;
    settle();
    while (!sleepers_.empty() && sleepers_.begin()->first <= target) {
        const auto next = sleepers_.begin();
        now_ = std::max(now_, next->first);
        next->second->isDue = true;
        next->second->wake.cancel();
        sleepers_.erase(next);
        settle();
    }
    now_ = target;
}

void Simulation::runUntil(const std::function<bool()>& condition) {
    const auto giveUpAt = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        context_.restart();
        context_.run_one_for(std::chrono::milliseconds(5));
        if (std::chrono::steady_clock::now() > giveUpAt) throw std::runtime_error("the simulation waits in vain");
    }
}

void Simulation::advanceUntil(const std::function<bool()>& condition) {
    using std::chrono::milliseconds;
    for (const TimePoint giveUpAt = now_ + std::chrono::minutes(10); !condition(); advance(milliseconds(20))) {
        if (now_ > giveUpAt) throw std::runtime_error("the simulation waits in vain");
        const auto quietAt = std::chrono::steady_clock::now() + milliseconds(1);
        while (!condition() && std::chrono::steady_clock::now() < quietAt) settle();
    }
}

void Simulation::runUntilStill(const std::function<std::uint64_t()>& amount) {
    std::uint64_t before = 0;
    do {
        before = amount();
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
        runUntil([&] { return std::chrono::steady_clock::now() > end; });
    } while (amount() != before);
}

void Simulation::settle() {
    context_.restart();
    context_.poll();
}

void Simulation::start(asio::awaitable<void> task) {
    asio::co_spawn(context_, std::move(task), [](const std::exception_ptr&) {});
}

}  // namespace skein
