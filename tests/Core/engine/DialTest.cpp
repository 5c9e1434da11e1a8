#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/support/MSEResponder.h"
#include "tests/support/TestSession.h"
#include "tests/support/UTPAcceptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using Failures = std::vector<DialFailure>;
using enum DialFailure;

/// The attempts of a dial of which each fails as told: T or U for the transport, then the encryption.
std::string attempts(DialOptions options, const Failures& failures, DialExperience experience = {}) {
    DialPlan plan(options, experience);
    std::string all;
    const auto note = [&] {
        const DialAttempt& how = plan.current();
        all += how.transport == PeerTransport::utp ? " U" : " T";
        all += !how.isEncrypted() ? "-" : how.prime == MSEPrime::deployed ? "d" : "r";
    };
    note();
    for (const DialFailure failure : failures) {
        if (!plan.advance(failure)) return all + (plan.suggestsUTPProbe() ? " probe" : "");
        note();
    }
    return all;
}

TEST(DialPlanTest, triesWhatTheOptionsAndThePastLetIt) {
    using enum EncryptionChoice;
    using enum TransportChoice;
    const Failures bothPrimes(5, otherPrimeNeeded);
    const Failures noEncryption(5, encryptionFailed);
    EXPECT_EQ(attempts({plaintext, any}, {unreachable}), " T- probe");
    EXPECT_EQ(attempts({plaintext, any}, {conversationFailed}), " T-");
    EXPECT_EQ(attempts({plaintext, tcp}, {unreachable}), " T-");
    EXPECT_EQ(attempts({plaintext, utp}, {unreachable}), " U-");
    EXPECT_EQ(attempts({mse, any}, bothPrimes), " Td Tr");
    EXPECT_EQ(attempts({mse, tcp}, noEncryption), " Td");
    EXPECT_EQ(attempts({preferMSE, tcp}, noEncryption), " Td T-");
    EXPECT_EQ(attempts({preferMSE, utp}, bothPrimes), " Ud Ur U-");
    EXPECT_EQ(attempts({preferMSE, any}, {unreachable, unreachable}), " Td probe");
    EXPECT_EQ(attempts({preferMSE, any}, {encryptionFailed, unreachable}, {true, MSEPrime::rfc2409}), " Ur U- Tr");
    EXPECT_EQ(attempts({mse, any}, {unreachable, unreachable}, {true}), " Ud Td") << "uTP was just tried";
}

/// A session that gets a torrent of 1 MB from a peer that speaks as the test says.
class DialTest : public testing::Test {
protected:
    DialTest() {
        torrent.metaInfo->name = "t";
        torrentData = TorrentWriter::write(*torrent.metaInfo);
        infoHash = TorrentParser::parse(torrentData).infoHash;
    }
    ~DialTest() override {
        getter.reset();
        for (const auto& acceptor : acceptors) simulation.finish(acceptor->stop());
    }

    void startGetter(const PeerAddress& from, DialOptions dial) {
        TorrentSession::Options options;
        options.savePath = folder.path();
        options.dial = dial;
        options.discovery.namedPeers = {from};
        getter = std::make_unique<TestSession>(simulation, infoHash, 'g', std::move(options), simulation.executor());
        getter->start(torrentData);
    }
    UTPAcceptor& listenOverUTP(UTPAcceptor::Path path) {
        acceptors.push_back(std::make_unique<UTPAcceptor>(simulation.executor(), simulation, path));
        return *acceptors.back();
    }
    /// Lets time pass only while the sockets are quiet.
    template <class Condition>
    void runUntil(Condition condition) {
        for (const auto giveUpAt = simulation.now() + 10min; !condition();) {
            if (simulation.now() > giveUpAt) throw std::runtime_error("the test waits in vain");
            const auto quietAt = std::chrono::steady_clock::now() + 1ms;
            simulation.runUntil([&] { return condition() || std::chrono::steady_clock::now() > quietAt; });
            simulation.advance(20ms);
        }
    }
    void waitForAll() {
        runUntil([&] { return getter->state() == TestSession::Kind::seeding; });
        EXPECT_TRUE(torrent.isWholeIn(folder.path()));
    }
    const PeerRuntimeInfo& nextRow() {
        getter->peers.clear();
        runUntil([&] { return !getter->peers.empty(); });
        return getter->peers.front();
    }
    bool hasLogged(const std::string& line, const PeerAddress& of) {
        return getter->hasLogged(line + of.description());
    }

