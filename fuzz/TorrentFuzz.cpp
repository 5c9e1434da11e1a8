#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"
#include "fuzz/Check.h"

#include <stdexcept>

namespace skein {
namespace {

void use(const TorrentMetaInfo& torrent) {
    check(torrent.infoHashHex.size() == 2 * sha1Length);
    for (const int index : {0, torrent.pieceCount() - 1, torrent.pieceCount()}) torrent.pieceSize(index);
    if (torrent.pieceCount() > 0) check(torrent.pieceHash(torrent.pieceCount() - 1).size() == sha1Length);
    TorrentMetaInfo::cleanDisplayName(torrent.name);
    try {
        const Bytes written = TorrentWriter::write(torrent);
        check(TorrentWriter::write(TorrentParser::parse(written)) == written);
    } catch (const std::invalid_argument&) {
        // A text of this torrent looks like the info key.
    }
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
    skein::parseAndUse([bytes] { return skein::TorrentParser::parse(bytes); });
    skein::parseAndUse([bytes] { return skein::TorrentParser::parse(bytes, skein::sha1(bytes)); });
    return 0;
}
