#include "Core/engine/ParsedTorrent.h"

#include "Core/engine/TorrentFile.h"
#include "Core/formats/TorrentParser.h"

namespace skein {

ParsedTorrent ParsedTorrent::read(const Bytes& torrentData, const SHA1Digest& expected) {
    ParsedTorrent parsed;
    try {
        if (const auto fault = TorrentFile::faultOf(torrentData)) {
            parsed.failure = *fault;
            return parsed;
        }
        auto metaInfo = std::make_shared<TorrentMetaInfo>(TorrentParser::parse(torrentData));
        if (metaInfo->infoHash != expected) {
            parsed.failure = "Info hash mismatch: expected " + toHex(expected) + ", got " + metaInfo->infoHashHex;
            return parsed;
        }
        parsed.infoData = TorrentFile::infoDataOf(torrentData);
        parsed.metaInfo = std::move(metaInfo);
    } catch (const std::exception& error) {
        parsed.failure = std::string("Failed to parse torrent: ") + error.what();
    }
    return parsed;
}

}  // namespace skein
