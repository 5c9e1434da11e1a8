#include "Core/formats/TorrentMetaInfo.h"

#include <gtest/gtest.h>

#include <limits>

namespace skein {
namespace {

TEST(TorrentMetaInfo, aPieceLengthThatCannotBeHasPiecesOfNothing) {
    TorrentMetaInfo torrent{.totalSize = std::numeric_limits<std::int64_t>::min()};
    for (const std::int64_t length : {std::int64_t{0}, std::int64_t{-1}, torrent.totalSize}) {
        torrent.pieceLength = length;
        EXPECT_EQ(torrent.pieceSize(0), 0);
    }
}

TEST(TorrentMetaInfo, cleansANameForShowing) {
    const std::pair<std::string, std::string> cases[] = {
        {"[Group] Some.Name 【tag】", "Some.Name"},
        {"[only a tag]", "[only a tag]"},
        {"", ""},
        {"[a[b]c] name]", "c] name]"},
        {"[never closed name", "[never closed name"},
        {"http://x.example/a?b name https://y", "name"},
        {"http:// name", "http:// name"},
        {"httphttp://x", "http"},
        {"www.site-1.example.com名字", "名字"},
        {"www.www.site.org.1 x", "1 x"},
        {"www..com www.a.b", "www..com www.a.b"},
        {"WWW.site.org", "WWW.site.org"},
        {"\u3000 a \t\n\u00A0 b \u2003", "a b"},
        {"-_ .a - b._-", "a - b"},
    };
    for (const auto& [name, clean] : cases) EXPECT_EQ(TorrentMetaInfo::cleanDisplayName(name), clean) << name;
}

TEST(TorrentMetaInfo, cleansHostileNamesInNoTime) {
    for (const char* part : {"[", "【", "www.", "www.1", "http", "http://", " ", "\u3000", "-", "."}) {
        std::string name;
        while (name.size() < 1'000'000) name += part;
        EXPECT_LE(TorrentMetaInfo::cleanDisplayName(name).size(), name.size()) << part;
    }
}

}  // namespace
}  // namespace skein
