#include "Core/wire/PeerError.h"

namespace skein {

std::string_view textOf(PeerError error) noexcept {
    switch (error) {
        case PeerError::invalidHandshake: return "Plaintext peer handshake failed";
        case PeerError::infoHashMismatch: return "Info hash mismatch";
        case PeerError::connectionClosed: return "Peer connection closed";
        case PeerError::timeout: return "Peer connection timed out";
        case PeerError::oversizedMessage: return "Peer sent oversized message";
        case PeerError::encryptionHandshakeFailed: return "MSE/PE encrypted handshake failed";
    }
    return "";
}

}  // namespace skein
