#include "Core/formats/MagnetParser.h"
#include "tests/support/FailureIn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using testing::ElementsAre;

const std::string hex = "aabbccddee11223344556677889900aabbccddee";
const std::string plain = "magnet:?xt=urn:btih:" + hex;

std::string failureOf(std::string_view uri) {
    return failureIn<MagnetParseException>([&] { MagnetParser::parse(uri); });
}

TEST(MagnetParser, readsHashNameTrackersAndWebSeedsAndDropsValuesThatDoNotDecode) {
    const MagnetLink link =
        MagnetParser::parse(" \n" + plain +
                            "&dn=Test%20File&dn=other&tr=udp%3A%2F%2Fa.example%3A1&tr=b&ws=w%26&tr=c"
                            "&x.pe=1.2.3.4:5&tr=%&tr=%4&tr=%zz&tr=a+b%3D=c&tr=%E7%8C%AB&ws\u3000");
    EXPECT_EQ(link.infoHashHex, hex);
    EXPECT_EQ(toHex(link.infoHash), hex);
    EXPECT_EQ(link.displayName, "Test File");
    EXPECT_THAT(link.trackers, ElementsAre("udp://a.example:1", "b", "c", "a+b==c", "猫"));
    EXPECT_THAT(link.webSeeds, ElementsAre("w&"));
    EXPECT_FALSE(MagnetParser::parse(plain + "&dn=%FF&dn=late").displayName);
    EXPECT_EQ(MagnetParser::parse(plain + "&dn=1+1%2B1+=3").displayName, "1 1+1 =3");
}

TEST(MagnetParser, readsHashesInBothAlphabetsAndEitherCase) {
    for (const char* text : {"MAGNET:?xt=URN:BTIH:AABBCCDDEE11223344556677889900AABBCCDDEE",
                             "magnet:?xt=urn:btih:VK54ZXPOCERDGRCVMZ3YRGIAVK54ZXPO",
                             "magnet:?xt=urn:btmh:1220ff&xt=urn:BTIH:AABBCCDDEE11223344556677889900AABBCCDDEE&xt=x",
                             "magnet:?&&junk&xt=urn:btih:vk54zxpocerdgrcvmz3yrgiavk54zxpo&xt=second"})
        EXPECT_EQ(MagnetParser::parse(text).infoHashHex, hex) << text;
}

TEST(MagnetParser, saysWhatIsWrong) {
    for (const char* text : {"", "http://a.example/", "magnet:xt=urn:btih:", "magnet?"})
        EXPECT_EQ(failureOf(text), "Not a valid magnet link") << text;
    for (const std::string& text : {std::string("magnet:?"), "MAGNET:?XT=urn:btih:" + hex, std::string("magnet:?xt")})
        EXPECT_EQ(failureOf(text), "Magnet link missing info hash (xt parameter)") << text;
    EXPECT_EQ(failureOf("magnet:?xt=urn:sha1:1"), "Invalid info hash: Missing urn:btih: prefix");
    EXPECT_EQ(failureOf("magnet:?xt=x&xt=URN:btmh:1220ff"), "BitTorrent v2 torrents are not supported yet");
    for (const auto& [hash, length] : {std::pair(hex.substr(1), "39"), {"猫猫", "2"}})
        EXPECT_EQ(failureOf("magnet:?xt=urn:btih:" + hash),
                  std::string("Invalid info hash: Hash must be 40 hex chars or 32 Base32 chars, got ") + length);
    EXPECT_EQ(failureOf("magnet:?xt=urn:btih:" + std::string(40, 'g')), "Invalid info hash: Invalid hex string");
    for (const std::string& text : {std::string(32, '1'), std::string(31, 'A') + "="})
        EXPECT_EQ(failureOf("magnet:?xt=urn:btih:" + text), "Invalid info hash: Invalid Base32 string") << text;
}

TEST(MagnetLink, everyPeerIDIsAnother) {
    SecureRandom random;
    EXPECT_NE(MagnetLink::generatePeerID(random), MagnetLink::generatePeerID(random));
}

}  // namespace
}  // namespace skein
