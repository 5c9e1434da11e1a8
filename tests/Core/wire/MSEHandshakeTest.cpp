#include "Core/wire/BigUInt.h"
#include "tests/Core/wire/ConnectionFixture.h"
#include "tests/support/MSEResponder.h"

namespace skein {
namespace {

using namespace std::chrono_literals;

BigUInt number(std::string_view hex) { return BigUInt::fromBigEndian(fromHex(hex).value()); }

TEST(BigUIntTest, computesWhatPythonDoes) {
    const std::string oakley =
        "FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD129024E088A67CC74020BBEA63B139B22514A08798E3404DD"
        "EF9519B3CD3A431B302B0A6DF25F14374FE1356D6D51C245E485B576625E7EC6F44C42E9A63A362";
    const BigUInt deployed = number(oakley + "10000000000090563");
    const BigUInt rfc = number(oakley + "0FFFFFFFFFFFFFFFF");
    const BigUInt base = number(std::string(191, 'f') + "d");
    const BigUInt exponent = number("fedcba9876543210fedcba9876543210fedcba98");
    const auto hexOf = [](const BigUInt& value) { return toHex(value.fixedWidthBigEndianBytes(96)); };
    EXPECT_EQ(hexOf(BigUInt::modPow(BigUInt(2), number("0102030405060708090a0b0c0d0e0f1011121314"), deployed)),
              "96e112dab29e8c5272accb9b17b26887ce54a144a4e3b697c7d159b7a817e556b0918db2b4c658e02a87f7e5fb14b18a"
              "553e084cbf3dad2d30f16596ccb982d406258c61b30c5c1dae2ddc60bdbd48d79896312aad63238c39e1a633821eb693");
    EXPECT_EQ(hexOf(BigUInt::modPow(base, exponent, rfc)),
              "a2a747266d1bdadd3edd0ebb4d2c411bde2eca2779923abd9d0c7577b74b1dbec937bce89f95f364f000321984426b50"
              "d4e021faad0cebc2e3fca16d91a0b4341cfba769ba24a5a7d7fd93383a2d52ed205f471bb8a6ccd003dc61c24dae327c");
    EXPECT_EQ(hexOf(BigUInt::modMultiply(base, exponent, deployed)),
              "7479ad502d9a0927574fadbc8e0591746e509f3e97881f36114c4a58a5fd92ae71978dc518935a75f993950d2dc6cef9"
              "14bbc2234b797ac8c8a5897f84037a59fe9612f5092e3d40931c92551c0426b27aca735266619ea2606595fcbc803d27");
    EXPECT_EQ(BigUInt::modPow(base, exponent, number("ffffffffffffffc5")), number("cc1b5ef3770e601a"));
    EXPECT_EQ(deployed.subtracting(rfc), number("090564"));
    EXPECT_EQ(rfc.adding(number("090564")), deployed);
}

class MSEHandshakeTest : public ConnectionFixture {
protected:
    void startEncryptedDial(MSEPrime prime = MSEPrime::deployed) {
        startDial(PeerConnection::EncryptionPreference::mseRC4, prime);
    }
    /// What the dial to a peer that follows `script` throws.
    std::string failureToDial(const MSEResponder::Script& script, MSEPrime prime = MSEPrime::deployed) {
        startEncryptedDial(prime);
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
    const std::string peerName = peer.address().description();
    EXPECT_THAT(log.lines(), testing::IsSupersetOf({"[MSE] → " + peerName + " negotiating RC4 over tcp",
                                                    "[MSE] ✓ " + peerName + " RC4 selected"}));
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
    startEncryptedDial();
    simulation.finish(peer.read(96));
    simulation.advance(6s);
    EXPECT_EQ(ConnectionFixture::failureToDial(), "MSE/PE encrypted handshake failed");
    EXPECT_EQ(connection->encryptionStatus(), PeerEncryptionStatus::handshakeFailed);
}

}  // namespace
}  // namespace skein
