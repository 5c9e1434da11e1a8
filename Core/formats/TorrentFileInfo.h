#pragma once

#include <cstdint>
#include <string>

namespace skein {

/// One file of a torrent.
struct TorrentFileInfo {
    std::string path;         ///< relative, "/" between components, the torrent's name first; as given, not yet safe
    std::int64_t size = 0;    ///< bytes
    std::int64_t offset = 0;  ///< of its first byte in the torrent's byte stream

    friend bool operator==(const TorrentFileInfo&, const TorrentFileInfo&) = default;
};

}  // namespace skein
