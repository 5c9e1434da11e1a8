#pragma once

#include "tests/support/ScriptedPeer.h"

#include <array>

namespace skein {

/// The accepting side of message stream encryption on a scripted peer's socket, with OpenSSL's numbers and a cipher of
/// its own: it shares nothing with the side under test.
class MSEResponder {
public:
    struct Script {
        bool hasPrimeOfRFC2409 = false;
        bool hasZeroKey = false;
        std::size_t padB = 0;
        std::size_t padD = 0;
        std::uint32_t select = 2;
        Bytes early;  ///< sent in one write with the handshake's end
    };

    MSEResponder(ScriptedPeer& peer, ByteView infoHash) : peer_(peer), infoHash_(infoHash.begin(), infoHash.end()) {}

    /// Throws std::runtime_error when the initiator does not keep to the handshake.
    asio::awaitable<void> accept(Script script);
    asio::awaitable<void> send(Bytes bytes) { return peer_.send(toInitiator_.apply(std::move(bytes))); }
    asio::awaitable<Bytes> read(std::size_t count);

private:
    struct Keystream {
        std::array<std::uint8_t, 256> s{};
        std::uint8_t i = 0;
        std::uint8_t j = 0;
        void begin(ByteView key);
        Bytes apply(Bytes data);
    };

    ScriptedPeer& peer_;
    const Bytes infoHash_;
    Keystream toInitiator_;
    Keystream fromInitiator_;
};

}  // namespace skein
