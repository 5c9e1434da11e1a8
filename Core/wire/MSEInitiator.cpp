#include "Core/wire/MSEInitiator.h"

#include "Core/wire/PeerError.h"
#include "public/common/Random.h"

#include <algorithm>
#include <cassert>
#include <initializer_list>
#include <string>
#include <utility>

namespace skein {

namespace {

/// Where an attacker might learn the key from the first bytes of the keystream.
constexpr std::size_t discardedKeystream = 1024;

/// The first Oakley group but for its end.
constexpr std::string_view primeHex =
    "FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD129024E088A67CC74020BBEA63B139B22514A08798E3404DD"
    "EF9519B3CD3A431B302B0A6DF25F14374FE1356D6D51C245E485B576625E7EC6F44C42E9";

BigUInt primeEndingIn(std::string_view end) {
    return BigUInt::fromBigEndian(fromHex(std::string(primeHex).append(end)).value());
}

const BigUInt& valueOf(MSEPrime prime) {
    static const BigUInt deployed = primeEndingIn("A63A36210000000000090563");
    static const BigUInt rfc2409 = primeEndingIn("A63A3620FFFFFFFFFFFFFFFF");
    return prime == MSEPrime::deployed ? deployed : rfc2409;
}

SHA1Digest hashOf(std::string_view label, std::initializer_list<ByteView> parts) {
    SHA1Hasher hasher;
    hasher.update(asBytes(label));
    for (const ByteView part : parts) hasher.update(part);
    return hasher.finish();
}

}  // namespace

MSEInitiator::MSEInitiator(const SHA1Digest& infoHash, MSEPrime prime, Random& random)
    : infoHash_(infoHash),
      prime_(valueOf(prime)),
      privateKey_(BigUInt::random(random, privateKeySize, prime_)),
      publicKey_(BigUInt::modPow(BigUInt(2), privateKey_, prime_).fixedWidthBigEndianBytes(keySize)) {}

Bytes MSEInitiator::take(ByteView received) {
    append(received_, received);
    Bytes answer;
    while (advance(answer)) {}
    return answer;
}

MSEInitiator::Outcome MSEInitiator::takeOutcome() {
    assert(isDone());
    return {*sendCipher_, *receiveCipher_, std::move(received_)};
}

/// False when the next step needs more bytes, or there is none.
bool MSEInitiator::advance(Bytes& answer) {
    switch (step_) {
        case Step::publicKey:
            if (received_.size() < keySize) return false;
            answer = answerTo(ByteView(received_).first(keySize));
            consume(keySize);
            step_ = Step::verification;
            return true;
        case Step::verification:
            if (!findVerificationConstant()) return false;
            step_ = Step::selection;
            return true;
        case Step::selection:
            if (received_.size() < 4) return false;
            if (readBigEndian<std::uint32_t>(decrypt(4)) != cryptoRC4)
                throw PeerException(PeerError::encryptionHandshakeFailed);
            consume(4);
            step_ = Step::padLength;
            return true;
        case Step::padLength:
            if (received_.size() < 2) return false;
            padLeft_ = readBigEndian<std::uint16_t>(decrypt(2));
            consume(2);
            step_ = Step::pad;
            return true;
        case Step::pad: {
            const std::size_t count = std::min(padLeft_, received_.size());
            decrypt(count);
            consume(count);
            padLeft_ -= count;
            if (padLeft_ > 0) return false;
            step_ = Step::done;
            return false;
        }
        case Step::done: return false;
    }
    return false;
}

/// Makes the keys out of both public keys; returns the encrypted request.
Bytes MSEInitiator::answerTo(ByteView peerKey) {
    const BigUInt theirs = BigUInt::fromBigEndian(peerKey);
    if (theirs.isZero()) throw PeerException(PeerError::encryptionHandshakeFailed);
    const Bytes secret = BigUInt::modPow(theirs, privateKey_, prime_).fixedWidthBigEndianBytes(keySize);
    sendCipher_.emplace(hashOf("keyA", {secret, infoHash_}), discardedKeystream);
    receiveCipher_.emplace(hashOf("keyB", {secret, infoHash_}), discardedKeystream);
    verificationConstant_.resize(vcSize);
    receiveCipher_->apply(verificationConstant_);

    const SHA1Digest secretHash = hashOf("req1", {secret});
    const SHA1Digest torrentHash = hashOf("req2", {infoHash_});
    const SHA1Digest mask = hashOf("req3", {secret});
    Bytes request(secretHash.begin(), secretHash.end());
    std::transform(torrentHash.begin(), torrentHash.end(), mask.begin(), std::back_inserter(request),
                   [](std::uint8_t a, std::uint8_t b) { return static_cast<std::uint8_t>(a ^ b); });
    Bytes hidden(vcSize);
    appendBigEndian(hidden, cryptoRC4);
    appendBigEndian(hidden, std::uint16_t{0});  // no pad
    appendBigEndian(hidden, std::uint16_t{0});  // nothing of the conversation yet
    sendCipher_->apply(hidden);
    append(request, hidden);
    return request;
}

bool MSEInitiator::findVerificationConstant() {
    const auto end = received_.begin() + static_cast<std::ptrdiff_t>(std::min(received_.size(), maxPadScan));
    const auto found = std::search(received_.begin(), end, verificationConstant_.begin(), verificationConstant_.end());
    if (found != end) {
        consume(static_cast<std::size_t>(found - received_.begin()) + vcSize);
        return true;
    }
    if (received_.size() >= maxPadScan) throw PeerException(PeerError::encryptionHandshakeFailed);
    return false;
}

ByteView MSEInitiator::decrypt(std::size_t count) {
    const auto bytes = std::span(received_).first(count);
    receiveCipher_->apply(bytes);
    return bytes;
}

void MSEInitiator::consume(std::size_t count) {
    received_.erase(received_.begin(), received_.begin() + static_cast<std::ptrdiff_t>(count));
}

}  // namespace skein
