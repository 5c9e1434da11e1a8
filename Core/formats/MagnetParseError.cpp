#include "Core/formats/MagnetParseError.h"

namespace skein {

std::string_view textOf(MagnetParseError error) noexcept {
    switch (error) {
        case MagnetParseError::invalidInfoHash: return "Invalid info hash: ";
        case MagnetParseError::invalidScheme: return "Not a valid magnet link";
        case MagnetParseError::missingInfoHash: return "Magnet link missing info hash (xt parameter)";
    }
    return {};
}

}  // namespace skein
