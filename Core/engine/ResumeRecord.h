#pragma once

#include "Core/engine/PieceSet.h"
#include "public/common/Bytes.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace skein {

/// What tells a file of a torrent from one that was changed or replaced since.
struct FileStamp {
    std::int64_t size = -1;     ///< bytes; -1: there is no such file
    std::int64_t modified = 0;  ///< nanoseconds since 1970
    std::uint64_t inode = 0;

    friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

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
