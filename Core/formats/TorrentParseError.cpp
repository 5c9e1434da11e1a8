#include "Core/formats/TorrentParseError.h"

namespace skein {

std::string_view textOf(TorrentParseError error) noexcept {
    switch (error) {
        case TorrentParseError::missingField: return "Missing required field: ";
        case TorrentParseError::invalidData: return "Invalid torrent data";
        case TorrentParseError::invalidInfoHash: return "Failed to compute info hash";
        case TorrentParseError::unsupportedVersion: return "BitTorrent v2 torrents are not supported yet";
    }
    return {};
}

}  // namespace skein
