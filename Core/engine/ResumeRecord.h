#pragma once

#include "Core/engine/FileStamp.h"
#include "Core/engine/PieceSet.h"
#include "public/common/Bytes.h"

#include <optional>
#include <vector>

namespace skein {

/// Which pieces of a torrent were verified, and what its files looked like then: a start that finds the files unchanged
/// need not hash these pieces again. Pieces that are not in it are checked as ever.
struct ResumeRecord {
    PieceSet verified;
    std::vector<FileStamp> files;  ///< in the torrent's order

    Bytes encode() const;
    /// Nothing for what is no record of a torrent with so many pieces and files.
    static std::optional<ResumeRecord> decode(ByteView data, int pieceCount, std::size_t fileCount);
};

}  // namespace skein
