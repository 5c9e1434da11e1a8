#include "tests/Core/engine/PeerPoolFixture.h"

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre, testing::IsEmpty, testing::SizeIs;

class PeerPoolTest : public PeerPoolFixture {
protected:
    using PeerPoolFixture::PeerPoolFixture;

    void offer(int port, bool isNamed = false) {
        pool.connectToPeer({{"10.0.0.1", static_cast<std::uint16_t>(port)}, PeerSource::publicTracker, isNamed});
        simulation.settle();
    }
    void offerHost(int host, int port, bool isNamed = false) {
        const PeerAddress address = PeerAddress::fromIPv4(
            std::array<std::uint8_t, 4>{10, 0, static_cast<std::uint8_t>(host / 256), static_cast<std::uint8_t>(host)},
            static_cast<std::uint16_t>(port));
        pool.connectToPeer({address, PeerSource::publicTracker, isNamed});
        simulation.settle();
    }
    PeerRuntimeInfo lastRow() {
        return pool.makePeerRuntimeInfos([](PeerKey) { return 0.0; }).back();
    }
};

TEST_F(PeerPoolTest, dialsSixteenAtOnceAndQueuesTheRestInOrderDroppingTheOldest) {
    for (int host = 1; host <= 16 + 257; ++host) offerHost(host, 1);
    EXPECT_THAT(dialled, SizeIs(16));
    EXPECT_EQ(pool.dialer().pendingDials(), 256U);
    offerHost(100, 1);  // queued already
    EXPECT_EQ(pool.dialer().pendingDials(), 256U);
    fate = Fate::fails;
    simulation.advance(1s);
    ASSERT_GT(dialled.size(), 16U);
    EXPECT_EQ(dialledPeers[16], "10.0.0.18:1") << "17 was the oldest and had to go";
    simulation.advance(60s);
    EXPECT_EQ(pool.dialer().pendingDials(), 0U);
    EXPECT_THAT(dialled, SizeIs(16 + 256));
}

TEST_F(PeerPoolTest, dialsFewPortsOfOneHostAndWhomTheUserNamedFirst) {
    for (int port = 1; port <= 2000; ++port) offer(port);
    EXPECT_THAT(dialled, SizeIs(8));
    EXPECT_EQ(pool.dialer().pendingDials(), 32U);
    for (int host = 2; host <= 20; ++host) offerHost(host, 1);
    EXPECT_THAT(dialled, SizeIs(16));
    offerHost(99, 7, true);
    EXPECT_EQ(dialled.back(), 7);
    fate = Fate::fails;
    simulation.advance(1min);
    EXPECT_THAT(dialled, SizeIs(8 + 32 + 19 + 12)) << "the named one is tried every 5 s";
}

