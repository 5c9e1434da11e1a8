#include "Core/engine/TorrentBuildError.h"

namespace skein {

std::string_view textOf(TorrentBuildError error) noexcept {
    switch (error) {
        case TorrentBuildError::cannotRead: return "Cannot read: ";
        case TorrentBuildError::nothingInIt: return "Nothing in it to share";
        case TorrentBuildError::nameIsNotText: return "A name is not valid UTF-8: ";
        case TorrentBuildError::tooManyPieces: return "Too many pieces, a greater piece length is needed";
        case TorrentBuildError::changed: return "Changed while it was read: ";
        case TorrentBuildError::stopped: return "Stopped";
    }
    return {};
}

}  // namespace skein
