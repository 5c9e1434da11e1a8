#include "Core/wire/BigUInt.h"
#include "tests/Core/wire/ConnectionFixture.h"
#include "tests/support/MSEResponder.h"

namespace skein {
namespace {

using namespace std::chrono_literals;

BigUInt number(std::string_view hex) { return BigUInt::fromBigEndian(fromHex(hex).value()); }

TEST(BigUIntTest, raisesWhatCarriesFarAndWhatIsLongerThanTheModulusAsPythonDoes) {
    const BigUInt prime = number(
        "FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD129024E088A67CC74020BBEA63B139B22514A08798E3404DD"
        "EF9519B3CD3A431B302B0A6DF25F14374FE1356D6D51C245E485B576625E7EC6F44C42E9A63A3620FFFFFFFFFFFFFFFF");
    const BigUInt base = number(std::string(191, 'f') + "d");
    const BigUInt exponent = number("fedcba9876543210fedcba9876543210fedcba98");
    EXPECT_EQ(toHex(BigUInt::modPow(base, exponent, prime).fixedWidthBigEndianBytes(96)),
              "a2a747266d1bdadd3edd0ebb4d2c411bde2eca2779923abd9d0c7577b74b1dbec937bce89f95f364f000321984426b50"
              "d4e021faad0cebc2e3fca16d91a0b4341cfba769ba24a5a7d7fd93383a2d52ed205f471bb8a6ccd003dc61c24dae327c");
    EXPECT_EQ(BigUInt::modPow(base, exponent, number("ffffffffffffffc5")), number("cc1b5ef3770e601a"));
}

class MSEHandshakeTest : public ConnectionFixture {
protected:
    /// What the dial to a peer that follows `script` throws.
    std::string failureToDial(const MSEResponder::Script& script) {
        startDial(PeerConnection::EncryptionPreference::mseRC4);
        if (simulation.failureOf(respond(script)) != "none") peer.close();
        return ConnectionFixture::failureToDial();
    }
    asio::awaitable<void> respond(MSEResponder::Script script) {
        MSEResponder responder(peer, infoHash);
        co_await responder.accept(script);
        Bytes handshake = co_await responder.read(PeerHandshake::size);
        co_await responder.send(std::move(handshake));
    }
};

TEST_F(MSEHandshakeTest, connectsWhateverThePadding) {
    for (const std::size_t pad : {0, 1, 512}) {
        EXPECT_EQ(failureToDial({.padB = pad, .padD = pad * 3}), "none");
        EXPECT_EQ(connection->encryptionStatus(), PeerEncryptionStatus::encrypted);
    }
}

TEST_F(MSEHandshakeTest, readsWhatComesInOneWriteWithTheHandshake) {
    const auto handshake = PeerHandshake{infoHash, peerIDOf('p'), true}.encode();
    EXPECT_EQ(failureToDial({.padD = 3, .early = Bytes(handshake.begin(), handshake.end())}), "none");
    EXPECT_EQ(connection->remotePeerID(), peerIDOf('p'));
}

TEST_F(MSEHandshakeTest, refusesAPeerThatBreaksTheRulesAndGivesUpOnASilentOneInTime) {
    using Script = MSEResponder::Script;
    for (const Script& script : {Script{.padB = 513}, Script{.select = 1}, Script{.hasZeroKey = true}}) {
        EXPECT_EQ(failureToDial(script), "MSE/PE encrypted handshake failed");
        EXPECT_EQ(connection->encryptionStatus(), PeerEncryptionStatus::handshakeFailed);
        EXPECT_EQ(connection->mayNeedOtherPrime(), script.padB == 513);
    }
    startDial(PeerConnection::EncryptionPreference::mseRC4);
    simulation.finish(peer.read(96));
    simulation.advance(6s);
    EXPECT_EQ(ConnectionFixture::failureToDial(), "MSE/PE encrypted handshake failed");
    EXPECT_EQ(connection->encryptionStatus(), PeerEncryptionStatus::handshakeFailed);
}

}  // namespace
}  // namespace skein
