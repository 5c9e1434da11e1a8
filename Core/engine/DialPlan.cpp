#include "Core/engine/DialPlan.h"

namespace skein {

using EncryptionPreference = PeerConnection::EncryptionPreference;

DialPlan::DialPlan(const DialOptions& options, const DialExperience& experience) noexcept
    : options_(options), experience_(experience) {
    const bool startsWithUTP = options.transport == TransportChoice::utp ||
                               (options.transport == TransportChoice::any && experience.answersUTP);
    begin(startsWithUTP ? PeerTransport::utp : PeerTransport::tcp);
}

void DialPlan::begin(PeerTransport transport) noexcept {
    const bool isPlain = options_.encryption == EncryptionChoice::plaintext;
    current_ = {transport, isPlain ? EncryptionPreference::plaintext : EncryptionPreference::mseRC4, experience_.prime};
    triedBothPrimes_ = false;
}

bool DialPlan::advance(DialFailure failure) noexcept {
    if (failure == DialFailure::unreachable) {
        if (options_.transport != TransportChoice::any) return false;
        if (current_.transport == PeerTransport::utp) {
            begin(PeerTransport::tcp);
            return true;
        }
        // What was known to answer over uTP has just been found not to.
        suggestsUTPProbe_ = !experience_.answersUTP;
        return false;
    }
    if (!current_.isEncrypted() || failure == DialFailure::conversationFailed) return false;
    if (failure == DialFailure::otherPrimeNeeded && !triedBothPrimes_) {
        triedBothPrimes_ = true;
        current_.prime = current_.prime == MSEPrime::deployed ? MSEPrime::rfc2409 : MSEPrime::deployed;
        return true;
    }
    if (options_.encryption != EncryptionChoice::preferMSE) return false;
    current_.encryption = EncryptionPreference::plaintext;
    return true;
}

}  // namespace skein
