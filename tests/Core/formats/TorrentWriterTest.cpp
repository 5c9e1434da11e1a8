#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"

#include <gtest/gtest.h>

namespace skein {
namespace {

TorrentMetaInfo smallTorrent() {
    return {.name = "a", .pieceLength = 4, .pieces = toBytes("hash"), .totalSize = 3, .files = {{"a", 3, 0}}};
}

TEST(TorrentWriter, writesASingleFileWithSortedKeys) {
    TorrentMetaInfo torrent = smallTorrent();
    EXPECT_EQ(asText(TorrentWriter::write(torrent)), "d4:infod6:lengthi3e4:name1:a12:piece lengthi4e6:pieces4:hashee");
    torrent.announceList = {{}, {"x"}};
    torrent.isPrivate = true;
    EXPECT_EQ(asText(TorrentWriter::write(torrent)),
              "d8:announce1:x4:infod6:lengthi3e4:name1:a12:piece lengthi4e6:pieces4:hash7:privatei1eee");
}

TEST(TorrentWriter, whatItWritesIsReadBackTheSame) {
    TorrentMetaInfo torrent = smallTorrent();
    torrent.name = "d/ir";
    torrent.files = {{"d/ir/a", 1, 0}, {"d/ir/sub/b", 2, 1}};
    torrent.creationDate = std::chrono::sys_seconds(std::chrono::seconds(1'234'567'890));
    torrent.announceList = {{"t1"}, {"t2", "t3"}};
    const TorrentMetaInfo read = TorrentParser::parse(TorrentWriter::write(torrent));
    EXPECT_EQ(read.files, torrent.files);
    EXPECT_EQ(read.creationDate, torrent.creationDate);
    EXPECT_EQ(read.announceList, torrent.announceList);
}

TEST(TorrentWriter, wrapsInfoBytesAsTheyAre) {
    const std::string info = "d6:pieces0:4:name1:a12:piece lengthi04e6:lengthi1ee";
    const Bytes file = TorrentWriter::wrap(asBytes(info), {{"t1"}, {"t2"}});
    const TorrentMetaInfo read = TorrentParser::parse(file);
    EXPECT_EQ(read.infoHash, sha1(asBytes(info)));
    EXPECT_EQ(read.announceList.size(), 2U);
    EXPECT_EQ(asText(TorrentWriter::wrap(asBytes(info), {})), "d4:info" + info + "e");
}

TEST(TorrentWriter, aTextThatLooksLikeTheInfoKeyHidesNothing) {
    TorrentMetaInfo torrent = smallTorrent();
    torrent.comment = "information is";  // written "14:information is"
    const TorrentMetaInfo read = TorrentParser::parse(TorrentWriter::write(torrent));
    EXPECT_EQ(read.comment, torrent.comment);
    EXPECT_EQ(read.files, torrent.files);
}

}  // namespace
}  // namespace skein
