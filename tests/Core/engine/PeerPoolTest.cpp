#include "Core/engine/PeerPool.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/Simulation.h"

#include <boost/asio/strand.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::SizeIs;

/// A transport whose connection is made, or refused, when the test says so.
class HeldTransport final : public PeerWireTransport {
public:
    HeldTransport(Clock& clock, bool& fails) : clock_(clock), fails_(fails) {}
    PeerTransport kind() const noexcept override { return PeerTransport::tcp; }
    asio::awaitable<void> start() override {
        while (!fails_) co_await clock_.sleep(1s);
        throw PeerException(PeerError::connectionClosed);
    }
    asio::awaitable<void> send(ByteView) override { co_return; }
    asio::awaitable<std::size_t> receiveSome(std::span<std::uint8_t>) override {
        throw PeerException(PeerError::connectionClosed);
        co_return 0;
    }
    void cancel() noexcept override {}

private:
    Clock& clock_;
    bool& fails_;
};

class PeerPoolTest : public testing::Test {
protected:
    ~PeerPoolTest() override { simulation.finish(pool.stop()); }

    std::unique_ptr<PeerWireTransport> dial(const PeerAddress& address) {
        dialled.push_back(address.port);
        return std::make_unique<HeldTransport>(simulation, fails);
    }
    static PeerPool::Callbacks callbacks() {
        PeerPool::Callbacks callbacks;
        callbacks.connectionCallbacks = [](PeerKey) { return PeerConnection::Callbacks(); };
        callbacks.onDialFailed = [](const DialRequest&) {};
        callbacks.onPeerReady = [](const PeerPool::Peer&) { ADD_FAILURE() << "nobody answers here"; };
        callbacks.onPeerGone = [](const PeerPool::Peer&) {};
        return callbacks;
    }
    void offer(int port, bool isNamed = false) {
        pool.connectToPeer({{"10.0.0.1", static_cast<std::uint16_t>(port)}, PeerSource::publicTracker, isNamed});
        simulation.settle();
    }
    Simulation simulation;
    FileLogger log;
    bool fails = false;
    std::vector<int> dialled;
    PeerPool pool{PeerPool::Environment{asio::make_strand(simulation.executor()), simulation, log,
                                        PeerConnection::Identity{SHA1Digest{}, peerIDOf('m')}, 50,
                                        [this](const PeerAddress& address) { return dial(address); }},
                  callbacks()};
};

TEST_F(PeerPoolTest, dialsSixteenAtOnceAndQueuesTheRestInOrderDroppingTheOldest) {
    for (int port = 1; port <= 16 + 257; ++port) offer(port);
    EXPECT_THAT(dialled, SizeIs(16));
    EXPECT_EQ(pool.pendingDials(), 256U);
    offer(100);  // queued already
    EXPECT_EQ(pool.pendingDials(), 256U);
    fails = true;
    simulation.advance(1s);
    ASSERT_GT(dialled.size(), 16U);
    EXPECT_EQ(dialled[16], 18) << "17 was the oldest and had to go";
    simulation.advance(60s);
    EXPECT_EQ(pool.pendingDials(), 0U);
    EXPECT_THAT(dialled, SizeIs(16 + 256));
}

TEST_F(PeerPoolTest, leavesAFailedPeerAloneForTenMinutesButNotOneThatTheUserNamed) {
    fails = true;
    offer(1);
    offer(2, true);
    EXPECT_THAT(dialled, ElementsAre(1, 2));
    offer(1);
    simulation.advance(6s);
    EXPECT_THAT(dialled, ElementsAre(1, 2, 2));
    EXPECT_EQ(pool.makePeerRuntimeInfos([](PeerKey) { return 0.0; }).front().lastError, "public peer connect failed");
    simulation.advance(10min);
    dialled.clear();
    offer(1);
    EXPECT_THAT(dialled, ElementsAre(1));
}

TEST_F(PeerPoolTest, givesUpADialThatNobodyAnswersAndStopsWhileDialling) {
    offer(1);
    simulation.advance(14s);
    EXPECT_EQ(pool.dialsInFlight(), 1U);
    simulation.advance(2s);
    EXPECT_EQ(pool.dialsInFlight(), 0U);
    offer(2);
    simulation.finish(pool.stop());
}

}  // namespace
}  // namespace skein
