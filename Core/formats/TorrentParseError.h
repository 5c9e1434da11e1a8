#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace skein {

/// Why bencoded bytes are no torrent. The texts are shown to users and do not change.
enum class TorrentParseError : std::uint8_t { missingField, invalidData, invalidInfoHash, unsupportedVersion };
std::string_view textOf(TorrentParseError error) noexcept;

/// Thrown by TorrentParser. `what()` is the text, followed by `detail` where the text ends in a colon.
class TorrentParseException : public std::runtime_error {
public:
    explicit TorrentParseException(TorrentParseError why, std::string_view detail = {})
        : std::runtime_error(std::string(textOf(why)).append(detail)), error(why) {}
    const TorrentParseError error;
};

}  // namespace skein
