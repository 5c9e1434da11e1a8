#pragma once

#include "public/common/Bytes.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

/// `.torrent` files on disk and as they come in. All but `faultOf` are file calls: disk pool only.
namespace skein::TorrentFile {

/// Larger ones are not read: 32 MiB hold the hashes of 1.6 million pieces.
inline constexpr std::size_t maxBytes = std::size_t{32} << 20U;

/// What keeps `data` from being a torrent at all, as the log says it.
std::optional<std::string> faultOf(ByteView data);

struct Saved {
    std::filesystem::path path;
    bool isNew = false;  ///< it was not there before
};
/// Writes `data` as NAME.torrent into `folder` (created when missing). A file of that name with the same bytes is left;
/// one with others is never overwritten. Throws std::system_error with the reason.
Saved save(const std::filesystem::path& folder, std::string_view name, ByteView data);

/// The bytes of the info dictionary in `data`, a `.torrent` that was parsed before.
Bytes infoDataOf(ByteView data);

/// `name` as one path component: what cannot stand in a file name becomes "_", and it is cut to what file systems take.
std::string safeFileName(std::string_view name);

}  // namespace skein::TorrentFile
