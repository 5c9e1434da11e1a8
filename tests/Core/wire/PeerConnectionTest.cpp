#include "tests/Core/wire/ConnectionFixture.h"

namespace skein {
namespace {

using namespace std::chrono_literals;

class PeerConnectionTest : public ConnectionFixture {
protected:
    void connectBoth() {
        startDial();
        simulation.finish(peer.shakeHands(infoHash, peerIDOf('p')));
        simulation.finish(std::move(dial));
        connection->begin();
    }
};

TEST_F(PeerConnectionTest, refusesAnotherTorrentGarbageAndHalfAHandshake) {
    startDial();
    simulation.finish(peer.shakeHands(SHA1Digest{}, peerIDOf('p')));
    EXPECT_EQ(failureToDial(), "Info hash mismatch");
    startDial();
    simulation.finish(
        peer.send(toBytes("GET / HTTP/1.1\r\nHost: localhost\r\nUser-Agent: a browser of some kind\r\n\r\n")));
    EXPECT_EQ(failureToDial(), "Plaintext peer handshake failed");
    startDial();
    simulation.finish(peer.send(Bytes(30, 19)));
    simulation.finish(peer.read(PeerHandshake::size));
    simulation.advance(4s);
    EXPECT_FALSE(simulation.hasEnded(dial));
    simulation.advance(2s);
    EXPECT_EQ(failureToDial(), "Peer connection timed out");
}

TEST_F(PeerConnectionTest, keepsAQuietConversationAliveAndDropsASilentPeer) {
    connectBoth();
    simulation.advance(99s);
    simulation.settle();
    EXPECT_EQ(peer.available(), 0U);
    simulation.advance(1s);
    EXPECT_EQ(simulation.finish(peer.readMessage()).id, -1);
    simulation.finish(peer.send(Bytes(4)));
    simulation.runUntil([&] { return connection->lastActiveAt() == simulation.now(); });
    simulation.advance(239s);
    EXPECT_EQ(endReason, "");
    simulation.advance(2s);
    endOfConversation();
    EXPECT_FALSE(connection->isConnected());
}

TEST_F(PeerConnectionTest, wakesNoPeerForAPieceThatItHas) {
    connectBoth();
    simulation.finish(peer.send(Bytes{0, 0, 0, 5, 4, 0, 0, 0, 7}));
    simulation.runUntil([&] { return connection->hasPiece(7); });
    connection->sendHave(7);
    simulation.settle();
    EXPECT_EQ(peer.available(), 0U);
    connection->sendHave(8);
    EXPECT_EQ(simulation.finish(peer.readUntil(MessageID::have)).back(), 7);
    EXPECT_EQ(simulation.finish(peer.readUntil(MessageID::have)).back(), 8);
    connection->sendHave(7);
    connection->flush();
    EXPECT_EQ(simulation.finish(peer.readUntil(MessageID::have)).back(), 7);
}

TEST_F(PeerConnectionTest, answersWhatIsAskedOnceUnchokedAndLeavesOutWhatIsCancelled) {
    connectBoth();
    Bytes choked;
    wire::appendBlockMessage(choked, MessageID::request, {1, 0, 100});
    wire::appendMessage(choked, MessageID::interested);
    simulation.finish(peer.send(choked));
    simulation.runUntil([&] { return connection->peerInterested(); });
    EXPECT_EQ(served, 0);
    connection->sendUnchoke();
    simulation.finish(peer.readUntil(MessageID::unchoke));

    Bytes asked;
    wire::appendBlockMessage(asked, MessageID::request, {1, 0, 100});
    wire::appendBlockMessage(asked, MessageID::request, {200, 0, 100});  // not there: no answer
    wire::appendBlockMessage(asked, MessageID::request, {2, 0, 131'073});
    wire::appendBlockMessage(asked, MessageID::request, {3, 50, 16384});
    wire::appendBlockMessage(asked, MessageID::cancel, {3, 50, 16384});
    wire::appendBlockMessage(asked, MessageID::request, {4, 0, 16384});
    simulation.finish(peer.send(asked));
    Bytes expected{0, 0, 0, 1, 0, 0, 0, 0};
    expected.resize(108, 1);
    EXPECT_EQ(simulation.finish(peer.readUntil(MessageID::piece)), expected);
    EXPECT_EQ(simulation.finish(peer.readUntil(MessageID::piece))[3], 4);
    EXPECT_EQ(connection->drainTrafficCounters().bytesUploaded, 100 + 16384);
    EXPECT_EQ(connection->drainTrafficCounters().bytesUploaded, 0);
}

TEST_F(PeerConnectionTest, doesNotReadAPeerThatAsksFasterThanItReads) {
    connectBoth();
    connection->sendUnchoke();
    simulation.finish(peer.readUntil(MessageID::unchoke));
    Bytes asked;
    for (int i = 0; i < 10'000; ++i) wire::appendBlockMessage(asked, MessageID::request, {i % 100, 0, 131'072});
    simulation.start(peer.send(asked));
    simulation.runUntil([&] { return served > 0; });
    for (int i = 0; i < 200; ++i) simulation.settle();
    EXPECT_LT(served, 1000) << "answers are made only as the peer takes them";
    for (int i = 0; i < 2'000; ++i) simulation.finish(peer.readUntil(MessageID::piece));
    EXPECT_GE(served, 2'000);
}

TEST_F(PeerConnectionTest, pacesWhatItReceives) {
    connectBoth();
    connection->setSpeedLimit(16384);
    for (int i = 0; i < 4; ++i) simulation.finish(peer.sendPiece({0, i * 16384, 16384}, Bytes(16384)));
    simulation.runUntil([&] { return received.size() >= 16384; });
    EXPECT_LE(received.size(), 2U * 16384) << "the rest waits for its time";
    while (received.size() < 4U * 16384) {
        simulation.advance(500ms);
        simulation.settle();
    }
    EXPECT_GE(simulation.now() - *connection->connectedAt(), 2s);
}

TEST_F(PeerConnectionTest, endsWhenThePeerSendsAnOversizedMessageOrGoes) {
    connectBoth();
    simulation.finish(peer.send(Bytes{0x00, 0x20, 0x00, 0x01, 7}));
    EXPECT_EQ(endOfConversation(), "Peer sent oversized message");
    EXPECT_EQ(log.count("oversized message length=2097153, dropping peer"), 1);
    simulation.finish(peer.waitForClose());
    connectBoth();
    peer.close();
    EXPECT_EQ(endOfConversation(), "Peer connection closed");
}

}  // namespace
}  // namespace skein