    /// Has everything, whatever `Peer` speaks; sends `maxBlocks` of it.
    template <class Peer>
    asio::awaitable<void> seed(Peer& to, int maxBlocks = 1000) {
        Bytes opening = co_await to.read(PeerHandshake::size);
        opening.resize(PeerHandshake::size - 20);
        opening.resize(PeerHandshake::size, 'x');
        wire::appendMessage(opening, MessageID::bitfield, Bytes(8, 0xFF));
        wire::appendMessage(opening, MessageID::unchoke);
        co_await to.send(std::move(opening));
        while (maxBlocks > 0) {
            const Bytes prefix = co_await to.read(4);
            const Bytes message = co_await to.read(readBigEndian<std::uint32_t>(prefix));
            if (message.empty() || message[0] != static_cast<std::uint8_t>(MessageID::request)) continue;
            const BlockRequest asked = ScriptedPeer::requestIn({message.begin() + 1, message.end()});
            Bytes answer(wire::pieceHeaderSize);
            wire::writePieceHeader(answer.data(), asked);
            append(answer, torrent.block(asked));
            co_await to.send(std::move(answer));
            --maxBlocks;
        }
    }
    asio::awaitable<void> seedAndEnd(UTPAcceptor& to, UTPAcceptor::Type end) {
        co_await seed(to, 10);
        Bytes half(wire::pieceHeaderSize + 1000);
        wire::writePieceHeader(half.data(), {0, 0, 16384});
        co_await to.send(std::move(half));
        to.sendPacket(end);
    }
    /// Ends, with its connection, when the other side is not understood.
    asio::awaitable<void> acceptEncrypted(bool hasPrimeOfRFC2409) {
        co_await peer.accept();
        MSEResponder responder(peer, infoHash);
        try {
            co_await responder.accept({.hasPrimeOfRFC2409 = hasPrimeOfRFC2409});
            co_await seed(responder);
        } catch (const std::runtime_error&) {
            peer.close();
        }
    }
    asio::awaitable<void> refuseThenSeedEncrypted() {
        co_await acceptEncrypted(true);
        co_await acceptEncrypted(true);
    }
    /// A peer that knows plaintext alone.
    asio::awaitable<void> acceptPlaintext() {
        for (Bytes first; first != PeerHandshake::opening(); ++connections) {
            if (peer.isOpen()) peer.close();
            co_await peer.accept();
            first = co_await peer.read(20);
        }
        ReopenedPeer handshaking{peer};
        co_await seed(handshaking);
    }
    /// Gives back what was read to tell a handshake from noise.
    struct ReopenedPeer {
        ScriptedPeer& rest;
        bool isReopened = false;
        asio::awaitable<void> send(Bytes bytes) { return rest.send(std::move(bytes)); }
        asio::awaitable<Bytes> read(std::size_t count) {
            Bytes bytes;
            if (!std::exchange(isReopened, true)) bytes = PeerHandshake::opening();
            const Bytes more = co_await rest.read(count - bytes.size());
            append(bytes, more);
            co_return bytes;
        }
    };

