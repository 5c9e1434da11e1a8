#pragma once

#include "public/common/Bytes.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace skein {

/// What a user may name as something to download.
enum class SourceKind : std::uint8_t {
    magnetLink,
    webTorrent,  ///< an HTTP(S) address whose path ends in ".torrent"
    webFile,     ///< any other HTTP(S) address
    otherWeb,    ///< an address of another scheme, or one without a host: nothing that can be downloaded
    file,        ///< none of these: the path of a `.torrent`
};

/// What is said of a source that cannot be downloaded.
inline constexpr std::string_view unsupportedSource = "not a magnet link, a .torrent file or an http(s) address";

/// By the scheme, in whatever case it is written.
SourceKind sourceKindOf(std::string_view source);

/// The bytes of a `.torrent` file. Throws CommandFailure, also for what is no regular file: a pipe may never end.
Bytes readTorrentFile(const std::string& file);

}  // namespace skein
