#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace skein {

/// Why no torrent can be made of files. The texts are shown to users and do not change.
enum class TorrentBuildError : std::uint8_t { cannotRead, nothingInIt, nameIsNotText, tooManyPieces, changed, stopped };
std::string_view textOf(TorrentBuildError error) noexcept;

/// Thrown by TorrentBuilder. `what()` is the text, followed by `detail` where the text ends in a colon.
class TorrentBuildException : public std::runtime_error {
public:
    explicit TorrentBuildException(TorrentBuildError why, std::string_view detail = {})
        : std::runtime_error(std::string(textOf(why)).append(detail)), error(why) {}
    const TorrentBuildError error;
};

}  // namespace skein