    Simulation simulation;
    TemporaryFolder folder;
    TestTorrent torrent{50'000, {{"t/a", 1'000'000}}};
    Bytes torrentData;
    SHA1Digest infoHash{};
    ScriptedPeer peer{simulation.executor()};
    std::vector<std::unique_ptr<UTPAcceptor>> acceptors;
    int connections = 0;  // of the peer that knows plaintext alone
    std::unique_ptr<TestSession> getter;
};

TEST_F(DialTest, downloadsEncryptedWithEitherPrime) {
    simulation.start(refuseThenSeedEncrypted());
    startGetter(peer.address(), {EncryptionChoice::mse});
    waitForAll();
    EXPECT_EQ(nextRow().encryption, PeerEncryptionStatus::encrypted);
    EXPECT_EQ(getter->countLogged("[MSE] → " + peer.address().description() + " negotiating RC4 over tcp"), 2);
    EXPECT_TRUE(hasLogged("[MSE] ✗ ", peer.address()));
    EXPECT_TRUE(hasLogged("[MSE] ✓ ", peer.address()));
    simulation.finish(getter->session().pause());
    simulation.start(acceptEncrypted(true));
    simulation.finish(getter->session().resume());
    runUntil([&] { return getter->countLogged("RC4 selected") == 2; });
    EXPECT_EQ(getter->countLogged("negotiating RC4 over tcp"), 3) << "the prime is remembered";
}

TEST_F(DialTest, fallsBackToPlaintextOnANewConnectionOnlyWhereThatIsAllowed) {
    simulation.start(acceptPlaintext());
    startGetter(peer.address(), {EncryptionChoice::mse});
    runUntil([&] { return getter->countLogged("[MSE] ✗ ") == 2; });
    EXPECT_EQ(nextRow().encryption, PeerEncryptionStatus::handshakeFailed);
    EXPECT_EQ(getter->peers.front().lastError, "MSE/PE encrypted handshake failed");
    EXPECT_FALSE(getter->hasLogged("[Direct] "));
    EXPECT_EQ(connections, 2);
    startGetter(peer.address(), {EncryptionChoice::preferMSE});
    waitForAll();
    EXPECT_EQ(connections, 4);
    EXPECT_TRUE(hasLogged("[MSE] ✗ ", peer.address()));
    EXPECT_TRUE(hasLogged("[Direct] ✓ ", peer.address()));
    EXPECT_EQ(nextRow().encryption, PeerEncryptionStatus::plaintext);
}

TEST_F(DialTest, findsThatAPeerAnswersOverUTPAndDownloadsOverABadPath) {
    UTPAcceptor& seeder = listenOverUTP({.loss = 0.02, .reordering = 0.05, .firstSequence = 65'500});
    simulation.start(seed(seeder));
    startGetter(seeder.address(), {});
    waitForAll();
    for (const char* const line : {"[Direct] ✗ ", "[uTP][Probe] ✓ ", "[uTP] → ", "[uTP] ✓ "})
        EXPECT_TRUE(hasLogged(line, seeder.address())) << line;
    EXPECT_EQ(nextRow().transport, PeerTransport::utp);
    EXPECT_EQ(getter->peers.front().lastError, "uTP peer detected after TCP failure");
    EXPECT_EQ(getter->peers.size(), 1U);
}

TEST_F(DialTest, completesElsewhereWhenAUTPPeerEndsInMidPiece) {
    for (const auto how : {UTPAcceptor::fin, UTPAcceptor::reset}) {
        UTPAcceptor& leaver = listenOverUTP({});
        simulation.start(seedAndEnd(leaver, how));
        startGetter(leaver.address(), {.transport = TransportChoice::utp});
        runUntil([&] { return hasLogged("[Session] Peer disconnected: ", leaver.address()); });
        EXPECT_FALSE(getter->hasLogged("[Direct] "));
        UTPAcceptor& seeder = listenOverUTP({});
        simulation.start(seed(seeder));
        simulation.finish(getter->session().connectToPeer(seeder.address()));
        waitForAll();
        getter.reset();
        std::filesystem::remove_all(folder.path() / "t");
    }
}

}  // namespace
}  // namespace skein
