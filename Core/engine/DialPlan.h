#pragma once

#include "Core/wire/MSEPrime.h"
#include "Core/wire/PeerConnection.h"
#include "Core/wire/PeerTraits.h"

#include <cstdint>

namespace skein {

/// Only plaintext, only encrypted, or encrypted first and then plaintext.
enum class EncryptionChoice : std::uint8_t { plaintext, mse, preferMSE };
/// One of the two, or TCP and then uTP.
enum class TransportChoice : std::uint8_t { tcp, utp, any };

/// How the user wants peers to be dialled.
struct DialOptions {
    EncryptionChoice encryption = EncryptionChoice::plaintext;
    TransportChoice transport = TransportChoice::any;
};

/// One connection that is tried.
struct DialAttempt {
    PeerTransport transport = PeerTransport::tcp;
    PeerConnection::EncryptionPreference encryption = PeerConnection::EncryptionPreference::plaintext;
    MSEPrime prime = MSEPrime::deployed;

    bool isEncrypted() const noexcept { return encryption == PeerConnection::EncryptionPreference::mseRC4; }
    friend bool operator==(const DialAttempt&, const DialAttempt&) = default;
};

/// How an attempt failed, as far as the next one depends on it.
enum class DialFailure : std::uint8_t {
    unreachable,       ///< no connection was made
    otherPrimeNeeded,  ///< encryption failed, and may succeed with the other prime
    encryptionFailed,
    conversationFailed,  ///< the peer was understood, or spoken to in plaintext
};

/// What earlier dials taught about a peer.
struct DialExperience {
    bool answersUTP = false;
    MSEPrime prime = MSEPrime::deployed;
};

/// The attempts of one dial, one after the other, each on a new connection.
class DialPlan {
public:
    DialPlan(const DialOptions& options, const DialExperience& experience) noexcept;

    const DialAttempt& current() const noexcept { return current_; }
    /// Goes on to what is worth trying next; false when nothing is.
    bool advance(DialFailure failure) noexcept;
    /// After `advance` returned false: whether the peer answers over uTP may be asked.
    bool suggestsUTPProbe() const noexcept { return suggestsUTPProbe_; }

private:
    void begin(PeerTransport transport) noexcept;

    const DialOptions options_;
    const DialExperience experience_;
    DialAttempt current_;
    bool triedBothPrimes_ = false;
    bool suggestsUTPProbe_ = false;
};

}  // namespace skein
