#pragma once

#include "Core/formats/TorrentMetaInfo.h"
#include "public/common/Bytes.h"

#include <string>
#include <vector>

/// Makes `.torrent` files. Source: BEP 3, BEP 12, BEP 27. Stateless; any thread.
namespace skein::TorrentWriter {

/// The whole file from its description; `infoHash` and `infoHashHex` are not looked at. A torrent whose only file bears
/// the torrent's name is written in the single-file form. `announce` is the first tracker; `announce-list`, with the
/// tiers as given, is there only when there is a second one.
Bytes write(const TorrentMetaInfo& torrent);

/// A file around info bytes that came from elsewhere, which stay as they are, since their hash is the torrent's name.
Bytes wrap(ByteView infoData, const std::vector<std::vector<std::string>>& announceList);

}  // namespace skein::TorrentWriter
