#include "Core/wire/RelayError.h"

namespace skein {

std::string_view textOf(RelayError error) noexcept {
    switch (error) {
        case RelayError::invalidURL: return "Invalid relay server URL";
        case RelayError::rejected: return "Relay rejected: ";
        case RelayError::pairingTimeout: return "Relay pairing timeout";
        case RelayError::closed: return "Relay connection closed";
    }
    return "";
}

}  // namespace skein
