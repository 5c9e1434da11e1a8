#include "Core/discovery/DHTNode.h"
#include "Core/formats/BEncoder.h"
#include "public/common/ThreadPools.h"
#include "tests/support/LoopbackDHT.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"

#include <boost/asio/use_future.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::MatchesRegex;

/// Real time, but a hundred times as fast to whoever sleeps.
class QuickClock final : public Clock {
public:
    TimePoint now() const override { return real.now(); }
    WallTime wallNow() const override { return real.wallNow(); }
    asio::awaitable<void> sleep(Duration duration) override { return real.sleep(duration / 100); }
    RealClock real;
};

/// The address (the parameter) is a literal, so that nothing is looked up.
class DHTNodeTest : public testing::TestWithParam<const char*> {
protected:
    ~DHTNodeTest() override {
        simulation.finish(node.stop());
        simulation.finish(dht.stop());
    }

    static PeerAddress asPeer(const DHTNode& node) { return {GetParam(), node.port()}; }
    /// Starts a node, which then knows the bootstrap node and those that it names.
    void start(DHTNode& started) {
        const auto seen = [&] { return dht.queries().contains("find_node"); };
        auto ended = asio::co_spawn(simulation.executor(), started.start(), asio::use_future);
        simulation.runUntil(seen);
        simulation.advance(2s);
        simulation.runUntil([&] { return ended.wait_for(0s) == std::future_status::ready; });
        ended.get();
    }
    std::vector<PeerAddress> drain(PeerStream& stream) {
        std::vector<PeerAddress> peers;
        while (auto peer = simulation.finish(stream.next())) peers.push_back(*peer);
        return peers;
    }
    /// Once more where the bootstrap node's answer was on its way for longer than the simulated two seconds.
    std::vector<PeerAddress> find(DHTNode& by) {
        std::vector<PeerAddress> peers;
        for (int i = 0; i < 1000 && peers.empty(); ++i) peers = drain(*by.findPeers(infoHash));
        return peers;
    }

    Simulation simulation;
    RecordingLogger log;
    SecureRandom random;
    SystemNameResolver resolver;
    const SHA1Digest infoHash = sha1(toBytes("a torrent"));
    LoopbackDHT dht{simulation.executor(), {30, GetParam()}};
    const DHTNode::Environment environment{simulation.executor(), simulation, log, random, resolver};
    const DHTNode::Options options{GetParam(), 0, {dht.bootstrapNode()}};
    DHTNode node{environment, options};
};

INSTANTIATE_TEST_SUITE_P(families, DHTNodeTest, testing::Values("127.0.0.1", "::1"),
                         [](const auto& family) { return family.index == 0 ? "IPv4" : "IPv6"; });

TEST_P(DHTNodeTest, whatOneNodeAnnouncesAnotherFinds) {
    dht.addPeer(infoHash, {GetParam(), 1});
    start(node);
    EXPECT_THAT(find(node), ElementsAre(PeerAddress{GetParam(), 1}));  // and gathers tokens
    EXPECT_THAT(log.lines().back(),
                MatchesRegex("\\[DHT\\] lookup finished reason=exhausted queried=[0-9]+ responses=[0-9]+ "
                             "timeouts=0 nodes=[0-9]+ peers=1 elapsed=0\\.0s"));
    simulation.finish(node.announcePeer(infoHash, 4));
    EXPECT_EQ(dht.announced(), 8U);
    EXPECT_THAT(log.lines(), Contains("[DHT] announce_peer sent=8 ok=8 failed=0 successRate=100%"));
    simulation.advance(5s);
    EXPECT_EQ(simulation.sleepers(), 0U);  // an idle node has nothing to wake up for

    DHTNode other(environment, options);
    start(other);
    EXPECT_THAT(find(other), IsSupersetOf({PeerAddress{GetParam(), 1}, asPeer(node)}));
    simulation.finish(other.stop());
}

