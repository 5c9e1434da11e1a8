#include "public/common/NameResolver.h"
#include "public/common/ThreadPools.h"
#include "public/common/Within.h"
#include "tests/support/Simulation.h"

#include <boost/asio/use_future.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

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
    for (int i = 0; i < 10 * SystemNameResolver::maxThreads; ++i)
        pending.push_back(asio::co_spawn(pools.io(), resolver.resolve("localhost"), asio::use_future));
    for (auto& future : pending) EXPECT_THAT(future.get(), Contains(loopback));
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
