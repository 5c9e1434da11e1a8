#pragma once

#include "Core/wire/MSEInitiator.h"
#include "Core/wire/PeerError.h"
#include "Core/wire/PeerWireTransport.h"

#include <boost/asio/awaitable.hpp>

#include <memory>

namespace skein {

/// Thrown by the handshake, whatever it failed of.
class MSEException : public PeerException {
public:
    explicit MSEException(bool otherPrime)
        : PeerException(PeerError::encryptionHandshakeFailed), mayNeedOtherPrime(otherPrime) {}
    /// The peer answered with a key, but did not understand ours, or we not what followed it.
    const bool mayNeedOtherPrime;
};

/// Hides a peer-wire stream from traffic shaping; the initiating side. Thread: the transport's, for well below 1 ms.
struct MSEHandshake {
    /// `transport` is started; on success the encrypted stream over it takes its place, otherwise it is as broken as
    /// the handshake left it. Throws MSEException. Has no time limit of its own.
    static asio::awaitable<void> negotiateInitiator(std::unique_ptr<PeerWireTransport>& transport,
                                                    const SHA1Digest& infoHash, MSEPrime prime, Random& random);
};

}  // namespace skein