TEST_P(DHTNodeTest, allWhoAskForOneInfoHashAreServedByOneLookup) {
    dht.addPeer(infoHash, {GetParam(), 1});
    start(node);
    find(node);
    const std::size_t before = log.lines().size();
    auto first = node.findPeers(infoHash);
    const auto second = node.findPeers(infoHash);
    auto third = node.findPeers(infoHash);
    third.reset();
    EXPECT_EQ(simulation.finish(first->next()), (PeerAddress{GetParam(), 1}));
    auto late = node.findPeers(infoHash);
    first.reset();
    EXPECT_THAT(drain(*second), ElementsAre(PeerAddress{GetParam(), 1}));
    EXPECT_THAT(drain(*late), ElementsAre(PeerAddress{GetParam(), 1}));
    EXPECT_EQ(log.lines().size(), before + 1);
}

TEST_P(DHTNodeTest, aLookupEndsWhenNobodyWantsItOrTheNodeStops) {
    simulation.start(node.start());
    simulation.runUntil([&] { return node.port() != 0; });
    auto early = node.findPeers(infoHash);  // waits for the bootstrap
    simulation.runUntil([&] { return dht.queries().contains("find_node"); });
    EXPECT_FALSE(dht.queries().contains("get_peers"));
    simulation.finish(dht.stop());  // now all are silent
    simulation.runUntil([&] {
        simulation.advance(100ms);
        return simulation.now() >= Clock::TimePoint{} + 1h + 2s;
    });
    early.reset();
    simulation.settle();
    EXPECT_THAT(log.lines(), Contains(HasSubstr("reason=cancelled")));
    const auto stream = node.findPeers(infoHash);
    auto waiting = asio::co_spawn(simulation.executor(), stream->next(), asio::use_future);
    simulation.settle();
    EXPECT_EQ(waiting.wait_for(0s), std::future_status::timeout);
    simulation.finish(node.stop());
    simulation.settle();
    EXPECT_EQ(waiting.get(), std::nullopt);
    EXPECT_EQ(simulation.sleepers(), 0U);
}

TEST_P(DHTNodeTest, aPortThatIsTakenIsReported) {
    start(node);
    DHTNode second(environment, {GetParam(), node.port(), {}});
    EXPECT_THROW(simulation.finish(second.start()), boost::system::system_error);
    EXPECT_THAT(log.lines(), Contains("[DHT] Listener failed: Address already in use"));
    EXPECT_THAT(drain(*second.findPeers(infoHash)), IsEmpty());
    simulation.finish(second.stop());
}

TEST_P(DHTNodeTest, servesSessionsOnManyThreads) {
    for (std::uint16_t port = 1; port <= 50; ++port) dht.addPeer(infoHash, {GetParam(), port});
    ThreadPools pools;
    QuickClock clock;
    DHTNode busy({pools.io(), clock, log, random, resolver}, {"", 0, {dht.bootstrapNode()}});
    auto started = asio::co_spawn(pools.io(), busy.start(), asio::use_future);
    simulation.runUntil([&] { return busy.port() != 0; });
    std::vector<std::unique_ptr<PeerStream>> streams;
    const auto isReady = [](const auto& future) { return future.wait_for(0s) == std::future_status::ready; };
    // Again while the bootstrap node's answer is still on its way: the two seconds are short here.
    for (std::size_t served = 0; served < 20;) {
        std::vector<std::future<std::optional<PeerAddress>>> first;
        streams.clear();
        for (int i = 0; i < 20; ++i) streams.push_back(busy.findPeers(infoHash));
        for (const auto& stream : streams)
            first.push_back(asio::co_spawn(pools.io(), stream->next(), asio::use_future));
        simulation.runUntil([&] { return std::all_of(first.begin(), first.end(), isReady); });
        served = static_cast<std::size_t>(
            std::count_if(first.begin(), first.end(), [](auto& peer) { return peer.get().has_value(); }));
    }
    started.get();
    for (int i = 0; i < 10; ++i) streams.pop_back();
    asio::co_spawn(pools.io(), busy.stop(), asio::use_future).get();
}

}  // namespace
}  // namespace skein
