#pragma once

#include "Core/formats/TorrentMetaInfo.h"

#include <filesystem>
#include <memory>
#include <string>

namespace skein {

/// `torrent` with the paths of its files as they are below `folder`: `top`, if there is one, in the place of the
/// torrent's name, and "_" for each odd character (see OddCharacters.h) in such a way that different paths stay
/// different. A file that is already where the torrent says stays there: its user made it so, or it was begun before
/// names were changed. Makes file calls.
std::shared_ptr<const TorrentMetaInfo> storedIn(const std::filesystem::path& folder, const std::string& top,
                                                std::shared_ptr<const TorrentMetaInfo> torrent);

}  // namespace skein
