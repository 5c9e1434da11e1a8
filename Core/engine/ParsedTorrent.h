#pragma once

#include "Core/formats/TorrentMetaInfo.h"
#include "public/common/Bytes.h"
#include "public/common/SHA1.h"

#include <memory>
#include <string>

namespace skein {

/// The bytes of a `.torrent`, read.
struct ParsedTorrent {
    std::shared_ptr<const TorrentMetaInfo> metaInfo;
    Bytes infoData;       ///< the info dictionary
    std::string failure;  ///< why there is no `metaInfo`

    /// What is not the torrent `expected` is a failure. Large ones take a while: disk pool only.
    static ParsedTorrent read(const Bytes& torrentData, const SHA1Digest& expected);
};

}  // namespace skein
