#include "tests/Core/engine/SwarmFixture.h"
#include "tests/support/MSEResponder.h"
#include "tests/support/UTPAcceptor.h"

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

/// A session that gets the torrent from a peer that speaks as the test says.
class DialTest : public SwarmFixture {
protected:
    ~DialTest() override {
        getter.reset();
        for (const auto& acceptor : acceptors) simulation.finish(acceptor->stop());
    }

    UTPAcceptor& listenOverUTP(UTPAcceptor::Path path) {
        acceptors.push_back(std::make_unique<UTPAcceptor>(simulation.executor(), simulation, path));
        return *acceptors.back();
    }
    void waitForAll() {
        simulation.advanceUntil([&] { return getter->state() == Kind::seeding; });
        EXPECT_TRUE(hasAllFiles());
    }
    PeerEncryptionStatus encryptionShown() {
        getter->peers.clear();
        simulation.advanceUntil([&] { return !getter->peers.empty(); });
        return getter->peers.front().encryption;
    }
    bool hasLogged(const std::string& line, const PeerAddress& of) {
        return getter->hasLogged(line + of.description());
    }

    asio::awaitable<void> seedAndEnd(UTPAcceptor& to, UTPAcceptor::Type end) {
        co_await seed(to, 10);
        Bytes half(wire::pieceHeaderSize + 1000);
        wire::writePieceHeader(half.data(), {0, 0, 16384});
        co_await to.send(std::move(half));
        to.sendPacket(end);
    }
    /// By the prime of RFC 2409 alone; closes connections that it does not understand.
    asio::awaitable<void> seedEncrypted(int connections) {
        for (; connections > 0; --connections) try {
                co_await peer.accept();
                MSEResponder responder(peer, infoHash);
                co_await responder.accept({.hasPrimeOfRFC2409 = true});
                co_await seed(responder);
            } catch (const std::runtime_error&) {
                peer.close();
            }
    }

    ScriptedPeer peer{simulation.executor()};
    std::vector<std::unique_ptr<UTPAcceptor>> acceptors;
    std::unique_ptr<TestSession> getter;
};

TEST_F(DialTest, downloadsEncryptedWithEitherPrimeAndRemembersWhich) {
    simulation.start(seedEncrypted(3));
    getter = startGetter(peer.address(), {.dial = {EncryptionChoice::mse}});
    waitForAll();
    EXPECT_EQ(encryptionShown(), PeerEncryptionStatus::encrypted);
    for (const char* const line : {"[MSE] ✗ ", "[MSE] → ", "[MSE] ✓ "}) EXPECT_TRUE(hasLogged(line, peer.address()));
    peer.close();
    simulation.advanceUntil([&] { return getter->countLogged("RC4 selected") == 2; });
    EXPECT_EQ(getter->countLogged("negotiating RC4 over tcp"), 3);
}

TEST_F(DialTest, fallsBackToPlaintextOnANewConnectionOnlyWhereThatIsAllowed) {
    const auto seeder = startSeeder();  // which accepts plaintext alone
    getter = startGetter(seeder->address(), {.dial = {EncryptionChoice::mse}});
    simulation.advanceUntil([&] { return getter->countLogged("[MSE] ✗ ") == 2; });
    EXPECT_EQ(encryptionShown(), PeerEncryptionStatus::handshakeFailed);
    EXPECT_FALSE(getter->hasLogged("[Direct] "));
    getter = startGetter(seeder->address(), {.dial = {EncryptionChoice::preferMSE}});
    waitForAll();
    EXPECT_TRUE(hasLogged("[MSE] ✗ ", seeder->address()));
    EXPECT_EQ(encryptionShown(), PeerEncryptionStatus::plaintext);
}

TEST_F(DialTest, whoWantsOnlyEncryptedConnectionsTurnsPlainOnesAway) {
    const auto seeder = start('s', {.seedsOnly = true, .dial = {EncryptionChoice::mse}});
    getter = startGetter(seeder->address());
    simulation.runUntil([&] { return hasLogged("[Direct] ✗ ", seeder->address()); });
    EXPECT_TRUE(seeder->hasLogged("turned away: only encrypted connections are allowed"));
    EXPECT_FALSE(seeder->hasLogged("✓ Accepted peer"));
}

TEST_F(DialTest, findsOutWhoAnswersOverUTPAndOutlivesOneThatEndsInMidPiece) {
    for (const auto how : {UTPAcceptor::fin, UTPAcceptor::reset}) {
        UTPAcceptor& leaver = listenOverUTP({});
        simulation.start(seedAndEnd(leaver, how));
        getter = startGetter(leaver.address());
        simulation.advanceUntil([&] { return hasLogged("[Session] Peer disconnected: ", leaver.address()); });
        for (const char* const line : {"[Direct] ✗ ", "[uTP][Probe] ✓ ", "[uTP] → ", "[uTP] ✓ "})
            EXPECT_TRUE(hasLogged(line, leaver.address())) << line;
        UTPAcceptor& other = listenOverUTP({.loss = 0.02, .reordering = 0.05, .firstSequence = 65'500});
        simulation.start(seed(other));
        simulation.finish(getter->session().connectToPeer(other.address()));
        waitForAll();
        getter.reset();
        std::filesystem::remove_all(getterFolder.path() / "t");
    }
}

}  // namespace
}  // namespace skein
