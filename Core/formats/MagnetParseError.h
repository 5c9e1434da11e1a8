#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace skein {

/// Why a text is no magnet link. The texts are shown to users and do not change.
enum class MagnetParseError : std::uint8_t { invalidInfoHash, invalidScheme, missingInfoHash, unsupportedVersion };
std::string_view textOf(MagnetParseError error) noexcept;

/// Thrown by MagnetParser. `what()` is the text, followed by `detail` where the text ends in a colon.
class MagnetParseException : public std::runtime_error {
public:
    explicit MagnetParseException(MagnetParseError why, std::string_view detail = {})
        : std::runtime_error(std::string(textOf(why)).append(detail)), error(why) {}
    const MagnetParseError error;
};

}  // namespace skein