TEST_F(PeerPoolTest, leavesAFailedPeerAloneForTenMinutesButNotOneThatTheUserNamed) {
    fate = Fate::fails;
    offer(1);
    offer(2, true);
    EXPECT_THAT(dialled, ElementsAre(1, 2));
    offer(1);
    simulation.advance(6s);
    EXPECT_THAT(dialled, ElementsAre(1, 2, 2));
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

TEST_F(PeerPoolTest, holdsALackOfSocketsAgainstNobodyAndWaits) {
    onDialFailed = [](const DialRequest&) { ADD_FAILURE() << "the peer has no part in it"; };
    fate = Fate::hasNoSocket;
    offer(1);
    EXPECT_THAT(dialled, ElementsAre(1));
    simulation.advance(1s);
    EXPECT_THAT(dialled, ElementsAre(1, 1));
    fate = Fate::hangs;
    simulation.advance(1s);
    EXPECT_EQ(pool.dialer().dialsInFlight(), 1U);

    std::vector<DescriptorBudget::Ticket> ofOthers;
    while (budget.hasRoom()) ofOthers.push_back(budget.take());
    dialled.clear();
    offer(2);
    simulation.advance(10s);
    EXPECT_THAT(dialled, IsEmpty()) << "other sessions have all the sockets";
    ofOthers.clear();
    simulation.advance(1s);
    EXPECT_THAT(dialled, ElementsAre(2));
}

/// A peer that shakes hands and is lost then: at once, or when it does not take what is sent to it.
class LostTransport final : public PeerWireTransport {
public:
    LostTransport(Clock& clock, bool failsWrite) : clock_(clock), failsWrite_(failsWrite) {
        const PeerHandshake::Encoded handshake = PeerHandshake{SHA1Digest{}, peerIDOf('p'), false}.encode();
        toRead_.assign(handshake.begin(), handshake.end());
    }
    PeerTransport kind() const noexcept override { return PeerTransport::tcp; }
    asio::awaitable<void> start() override { co_return; }
    asio::awaitable<void> send(ByteView data) override {
        if (data.size() == PeerHandshake::size) co_return;
        co_await clock_.sleep(1s);
        if (failsWrite_) throw PeerException(PeerError::connectionClosed);
    }
    asio::awaitable<std::size_t> receiveSome(std::span<std::uint8_t> into) override {
        if (toRead_.empty()) {
            do co_await clock_.sleep(1ms);
            while (failsWrite_ && !isCancelled_);
            throw PeerException(PeerError::timeout);
        }
        const std::size_t count = std::min(into.size(), toRead_.size());
        std::copy_n(toRead_.begin(), count, into.begin());
        toRead_.erase(toRead_.begin(), toRead_.begin() + static_cast<std::ptrdiff_t>(count));
        co_return count;
    }
    void cancel() noexcept override { isCancelled_ = true; }

private:
    Clock& clock_;
    const bool failsWrite_;
    bool isCancelled_ = false;
    Bytes toRead_;
};

TEST_F(PeerPoolTest, tellsOfAPeerThatIsLostBeforeItHearsThatWeAreInterested) {
    onPeerReady = [](PeerPool::Peer& peer) { peer.connection->sendInterested(); };
    for (const auto& [port, line] :
         {std::pair{1, "[Session] skip leecher setup for disconnected peer 10.0.0.1:1"},
          {2, "[Session] failed to send interested to 10.0.0.1:2: Peer connection closed"}}) {
        DialRequest request{{"10.0.0.1", static_cast<std::uint16_t>(port)}, PeerSource::publicTracker};
        auto transport = std::make_unique<LostTransport>(simulation, port == 2);
        EXPECT_EQ(simulation.finish(pool.connectOver(std::move(transport), std::move(request), 5s)), "");
        simulation.advance(2s);
        EXPECT_EQ(log.count(line), 1) << line;
        EXPECT_EQ(lastRow().lastError, "Peer disconnected before leecher setup");
    }
}

TEST_F(PeerPoolTest, takesAPeerIDForTheSamePeerOnlyAtTheSameHost) {
    onPeerReady = [](const PeerPool::Peer&) {};
    const auto connect = [&](const char* host, std::uint16_t port) {
        auto transport = std::make_unique<LostTransport>(simulation, true);
        DialRequest request{{host, port}, PeerSource::publicTracker};
        EXPECT_EQ(simulation.finish(pool.connectOver(std::move(transport), std::move(request), 5s)), "");
        return pool.connected().size();
    };
    EXPECT_EQ(connect("10.0.0.1", 1), 1U);
    EXPECT_EQ(connect("10.0.0.1", 2), 1U) << "connected twice";
    EXPECT_EQ(connect("10.0.0.2", 1), 2U) << "a stranger who repeats the id keeps nobody out";
}

class UTPProbeTest : public PeerPoolTest {
protected:
    UTPProbeTest() : PeerPoolTest(TransportChoice::any) { fate = Fate::fails; }
};

TEST_F(UTPProbeTest, asksFourPeersAtOnceWhomTCPDidNotReachAndEachSeldom) {
    for (int port = 1; port <= 6; ++port) offer(port, port == 6);
    EXPECT_THAT(dialledOverUTP, ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(pool.dialer().dialsInFlight(), 0U) << "probes leave the dials their budget";
    simulation.advance(5s);
    EXPECT_THAT(dialledOverUTP, ElementsAre(1, 2, 3, 4, 5, 6));
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
