#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace skein {

/// Why a conversation with a peer ended. The texts are shown to users and do not change.
enum class PeerError : std::uint8_t {
    invalidHandshake,
    infoHashMismatch,
    connectionClosed,
    timeout,
    oversizedMessage,
    encryptionHandshakeFailed
};

std::string_view textOf(PeerError error) noexcept;

/// Thrown by transports and connections. `what()` is the text.
class PeerException : public std::runtime_error {
public:
    explicit PeerException(PeerError why) : std::runtime_error(std::string(textOf(why))), error(why) {}
    const PeerError error;
};

}  // namespace skein
