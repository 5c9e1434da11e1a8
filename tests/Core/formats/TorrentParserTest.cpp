#include "Core/formats/BEncoder.h"
#include "Core/formats/TorrentParser.h"
#include "tests/support/FailureIn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <tuple>

namespace skein {
namespace {

using List = BEncodeValue::List;
using Dictionary = BEncodeValue::Dictionary;
using Tiers = std::vector<std::vector<std::string>>;

/// The keys every info dictionary has, and `more`.
Dictionary infoWith(Dictionary more) {
    more.insert(more.end(), {{"name", "mydir"}, {"piece length", 4}, {"pieces", Bytes(40)}});
    return more;
}

TorrentMetaInfo parsed(Dictionary info, Dictionary root = {}) {
    root.emplace_back("info", std::move(info));
    return TorrentParser::parse(BEncoder::encode(root));
}

BEncodeValue fileAt(List path, Dictionary more = {}) {
    more.insert(more.end(), {{"length", 1}, {"path", std::move(path)}});
    return more;
}

/// Below the torrent's name.
std::vector<std::string> pathsOf(List files, Dictionary root = {}) {
    std::vector<std::string> paths;
    for (const TorrentFileInfo& file : parsed(infoWith({{"files", std::move(files)}}), std::move(root)).files)
        paths.push_back(file.path.substr(std::string("mydir/").size()));
    return paths;
}

std::string failureOf(const Dictionary& root) {
    return failureIn<TorrentParseException>([&] { TorrentParser::parse(BEncoder::encode(root)); });
}

TEST(TorrentParser, readsASingleFile) {
    const std::string info = "d6:lengthi10e4:name8:test.txt12:piece lengthi4e6:pieces3:abce";
    const TorrentMetaInfo torrent = TorrentParser::parse(asBytes("d4:info" + info + "e"));
    EXPECT_EQ(torrent.infoHash, sha1(asBytes(info)));
    EXPECT_EQ(torrent.name, "test.txt");
    EXPECT_THAT(torrent.files.all(), testing::ElementsAre(TorrentFileInfo{"test.txt", 10, 0}));
    EXPECT_EQ(torrent.totalSize, 10);
    EXPECT_EQ(torrent.pieceLength, 4);
    EXPECT_EQ(torrent.pieces, toBytes("abc"));
}

TEST(TorrentParser, readsSeveralFilesWithTheirPathsAsGiven) {
    const List files{Dictionary{{"length", 6}, {"path", List{"file1.txt"}}},
                     Dictionary{{"length", 4}, {"path", List{"sub", 7, "..", "", "file2.txt"}}}};
    const TorrentMetaInfo torrent = parsed(infoWith({{"files", files}, {"length", 99}, {"private", 1}}));
    EXPECT_THAT(torrent.files.all(), testing::ElementsAre(TorrentFileInfo{"mydir/file1.txt", 6, 0},
                                                          TorrentFileInfo{"mydir/sub/..//file2.txt", 4, 6}));
    EXPECT_EQ(torrent.totalSize, 10);
    EXPECT_TRUE(torrent.isPrivate);
}

TEST(TorrentParser, readsTrackersFromTheListFirst) {
    const Dictionary info = infoWith({{"length", 1}});
    const List tiers{List{"a", "b"}, "no tier", List{}, List{1, "\xFF"}, List{"c", 2}};
    EXPECT_EQ(parsed(info, {{"announce", "x"}, {"announce-list", tiers}}).announceList, (Tiers{{"a", "b"}, {"c"}}));
    EXPECT_EQ(parsed(info, {{"announce", "x"}, {"announce-list", List{List{}}}}).announceList, (Tiers{{"x"}}));
    EXPECT_EQ(parsed(info, {{"announce", 1}, {"announce-list", "x"}}).announceList, Tiers{});
}

TEST(TorrentParser, readsOptionalFieldsAndIgnoresThoseOfAWrongKind) {
    const TorrentMetaInfo torrent = parsed(infoWith({{"length", 1}, {"private", 2}}),
                                           {{"comment", "c"}, {"created by", "me"}, {"creation date", 1234}});
    EXPECT_FALSE(torrent.isPrivate);
    EXPECT_EQ(torrent.comment, "c");
    EXPECT_EQ(torrent.createdBy, "me");
    EXPECT_EQ(torrent.creationDate, std::chrono::sys_seconds(std::chrono::seconds(1234)));
    const TorrentMetaInfo other = parsed(infoWith({{"length", 1}, {"private", "1"}}),
                                         {{"comment", 1}, {"created by", List{}}, {"creation date", "1234"}});
    EXPECT_FALSE(other.isPrivate || other.comment || other.createdBy || other.creationDate);
}

TEST(TorrentParser, namesThatAreNotUTF8AreTakenInTheirSecondFormOrDecoded) {
    const auto nameOf = [](Dictionary info, Dictionary root = {}) {
        info.insert(info.end(), {{"length", 1}, {"piece length", 4}, {"pieces", Bytes(20)}});
        return parsed(std::move(info), std::move(root)).files.front().path;
    };
    EXPECT_EQ(nameOf({{"name", "\xD6\xD0\xCE\xC4"}, {"name.utf-8", "二"}}, {{"encoding", "GBK"}}), "二");
    EXPECT_EQ(nameOf({{"name", "\xD6\xD0\xCE\xC4"}, {"name.utf-8", "\xFF"}}, {{"encoding", "GBK"}}), "中文");
    EXPECT_EQ(nameOf({{"name", "中"}, {"name.utf-8", "二"}}, {{"encoding", "GBK"}}), "中") << "it is UTF-8 already";
    for (const auto& [encoding, bytes, text] : {std::tuple("Shift_JIS", "\x83\x5C\x93\xFA", "ソ日"),
                                                {"windows-1251", "\xCC\xE8\xF0", "Мир"},
                                                {"BIG5", "\xA4\xA4", "中"},
                                                {"euc-kr", "\xC7\xD1", "한"},
                                                {"ISO-8859-15", "\xA4", "€"},
                                                {"GBK", "\xD6\xD0\xFF", "ÖÐÿ"},
                                                {"UTF-7", "\xE9", "é"},
                                                {"UTF-8", "caf\xE9", "café"},
                                                {"", "中\xE4\xB8", "中ä¸"}})
        EXPECT_EQ(nameOf({{"name", bytes}}, {{"encoding", encoding}}), text) << encoding;
    const TorrentMetaInfo torrent =
        parsed(infoWith({{"length", 1}}), {{"comment", "\xE9"}, {"created by", "\xD6\xD0"}, {"encoding", "cp1252"}});
    EXPECT_EQ(torrent.comment, "é");
    EXPECT_EQ(torrent.createdBy, "ÖÐ");
}

TEST(TorrentParser, differentPathsStayDifferent) {
    const Dictionary second{{"path.utf-8", List{"x", "y"}}};
    EXPECT_THAT(pathsOf({fileAt({"\xFF"}, second), fileAt({"\xFE"}, second), fileAt({"\xFD", "b"})}),
                testing::ElementsAre("x/y", "þ", "ý/b"))
        << "a second form that another file has already is no use";
    EXPECT_THAT(pathsOf({fileAt({"\xE9.txt"}), fileAt({"é.txt"}), fileAt({"\xE9é.txt"}), fileAt({"é\xE9.txt"})}),
                testing::ElementsAre("é (2).txt", "é.txt", "éé.txt", "éé (2).txt"));
    EXPECT_THAT(pathsOf({fileAt({"\xE9", "a"}), fileAt({"\xE9", "b"}), fileAt({"é", "\xE9 (2)"}), fileAt({"é (2)"})}),
                testing::ElementsAre("é (3)/a", "é (3)/b", "é/é (2) (2)", "é (2)"));
    EXPECT_THAT(pathsOf({fileAt({"same"}), fileAt({"same"})}), testing::ElementsAre("same", "same"))
        << "what the torrent gives twice is storage's to refuse";
}

TEST(TorrentParser, readsTheFirstVersionOfATorrentOfBoth) {
    const Dictionary leaf{{"", Dictionary{{"length", 4}, {"pieces root", Bytes(32, 0xFF)}}}};
    const Dictionary version2{{"file tree", Dictionary{{"a", leaf}}}, {"meta version", 2}};
    const Dictionary layers{{"piece layers", Dictionary{{std::string(32, '\xFF'), Bytes(64)}}}};
    Dictionary both = version2;
    both.emplace_back("files", List{fileAt({"a"}), fileAt({".pad", "3"}, {{"attr", "p"}}), fileAt({"b"})});
    EXPECT_THAT(parsed(infoWith(both), layers).files, testing::SizeIs(3));
    Dictionary alone = version2;
    alone.insert(alone.end(), {{"name", "a"}, {"piece length", 16384}});
    for (const Dictionary& info : {alone, version2})
        EXPECT_EQ(failureOf({{"info", info}, layers.front()}), "BitTorrent v2 torrents are not supported yet");
}

TEST(TorrentParser, namesTheFieldThatIsMissing) {
    const auto missing = [](const Dictionary& info) { return failureOf({{"info", info}}); };
    EXPECT_EQ(missing({}), "Missing required field: name");
    EXPECT_EQ(missing({{"name", 1}, {"name.utf-8", "a"}}), "Missing required field: name");
    EXPECT_EQ(missing({{"name", "a"}}), "Missing required field: piece length");
    EXPECT_EQ(missing({{"name", "a"}, {"piece length", 4}}), "Missing required field: pieces");
    EXPECT_EQ(missing(infoWith({})), "Missing required field: length or files");
    EXPECT_EQ(missing(infoWith({{"length", "1"}, {"files", 1}})), "Missing required field: length or files");
    EXPECT_EQ(missing(infoWith({{"files", List{1}}})), "Missing required field: file length");
    EXPECT_EQ(missing(infoWith({{"files", List{Dictionary{{"length", 1}}}}})), "Missing required field: file path");
    EXPECT_EQ(failureOf({{"info", 1}}), "Missing required field: name");
    for (const char* text : {"none", "4:infode"}) EXPECT_EQ(failureOf({{"x", text}}), "Invalid torrent data");
    EXPECT_THROW(TorrentParser::parse(asBytes("l4:infodee")), TorrentParseException);
    EXPECT_THROW(TorrentParser::parse(asBytes("not bencode")), BEncodeException);
}

TEST(TorrentParser, theInfoHashIsOfTheInfoDictionaryThatIsRead) {
    const Bytes shown = BEncoder::encode(infoWith({{"length", 1}}));
    const Bytes used = BEncoder::encode(infoWith({{"length", 2}}));
    Bytes disguise = toBytes("4:info");
    append(disguise, shown);
    const TorrentMetaInfo torrent =
        TorrentParser::parse(BEncoder::encode(Dictionary{{"comment", disguise}, {"info", BEncoder::decode(used)}}));
    EXPECT_EQ(torrent.infoHash, sha1(used));
    EXPECT_EQ(torrent.totalSize, 2);
}

TEST(TorrentParser, acceptsABareInfoDictionaryOnlyWithTheExpectedHash) {
    const Bytes info = BEncoder::encode(infoWith({{"length", 1}, {"comment", "inside"}}));
    const TorrentMetaInfo torrent = TorrentParser::parse(info, sha1(info));
    EXPECT_EQ(torrent.infoHash, sha1(info));
    EXPECT_EQ(torrent.comment, "inside");
    EXPECT_TRUE(torrent.announceList.empty());
    const auto parseForAnother = [&] { TorrentParser::parse(info, SHA1Digest{}); };
    EXPECT_EQ(failureIn<TorrentParseException>(parseForAnother), "Failed to compute info hash");
    Bytes longer = info;
    longer.push_back('e');
    EXPECT_THROW(TorrentParser::parse(longer, sha1(longer)), TorrentParseException) << "no dictionary has that hash";
}

TEST(TorrentParser, sumsThatOverflowStopAtTheEndOfTheirType) {
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    const Dictionary file{{"length", most}, {"path", List{"a"}}};
    EXPECT_EQ(parsed(infoWith({{"files", List{file, file, file}}})).totalSize, most);
    const Dictionary negative{{"length", -most}, {"path", List{"a"}}};
    EXPECT_LT(parsed(infoWith({{"files", List{negative, negative}}})).totalSize, -most);
}

TEST(TorrentParser, aLongNameOfManyFilesDoesNotGrowBeyondAllProportion) {
    const List files(2'000, Dictionary{{"length", 1}, {"path", List{"a"}}});
    const Bytes name(1'000'000, 'n');
    const Dictionary info{{"files", files}, {"name", name}, {"piece length", 4}, {"pieces", Bytes(20)}};
    EXPECT_EQ(failureOf({{"info", info}}), "Invalid torrent data");
}

}  // namespace
}  // namespace skein
