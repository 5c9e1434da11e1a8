#include "Core/formats/TorrentMetaInfo.h"

namespace skein {

ByteView TorrentMetaInfo::pieceHash(int index) const {
    return ByteView(pieces).subspan(static_cast<std::size_t>(index) * sha1Length, sha1Length);
}

std::int64_t TorrentMetaInfo::pieceSize(int index) const noexcept {
    if (index < pieceCount() - 1) return pieceLength;
    const std::int64_t remainder = totalSize % pieceLength;
    return remainder == 0 ? pieceLength : remainder;
}

}  // namespace skein
