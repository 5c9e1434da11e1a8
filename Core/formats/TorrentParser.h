#pragma once

#include "Core/formats/BEncodeError.h"
#include "Core/formats/TorrentMetaInfo.h"
#include "Core/formats/TorrentParseError.h"
#include "public/common/Bytes.h"
#include "public/common/SHA1.h"

/// Reads torrents. Source: BEP 3, BEP 12, BEP 27, BEP 52. Stateless; any thread (hashes its input: not on an `io`
/// thread when that is large). Throws BEncodeException and TorrentParseException. Optional fields of a wrong kind count
/// as absent. Names and texts come out as UTF-8 (TextDecoder, TorrentPaths). A torrent of versions 1 and 2 is read as
/// of version 1.
namespace skein::TorrentParser {

/// A whole `.torrent` file.
TorrentMetaInfo parse(ByteView data);

/// A bare info dictionary, as peers send it; its SHA-1 must be `expectedInfoHash`.
TorrentMetaInfo parse(ByteView infoData, const SHA1Digest& expectedInfoHash);

}  // namespace skein::TorrentParser
