#include "Core/formats/BEncoder.h"
#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"
#include "fuzz/Check.h"

namespace skein {
namespace {

void use(const TorrentMetaInfo& torrent) {
    check(torrent.infoHashHex.size() == 2 * sha1Length);
    for (const int index : {0, torrent.pieceCount() - 1, torrent.pieceCount()}) torrent.pieceSize(index);
    if (torrent.pieceCount() > 0) check(torrent.pieceHash(torrent.pieceCount() - 1).size() == sha1Length);
    TorrentMetaInfo::cleanDisplayName(torrent.name);
    const Bytes written = TorrentWriter::write(torrent);
    check(TorrentWriter::write(TorrentParser::parse(written)) == written);
}

/// A file whose info dictionary was read from other bytes than those that were hashed would not parse so.
TorrentMetaInfo parseTwice(ByteView file) {
    TorrentMetaInfo torrent = TorrentParser::parse(file);
    const auto range = BEncoder::outlineOfTorrent(file).info;
    const ByteView info = file.subspan(range->begin, range->end - range->begin);
    const TorrentMetaInfo bare = TorrentParser::parse(info, torrent.infoHash);
    check(bare.pieceLength == torrent.pieceLength && bare.pieces == torrent.pieces);
    check(bare.totalSize == torrent.totalSize && bare.files.size() == torrent.files.size());
    return torrent;
}

template <class Parse>
void parseAndUse(Parse parse) {
    try {
        use(parse());
    } catch (const BEncodeException&) {
    } catch (const TorrentParseException&) {}
}

}  // namespace
}  // namespace skein

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const skein::ByteView bytes(data, size);
    skein::parseAndUse([bytes] { return skein::parseTwice(bytes); });
    skein::parseAndUse([bytes] { return skein::TorrentParser::parse(bytes, skein::sha1(bytes)); });
    return 0;
}
