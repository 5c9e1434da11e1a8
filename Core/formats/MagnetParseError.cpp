#include "Core/formats/MagnetParseError.h"

namespace skein {

std::string_view textOf(MagnetParseError error) noexcept {
    switch (error) {
        case MagnetParseError::invalidInfoHash: return "Invalid info hash: ";
        case MagnetParseError::invalidScheme: return "Not a valid magnet link";
        case MagnetParseError::missingInfoHash: return "Magnet link missing info hash (xt parameter)";
        case MagnetParseError::unsupportedVersion: return "BitTorrent v2 torrents are not supported yet";
    }
    return {};
}

}  // namespace skein
