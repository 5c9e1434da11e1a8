#include "Core/wire/MSEInitiator.h"
#include "Core/wire/PeerError.h"
#include "fuzz/Check.h"
#include "public/common/Random.h"

#include <algorithm>
#include <optional>

namespace skein {
namespace {

class Ones final : public Random {
public:
    void fill(std::span<std::uint8_t> bytes) override { std::fill(bytes.begin(), bytes.end(), std::uint8_t{1}); }
};

const MSEInitiator& fresh() {
    static Ones random;
    static const MSEInitiator initiator(SHA1Digest{}, MSEPrime::deployed, random);
    return initiator;
}

/// The peer's public key is 2: the secret is then our own. An exponentiation is slow under the sanitizers.
const MSEInitiator& withKeyOfPeer() {
    static const MSEInitiator initiator = [] {
        MSEInitiator made = fresh();
        Bytes key(MSEInitiator::keySize);
        key.back() = 2;
        made.take(key);
        return made;
    }();
    return initiator;
}

/// Reads `stream` in portions of at most `portion` bytes: what came behind the handshake, decrypted; nothing when it
/// failed or did not end.
std::optional<Bytes> negotiate(MSEInitiator initiator, ByteView stream, std::size_t portion) {
    Bytes early;
    try {
        while (!stream.empty() && !initiator.isDone()) {
            const ByteView part = stream.first(std::min(portion, stream.size()));
            initiator.take(part);
            stream = stream.subspan(part.size());
        }
        if (!initiator.isDone()) return std::nullopt;
    } catch (const PeerException& failure) {
        check(failure.error == PeerError::encryptionHandshakeFailed);
        return std::nullopt;
    }
    MSEInitiator::Outcome outcome = initiator.takeOutcome();
    append(outcome.early, stream);
    outcome.receiveCipher.apply(outcome.early);
    return outcome.early;
}

}  // namespace
}  // namespace skein

/// The first byte is the portion; the next two say how long a pad comes before the rest, which is encrypted as the peer
/// would. A pad of 0xFFFF: the rest is the whole stream as it is.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace skein;
    if (size < 3) return 0;
    const std::size_t portion = std::size_t{data[0]} + 1;
    const std::size_t pad = readBigEndian<std::uint16_t>(ByteView(data + 1, 2));
    ByteView rest(data + 3, size - 3);
    if (pad == 0xFFFF) {
        negotiate(fresh(), rest, portion);
        return 0;
    }
    if (pad > rest.size()) return 0;

    Bytes stream(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(pad));
    rest = rest.subspan(pad);
    Bytes keySource = toBytes("keyB");
    append(keySource, fresh().opening());
    append(keySource, SHA1Digest{});
    RC4 cipher(sha1(keySource), 1024);
    Bytes hidden(MSEInitiator::vcSize);
    append(hidden, rest);
    cipher.apply(hidden);
    append(stream, hidden);

    const std::optional<Bytes> early = negotiate(withKeyOfPeer(), stream, portion);
    check(early == negotiate(withKeyOfPeer(), stream, stream.size()));
    std::optional<Bytes> expected;
    if (pad <= 512 && rest.size() >= 6 && readBigEndian<std::uint32_t>(rest) == MSEInitiator::cryptoRC4) {
        const std::size_t padD = readBigEndian<std::uint16_t>(rest.subspan(4));
        if (padD <= rest.size() - 6) expected.emplace(rest.begin() + 6 + static_cast<std::ptrdiff_t>(padD), rest.end());
    }
    check(early == expected);
    return 0;
}
