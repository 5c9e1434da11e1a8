#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace skein {

/// Why there is no relay, or no more. The texts are shown to users and do not change.
enum class RelayError : std::uint8_t {
    invalidURL,
    rejected,        ///< the service said why
    pairingTimeout,  ///< nobody was found to pair with
    closed           ///< it broke, or was cancelled by us
};

std::string_view textOf(RelayError error) noexcept;

/// Thrown by relays. `what()` is the text, followed by `reason` where the text ends in a colon.
class RelayException : public std::runtime_error {
public:
    explicit RelayException(RelayError why, std::string_view reason = {})
        : std::runtime_error(std::string(textOf(why)).append(reason)), error(why) {}
    const RelayError error;
};

}  // namespace skein
