#include "tests/support/MSEResponder.h"

#include "public/common/SHA1.h"

#include <openssl/bn.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <stdexcept>

namespace skein {

namespace {

constexpr int keyBytes = 96;

using Number = std::unique_ptr<BIGNUM, decltype([](BIGNUM* number) { BN_free(number); })>;

Bytes power(const Number& base, const Number& exponent, bool rfcPrime) {
    const Number prime(BN_get_rfc2409_prime_768(nullptr));
    if (!rfcPrime) BN_add_word(prime.get(), 0x90564);
    const Number result(BN_new());
    BN_CTX* const context = BN_CTX_new();
    BN_mod_exp(result.get(), base.get(), exponent.get(), prime.get(), context);
    BN_CTX_free(context);
    Bytes bytes(keyBytes);
    BN_bn2binpad(result.get(), bytes.data(), keyBytes);
    return bytes;
}

Bytes hashOf(std::string_view label, Bytes first, const Bytes& second = {}) {
    first.insert(first.begin(), label.begin(), label.end());
    append(first, second);
    const SHA1Digest digest = sha1(first);
    return {digest.begin(), digest.end()};
}

}  // namespace

void MSEResponder::Keystream::begin(ByteView key) {
    std::iota(s.begin(), s.end(), std::uint8_t{0});
    for (std::size_t at = 0; at < s.size(); ++at) {
        j = static_cast<std::uint8_t>(j + s[at] + key[at % key.size()]);
        std::swap(s[at], s[j]);
    }
    j = 0;
    apply(Bytes(1024));
}

Bytes MSEResponder::Keystream::apply(Bytes data) {
    Keystream copy = *this;  // that no write to `data` can change
    for (std::uint8_t& byte : data) {
        copy.j = static_cast<std::uint8_t>(copy.j + copy.s[++copy.i]);
        std::swap(copy.s[copy.i], copy.s[copy.j]);
        byte ^= copy.s[static_cast<std::uint8_t>(copy.s[copy.i] + copy.s[copy.j])];
    }
    *this = copy;
    return data;
}

asio::awaitable<void> MSEResponder::accept(Script script) {
    const Bytes theirKey = co_await peer_.read(keyBytes);
    const Number theirs(BN_bin2bn(theirKey.data(), keyBytes, nullptr));
    const Number generator(BN_new());
    const Number secretKey(BN_new());
    BN_set_word(generator.get(), 2);
    BN_rand(secretKey.get(), 160, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY);
    Bytes ours = script.hasZeroKey ? Bytes(keyBytes) : power(generator, secretKey, script.hasPrimeOfRFC2409);
    ours.resize(keyBytes + script.padB, 0xAB);
    co_await peer_.send(std::move(ours));

    const Bytes secret = power(theirs, secretKey, script.hasPrimeOfRFC2409);
    Bytes expected = hashOf("req1", secret);
    const Bytes torrent = hashOf("req2", infoHash_);
    const Bytes mask = hashOf("req3", secret);
    for (std::size_t i = 0; i < mask.size(); ++i) expected.push_back(torrent[i] ^ mask[i]);
    const Bytes hashes = co_await peer_.read(40);
    if (hashes != expected) throw std::runtime_error("another secret or torrent");
    fromInitiator_.begin(hashOf("keyA", secret, infoHash_));
    toInitiator_.begin(hashOf("keyB", secret, infoHash_));
    const Bytes offer = co_await read(16);
    if (offer != Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0}) throw std::runtime_error("not just RC4");

    Bytes answer(8);
    appendBigEndian(answer, script.select);
    appendBigEndian(answer, static_cast<std::uint16_t>(script.padD));
    answer.resize(answer.size() + script.padD, 0xCD);
    append(answer, script.early);
    co_await send(std::move(answer));
}

asio::awaitable<Bytes> MSEResponder::read(std::size_t count) {
    Bytes bytes = co_await peer_.read(count);
    co_return fromInitiator_.apply(std::move(bytes));
}

}  // namespace skein
