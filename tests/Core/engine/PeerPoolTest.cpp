#include "Core/engine/PeerPool.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/Simulation.h"

#include <boost/asio/strand.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::SizeIs;

/// A transport whose connection is made, or refused, when the test says so.
class HeldTransport final : public PeerWireTransport {
public:
    enum class Fate : std::uint8_t { open, fails, hangs };
    HeldTransport(Clock& clock, PeerTransport kind, Fate& fate) : clock_(clock), kind_(kind), fate_(fate) {}
    PeerTransport kind() const noexcept override { return kind_; }
    asio::awaitable<void> start() override {
        while (fate_ == Fate::hangs) co_await clock_.sleep(1s);
        if (fate_ == Fate::fails) throw PeerException(PeerError::connectionClosed);
    }
    asio::awaitable<void> send(ByteView) override { co_return; }
    asio::awaitable<std::size_t> receiveSome(std::span<std::uint8_t>) override {
        throw PeerException(PeerError::connectionClosed);
        co_return 0;
    }
    void cancel() noexcept override {}

private:
    Clock& clock_;
    const PeerTransport kind_;
    Fate& fate_;
};

using Fate = HeldTransport::Fate;

class PeerPoolTest : public testing::Test {
protected:
    explicit PeerPoolTest(TransportChoice transport = TransportChoice::tcp)
        : pool{PeerPool::Environment{asio::make_strand(simulation.executor()), simulation, log,
                                     PeerConnection::Identity{SHA1Digest{}, peerIDOf('m')}, 50,
                                     DialOptions{.transport = transport},
                                     [this](const PeerAddress& to, const DialAttempt& how) { return dial(to, how); }},
               callbacks()} {}
    ~PeerPoolTest() override { simulation.finish(pool.stop()); }

    std::unique_ptr<PeerWireTransport> dial(const PeerAddress& address, const DialAttempt& how) {
        const bool isTCP = how.transport == PeerTransport::tcp;
        (isTCP ? dialled : dialledOverUTP).push_back(address.port);
        return std::make_unique<HeldTransport>(simulation, how.transport, isTCP ? fate : utpFate);
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
    PeerRuntimeInfo lastRow() {
        return pool.makePeerRuntimeInfos([](PeerKey) { return 0.0; }).back();
    }
    Simulation simulation;
    RecordingLogger log{LogLevel::debug};
    Fate fate = Fate::hangs;
    Fate utpFate = Fate::hangs;
    std::vector<int> dialled;
    std::vector<int> dialledOverUTP;
    PeerPool pool;
};

TEST_F(PeerPoolTest, dialsSixteenAtOnceAndQueuesTheRestInOrderDroppingTheOldest) {
    for (int port = 1; port <= 16 + 257; ++port) offer(port);
    EXPECT_THAT(dialled, SizeIs(16));
    EXPECT_EQ(pool.dialer().pendingDials(), 256U);
    offer(100);  // queued already
    EXPECT_EQ(pool.dialer().pendingDials(), 256U);
    fate = Fate::fails;
    simulation.advance(1s);
    ASSERT_GT(dialled.size(), 16U);
    EXPECT_EQ(dialled[16], 18) << "17 was the oldest and had to go";
    simulation.advance(60s);
    EXPECT_EQ(pool.dialer().pendingDials(), 0U);
    EXPECT_THAT(dialled, SizeIs(16 + 256));
}

TEST_F(PeerPoolTest, leavesAFailedPeerAloneForTenMinutesButNotOneThatTheUserNamed) {
    fate = Fate::fails;
    offer(1);
    offer(2, true);
    EXPECT_THAT(dialled, ElementsAre(1, 2));
    offer(1);
    simulation.advance(6s);
    EXPECT_THAT(dialled, ElementsAre(1, 2, 2));
    EXPECT_EQ(pool.makePeerRuntimeInfos([](PeerKey) { return 0.0; }).front().lastError, "public peer connect failed");
    EXPECT_THAT(dialledOverUTP, IsEmpty()) << "TCP alone is wanted";
    simulation.advance(10min);
    dialled.clear();
    offer(1);
    EXPECT_THAT(dialled, ElementsAre(1));
}

TEST_F(PeerPoolTest, givesUpADialThatNobodyAnswersAndStopsWhileDialling) {
    offer(1);
    simulation.advance(14s);
    EXPECT_EQ(pool.dialer().dialsInFlight(), 1U);
    simulation.advance(2s);
    EXPECT_EQ(pool.dialer().dialsInFlight(), 0U);
    offer(2);
    simulation.finish(pool.stop());
}

class UTPProbeTest : public PeerPoolTest {
protected:
    UTPProbeTest() : PeerPoolTest(TransportChoice::any) { fate = Fate::fails; }
};

TEST_F(UTPProbeTest, asksFourPeersAtOnceWhomTCPDidNotReachAndEachSeldom) {
    for (int port = 1; port <= 6; ++port) offer(port, port == 6);
    EXPECT_THAT(dialledOverUTP, ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(log.lines(), IsSupersetOf({"[uTP][Probe] budget full; defer 10.0.0.1:5",
                                           "[uTP][Probe] budget full; defer 10.0.0.1:6"}));
    EXPECT_EQ(pool.dialer().dialsInFlight(), 0U) << "probes leave the dials their budget";
    simulation.advance(5s);
    EXPECT_THAT(dialledOverUTP, ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THAT(log.lines(), Contains("[uTP][Probe] ✗ 10.0.0.1:1 rtt=5000 ms — Timed out"));
    simulation.advance(299s);
    EXPECT_THAT(dialledOverUTP, SizeIs(6)) << "though the named peer was dialled again every 5 s";
    EXPECT_THAT(dialled, SizeIs(6 + 60));
    simulation.advance(6s);
    EXPECT_THAT(dialledOverUTP, ElementsAre(1, 2, 3, 4, 5, 6, 6));
}

TEST_F(UTPProbeTest, dialsAPeerOverUTPThatAnswersAndForgetsItOnceItDoesNot) {
    offer(1);
    utpFate = Fate::open;
    simulation.advance(1s);
    EXPECT_THAT(dialledOverUTP, ElementsAre(1, 1)) << "asked, then dialled";
    EXPECT_THAT(log.lines(), IsSupersetOf({"[uTP][Probe] ✓ 10.0.0.1:1 rtt=1000 ms", "[uTP] → 10.0.0.1:1",
                                           "[uTP] ✗ 10.0.0.1:1 — Peer connection closed"}));
    EXPECT_TRUE(pool.dialer().isDetectedUTPPeer({"10.0.0.1", 1}));
    EXPECT_EQ(lastRow().transport, PeerTransport::utp);
    utpFate = Fate::fails;
    simulation.advance(10min);
    offer(1);
    EXPECT_THAT(dialledOverUTP, ElementsAre(1, 1, 1));
    EXPECT_THAT(dialled, ElementsAre(1, 1)) << "after uTP, which came first this time";
    EXPECT_EQ(lastRow().transport, PeerTransport::tcp);
    EXPECT_FALSE(pool.dialer().isDetectedUTPPeer({"10.0.0.1", 1}));
}

}  // namespace
}  // namespace skein
