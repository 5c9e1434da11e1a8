#include "public/common/NameResolver.h"
#include "public/common/StartThread.h"
#include "public/common/ThreadPools.h"
#include "public/common/Within.h"
#include "tests/support/Simulation.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <string>
#include <thread>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::Contains, testing::ElementsAre;

const IPAddress loopback = *IPAddress::parse("127.0.0.1");
/// Longer than a name may be: refused by the system itself, without asking anybody.
const std::string nobody(300, 'a');

TEST(SystemNameResolver, findsNamesAndTakesLiteralsAsTheyAre) {
    Simulation simulation;
    SystemNameResolver resolver;
    EXPECT_THAT(simulation.finish(resolver.resolve("localhost")), Contains(loopback));
    EXPECT_THAT(simulation.finish(resolver.resolve("127.0.0.1")), ElementsAre(loopback));
    EXPECT_THAT(simulation.finish(resolver.resolve("::1")), ElementsAre(*IPAddress::parse("::1")));
    EXPECT_THROW(simulation.finish(resolver.resolve(nobody)), boost::system::system_error);
}

TEST(SystemNameResolver, moreLookUpsThanThreadsAreAllAnswered) {
    ThreadPools pools;
    SystemNameResolver resolver;
    std::vector<std::future<std::vector<IPAddress>>> pending;
    for (int i = 0; i < 10 * NameLookups::maxThreads; ++i)
        pending.push_back(asio::co_spawn(pools.io(), resolver.resolve("localhost"), asio::use_future));
    for (auto& future : pending) EXPECT_THAT(future.get(), Contains(loopback));
}

TEST(NameLookups, asksForAHostOnceOnFewThreads) {
    std::promise<void> mayAnswer;
    const auto gate = mayAnswer.get_future().share();
    std::atomic<int> asked = 0;
    std::atomic<int> atOnce = 0;
    std::atomic<int> most = 0;
    const auto lookups = std::make_shared<NameLookups>([&, gate](const std::string& host) {
        ++asked;
        most = std::max<int>(most, ++atOnce);
        gate.wait();
        --atOnce;
        return host == "nobody" ? NameLookups::Addresses() : NameLookups::Addresses{loopback};
    });
    ThreadPools pools;
    SystemNameResolver resolver({}, lookups);
    std::vector<std::future<std::vector<IPAddress>>> pending;
    for (int i = 0; i < 200; ++i)
        pending.push_back(
            asio::co_spawn(pools.io(), resolver.resolve("host" + std::to_string(i % 20)), asio::use_future));
    while (atOnce < NameLookups::maxThreads) std::this_thread::yield();
    mayAnswer.set_value();
    for (auto& future : pending) EXPECT_THAT(future.get(), ElementsAre(loopback));
    EXPECT_EQ(asked, 20);
    EXPECT_EQ(most, NameLookups::maxThreads);
    EXPECT_THROW(asio::co_spawn(pools.io(), resolver.resolve("nobody"), asio::use_future).get(),
                 boost::system::system_error);
    asio::co_spawn(pools.io(), resolver.resolve("host3"), asio::use_future).get();
    EXPECT_EQ(asked, 21) << "what was found is kept";
}

TEST(NameLookups, makesDoWithTheThreadsThatItGets) {
    std::vector<std::thread> threads;
    std::size_t mayStart = 0;
    const auto start = [&](std::function<void()> work) {
        if (threads.size() == mayStart) throw ThreadShortage("no thread can be started");
        threads.emplace_back(std::move(work));
    };
    std::promise<void> mayAnswer;
    const auto ask = [gate = mayAnswer.get_future().share()](const std::string&) {
        gate.wait();
        return NameLookups::Addresses{loopback};
    };
    const auto lookups = std::make_shared<NameLookups>(ask, start);
    std::atomic<int> found = 0;
    std::atomic<int> unfound = 0;
    const auto begin = [&](const std::string& host) {
        lookups->begin(
            lookups->newId(), host, [] { return true; },
            [&](const NameLookups::Addresses* addresses) { ++(addresses->empty() ? unfound : found); });
    };
    begin("one");
    EXPECT_EQ(unfound, 1) << "nobody could ever ask";
    mayStart = 1;
    for (const char* host : {"one", "two", "three"}) begin(host);
    EXPECT_EQ(unfound, 1);
    mayAnswer.set_value();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(found, 3);
}

TEST(SystemNameResolver, leavesNobodyWaitingWhenCancelledOrGone) {
    Simulation simulation;
    auto resolver = std::make_unique<SystemNameResolver>();
    for (int i = 0; i < 50; ++i) simulation.failureOf(within(simulation, 0s, resolver->resolve("localhost")));
    int ended = 0;
    for (int i = 0; i < 50; ++i)
        asio::co_spawn(simulation.executor(), resolver->resolve("localhost"), [&](auto&&...) { ++ended; });
    simulation.settle();
    resolver.reset();
    simulation.runUntil([&] { return ended == 50; });
}

}  // namespace
}  // namespace skein
