#include "Core/wire/NWPeerWireTransport.h"
#include "Core/wire/PeerConnection.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/Simulation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

class PeerConnectionTest : public testing::Test {
protected:
    PeerConnectionTest() {
        PeerConnection::Callbacks callbacks;
        callbacks.onDisconnected = [this](const std::string& reason) { endReason = reason; };
        callbacks.onPieceReceived = [this](std::uint32_t, std::uint32_t, ByteView block) {
            receivedBytes += block.size();
        };
        callbacks.onPieceRequested = [this](std::vector<BlockRead>& reads) { return serve(reads); };
        connection.setCallbacks(std::move(callbacks));
    }
    ~PeerConnectionTest() override { simulation.finish(connection.stop()); }

    asio::awaitable<void> serve(std::vector<BlockRead>& reads) {
        for (BlockRead& read : reads) {
            std::fill(read.into.begin(), read.into.end(), static_cast<std::uint8_t>(read.request.pieceIndex));
            read.ok = read.request.pieceIndex < 100;
            ++served;
        }
        co_return;
    }

    void startDial() {
        simulation.start(dial());
        simulation.finish(peer.accept());
    }
    std::string failureToDial() {
        simulation.runUntil([&] { return !dialError.empty(); });
        return dialError;
    }
    void connectBoth() {
        startDial();
        simulation.finish(peer.shakeHands(infoHash, peerIDOf('p')));
        simulation.runUntil([&] { return connection.isConnected(); });
        connection.begin();
    }
    asio::awaitable<void> dial() {
        try {
            co_await connection.connect(5s);
        } catch (const std::exception& error) {
            dialError = error.what();
        }
    }
    void waitForEnd() {
        simulation.runUntil([&] { return !endReason.empty(); });
    }

    Simulation simulation;
    FileLogger log;
    Throttle download;
    Throttle upload;
    const SHA1Digest infoHash = sha1(toBytes("a torrent"));
    ScriptedPeer peer{simulation.executor()};
    Strand strand = asio::make_strand(simulation.executor());
    PeerConnection connection{
        PeerConnection::Environment{strand, simulation, log, download, upload}, peer.address(),
        PeerConnection::Identity{infoHash, peerIDOf('o')},
        std::make_unique<NWPeerWireTransport>(simulation.executor(), simulation, peer.address(), 5s, ""),
        PeerDirection::outgoing};
    std::string dialError;
    std::string endReason;
    std::size_t receivedBytes = 0;
    int served = 0;
};

TEST_F(PeerConnectionTest, refusesAnotherTorrent) {
    startDial();
    SHA1Digest other{};
    simulation.finish(peer.shakeHands(other, peerIDOf('p')));
    EXPECT_EQ(failureToDial(), "Info hash mismatch");
}

TEST_F(PeerConnectionTest, refusesGarbage) {
    startDial();
    simulation.finish(
        peer.send(toBytes("GET / HTTP/1.1\r\nHost: localhost\r\nUser-Agent: a browser of some kind\r\n\r\n")));
    EXPECT_EQ(failureToDial(), "Plaintext peer handshake failed");
}

TEST_F(PeerConnectionTest, givesUpOnHalfAHandshakeInTime) {
    startDial();
    simulation.finish(peer.send(Bytes(30, 19)));
    simulation.finish(peer.read(PeerHandshake::size));
    simulation.advance(4s);
    EXPECT_EQ(dialError, "");
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
    simulation.runUntil([&] { return connection.lastActiveAt() == simulation.now(); });
    simulation.advance(239s);
    EXPECT_EQ(endReason, "");
    simulation.advance(2s);
    waitForEnd();
    EXPECT_FALSE(connection.isConnected());
}

TEST_F(PeerConnectionTest, answersWhatIsAskedOnceUnchokedAndLeavesOutWhatIsCancelled) {
    connectBoth();
    Bytes choked;
    wire::appendBlockMessage(choked, MessageID::request, {1, 0, 100});
    wire::appendMessage(choked, MessageID::interested);
    simulation.finish(peer.send(choked));
    simulation.runUntil([&] { return connection.peerInterested(); });
    EXPECT_EQ(served, 0);
    connection.sendUnchoke();
    simulation.finish(peer.readUntil(MessageID::unchoke));

    Bytes asked;
    wire::appendBlockMessage(asked, MessageID::request, {1, 0, 100});
    wire::appendBlockMessage(asked, MessageID::request, {200, 0, 100});  // not there: no answer
    wire::appendBlockMessage(asked, MessageID::request, {2, 0, 131'073});
    wire::appendBlockMessage(asked, MessageID::request, {3, 50, 16384});
    wire::appendBlockMessage(asked, MessageID::cancel, {3, 50, 16384});
    wire::appendBlockMessage(asked, MessageID::request, {4, 0, 16384});
    simulation.finish(peer.send(asked));
    const Bytes first = simulation.finish(peer.readUntil(MessageID::piece));
    EXPECT_EQ(first, [] {
        Bytes body(108, 1);
        std::fill_n(body.begin(), 8, 0);
        body[3] = 1;
        return body;
    }());
    const Bytes second = simulation.finish(peer.readUntil(MessageID::piece));
    EXPECT_EQ(readBigEndian<std::uint32_t>(second), 4U);
    EXPECT_EQ(connection.snapshotTrafficCounters().bytesUploaded, 100 + 16384);
    EXPECT_EQ(connection.drainTrafficCounters().bytesUploaded, 100 + 16384);
    EXPECT_EQ(connection.drainTrafficCounters().bytesUploaded, 0);
}

TEST_F(PeerConnectionTest, doesNotReadAPeerThatAsksFasterThanItReads) {
    connectBoth();
    connection.sendUnchoke();
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

TEST_F(PeerConnectionTest, dropsAPeerThatSendsAnOversizedMessage) {
    connectBoth();
    simulation.finish(peer.send(Bytes{0x00, 0x20, 0x00, 0x01, 7}));
    waitForEnd();
    EXPECT_EQ(endReason, "Peer sent oversized message");
    simulation.finish(peer.waitForClose());
}

TEST_F(PeerConnectionTest, pacesWhatItReceives) {
    connectBoth();
    connection.setSpeedLimit(16384);
    for (int i = 0; i < 4; ++i) simulation.finish(peer.sendPiece({0, i * 16384, 16384}, Bytes(16384)));
    simulation.runUntil([&] { return receivedBytes >= 16384; });
    EXPECT_LE(receivedBytes, 2U * 16384) << "the rest waits for its time";
    while (receivedBytes < 4U * 16384) {
        simulation.advance(500ms);
        simulation.settle();
    }
    EXPECT_GE(simulation.now() - *connection.connectedAt(), 2s);
}

TEST_F(PeerConnectionTest, endsWhenThePeerGoes) {
    connectBoth();
    peer.close();
    waitForEnd();
    EXPECT_EQ(endReason, "Peer connection closed");
}

}  // namespace
}  // namespace skein
