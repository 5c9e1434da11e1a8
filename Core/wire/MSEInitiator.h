#pragma once

#include "Core/wire/BigUInt.h"
#include "Core/wire/MSEPrime.h"
#include "Core/wire/RC4.h"
#include "public/common/Bytes.h"
#include "public/common/SHA1.h"

#include <cstdint>
#include <optional>

namespace skein {

class Random;

/// The initiating side of message stream encryption, over bytes alone: RC4 is offered and nothing else.
///
/// Send `opening()`, then hand in what comes, in whatever portions, and send what that returns, until `isDone()`.
/// Source: the published description of Message Stream Encryption, version 1.0; RFC 2409, "First Oakley Group".
class MSEInitiator {
public:
    static constexpr std::size_t keySize = 96;         ///< bytes of a public key: 768 bits
    static constexpr std::size_t privateKeySize = 20;  ///< 160 bits, as the description recommends
    static constexpr std::size_t vcSize = 8;           ///< zeros, encrypted: the verification constant
    static constexpr std::size_t maxPadScan = 520;     ///< the longest pad and the constant
    static constexpr std::uint32_t cryptoRC4 = 2;

    struct Outcome {
        RC4 sendCipher;
        RC4 receiveCipher;
        Bytes early;  ///< what came behind the handshake, still encrypted
    };

    MSEInitiator(const SHA1Digest& infoHash, MSEPrime prime, Random& random);

    /// Our public key.
    const Bytes& opening() const noexcept { return publicKey_; }
    /// What is to be sent now, mostly nothing. Throws PeerException (encryptionHandshakeFailed) when the peer breaks
    /// the rules, does not know the torrent or does not select RC4.
    Bytes take(ByteView received);
    bool isDone() const noexcept { return step_ == Step::done; }
    /// The peer's key was had and its verification constant was not: its prime may be the other one.
    bool isAwaitingVC() const noexcept { return step_ == Step::verification; }
    /// Once done, and once.
    Outcome takeOutcome();

private:
    enum class Step : std::uint8_t { publicKey, verification, selection, padLength, pad, done };

    bool advance(Bytes& answer);
    Bytes answerTo(ByteView peerKey);
    bool findVerificationConstant();
    ByteView decrypt(std::size_t count);
    void consume(std::size_t count);

    const SHA1Digest infoHash_;
    const BigUInt& prime_;
    const BigUInt privateKey_;
    const Bytes publicKey_;
    Step step_ = Step::publicKey;
    Bytes received_;  // and not used up
    Bytes verificationConstant_;
    std::size_t padLeft_ = 0;
    std::optional<RC4> sendCipher_;
    std::optional<RC4> receiveCipher_;
};

}  // namespace skein
