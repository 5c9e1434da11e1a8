#include "Core/discovery/DHTNode.h"
#include "public/common/ThreadPools.h"
#include "tests/support/LoopbackDHT.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::Contains, testing::ElementsAre, testing::HasSubstr, testing::IsSupersetOf;

/// Real time, in which sleepers sleep a hundred times as fast.
struct QuickClock final : Clock {
    TimePoint now() const override { return real.now(); }
    WallTime wallNow() const override { return real.wallNow(); }
    asio::awaitable<void> sleep(Duration duration) override { return real.sleep(duration / 100); }
    RealClock real;
};

/// The parameter is the address of all nodes.
class DHTNodeTest : public testing::TestWithParam<const char*> {
protected:
    ~DHTNodeTest() override {
        simulation.finish(node.stop());
        simulation.finish(dht.stop());
    }

    void start(DHTNode& started) {
        simulation.start(started.start());
        simulation.runUntil([&] { return started.port() != 0 && dht.queries().contains("find_node"); });
        simulation.advance(2s);
    }
    std::vector<PeerAddress> drain(PeerStream& stream) {
        std::vector<PeerAddress> peers;
        while (auto peer = simulation.finish(stream.next())) peers.push_back(*peer);
        return peers;
    }
    /// Again while the bootstrap node's answer is on its way for longer than the simulated two seconds.
    std::vector<PeerAddress> find(DHTNode& by) {
        std::vector<PeerAddress> peers;
        while (peers.empty()) peers = drain(*by.findPeers(infoHash));
        return peers;
    }

    Simulation simulation;
    RecordingLogger log;
    SecureRandom random;
    SystemNameResolver resolver;
    const SHA1Digest infoHash = sha1(toBytes("a torrent"));
    const PeerAddress seeder{GetParam(), 1};
    LoopbackDHT dht{simulation.executor(), {30, GetParam()}};
    const DHTNode::Environment environment{simulation.executor(), simulation, log, random, resolver};
    const DHTNode::Options options{LocalBinding(GetParam()), 0, {dht.bootstrapNode()}};
    DHTNode node{environment, options};
};

INSTANTIATE_TEST_SUITE_P(families, DHTNodeTest, testing::Values("127.0.0.1", "::1"));

TEST_P(DHTNodeTest, whatOneNodeAnnouncesAnotherFinds) {
    dht.addPeer(infoHash, seeder);
    start(node);
    EXPECT_THAT(find(node), ElementsAre(seeder));  // and gathers tokens
    simulation.finish(node.announcePeer(infoHash, 4));
    EXPECT_THAT(log.lines(), Contains("[DHT] announce_peer sent=8 ok=8 failed=0 successRate=100%"));
    simulation.advance(5s);
    EXPECT_EQ(simulation.sleepers(), 0U);  // an idle node has nothing to wake up for
    DHTNode other(environment, options);
    start(other);
    EXPECT_THAT(find(other), IsSupersetOf({seeder, PeerAddress{GetParam(), node.port()}}));
    simulation.finish(other.stop());
}

TEST_P(DHTNodeTest, allWhoAskForOneInfoHashAreServedByOneLookup) {
    dht.addPeer(infoHash, seeder);
    start(node);
    find(node);
    const std::size_t before = log.lines().size();
    auto first = node.findPeers(infoHash);
    const auto second = node.findPeers(infoHash);
    node.findPeers(infoHash).reset();
    EXPECT_EQ(simulation.finish(first->next()), seeder);
    const auto late = node.findPeers(infoHash);
    first.reset();
    EXPECT_THAT(drain(*second), ElementsAre(seeder));
    EXPECT_THAT(drain(*late), ElementsAre(seeder));
    EXPECT_EQ(log.lines().size(), before + 1);
}

TEST_P(DHTNodeTest, aLookupWaitsForTheBootstrapAndEndsWhenNobodyWantsItOrTheNodeStops) {
    dht.addPeer(infoHash, seeder);
    simulation.start(node.start());
    simulation.runUntil([&] { return node.port() != 0; });
    auto stream = node.findPeers(infoHash);
    simulation.runUntil([&] { return dht.queries().contains("find_node"); });
    simulation.settle();
    EXPECT_FALSE(dht.queries().contains("get_peers"));
    simulation.advance(2s);
    find(node);
    simulation.finish(dht.stop());  // now all are silent
    for (const bool isGivenUp : {true, false}) {
        stream = node.findPeers(infoHash);
        simulation.settle();
        if (isGivenUp) stream.reset();
    }
    EXPECT_THAT(log.lines().back(), HasSubstr("reason=cancelled"));
    simulation.finish(node.stop());
    EXPECT_EQ(simulation.finish(stream->next()), std::nullopt);
    EXPECT_EQ(simulation.sleepers(), 0U);
}

TEST_P(DHTNodeTest, aPortThatIsTakenIsReported) {
    start(node);
    DHTNode second(environment, {LocalBinding(GetParam()), node.port(), {}});
    EXPECT_THROW(simulation.finish(second.start()), boost::system::system_error);
    EXPECT_THAT(log.lines(), Contains("[DHT] Listener failed: Address already in use"));
    EXPECT_EQ(simulation.finish(second.findPeers(infoHash)->next()), std::nullopt);
    simulation.finish(second.stop());
}

TEST_P(DHTNodeTest, servesSessionsOnManyThreads) {
    dht.addPeer(infoHash, seeder);
    ThreadPools pools;
    QuickClock clock;
    DHTNode busy({pools.io(), clock, log, random, resolver}, {LocalBinding(), 0, {dht.bootstrapNode()}});
    auto started = asio::co_spawn(pools.io(), busy.start(), asio::use_future);
    // Again while the bootstrap node's answer is on its way for longer than the quick two seconds.
    for (bool areServed = false; !areServed;) {
        std::vector<std::unique_ptr<PeerStream>> streams;
        std::vector<std::future<std::optional<PeerAddress>>> first;
        for (int i = 0; i < 20; ++i) {
            streams.push_back(busy.findPeers(infoHash));
            first.push_back(asio::co_spawn(pools.io(), streams.back()->next(), asio::use_future));
        }
        areServed = true;
        for (auto& peer : first) areServed = simulation.finish(std::move(peer)).has_value() && areServed;
    }
    started.get();
    asio::co_spawn(pools.io(), busy.stop(), asio::use_future).get();
}

}  // namespace
}  // namespace skein
