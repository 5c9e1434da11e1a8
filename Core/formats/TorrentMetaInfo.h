#pragma once

#include "Core/formats/FileList.h"
#include "public/common/Bytes.h"
#include "public/common/SHA1.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// The immutable description of a torrent. Source: BEP 3, BEP 12 (tiers), BEP 27 (private).
///
/// Holds what the torrent says, unchecked: storage refuses what it cannot keep safely.
struct TorrentMetaInfo {
    SHA1Digest infoHash{};
    std::string infoHashHex;
    std::string name;
    std::int64_t pieceLength = 0;  ///< bytes; may be anything the torrent says, 0 and negative included
    Bytes pieces;                  ///< 20 bytes a piece
    std::int64_t totalSize = 0;    ///< bytes
    FileList files;
    bool isPrivate = false;
    std::optional<std::chrono::sys_seconds> creationDate;
    std::optional<std::string> comment;
    std::optional<std::string> createdBy;
    std::vector<std::vector<std::string>> announceList;

    int pieceCount() const noexcept { return static_cast<int>(pieces.size() / sha1Length); }
    /// The 20 bytes of piece `index`, which lies in [0, pieceCount).
    ByteView pieceHash(int index) const;
    /// Bytes of piece `index`; the last one may be shorter.
    std::int64_t pieceSize(int index) const noexcept;

    /// The same torrent with its file, or the folder of its files, at `top` instead of at the torrent's name.
    TorrentMetaInfo storedAs(const std::string& top) const;

    /// `name` without bracketed tags, addresses and stray punctuation, for showing; `name` itself when nothing is left.
    static std::string cleanDisplayName(std::string_view name);
};

}  // namespace skein
