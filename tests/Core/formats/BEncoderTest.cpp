#include "Core/formats/BEncoder.h"
#include "tests/support/FailureIn.h"

#include <gtest/gtest.h>

#include <limits>

namespace skein {
namespace {

using List = BEncodeValue::List;
using Dictionary = BEncodeValue::Dictionary;

BEncodeValue decode(std::string_view text) { return BEncoder::decode(asBytes(text)); }
std::string encode(const BEncodeValue& value) { return std::string(asText(BEncoder::encode(value))); }
std::string nested(int levels) { return std::string(levels, 'l') + std::string(levels, 'e'); }

std::string failureOf(std::string_view text) {
    return failureIn<BEncodeException>([&] { decode(text); });
}

TEST(BEncoder, decodesEachKindAndEncodesItBackToTheSameBytes) {
    EXPECT_EQ(decode("i42etrailing").intValue(), 42);
    EXPECT_EQ(BEncoder::decodeWithConsumedLength(asBytes("d1:ai1eeraw bytes")).consumed, 8U);
    EXPECT_EQ(decode("i-3e").intValue(), -3);
    EXPECT_EQ(decode("4:spam").stringValue(), "spam");
    EXPECT_EQ(decode("l4:spam4:eggse"), (List{"spam", "eggs"}));
    EXPECT_EQ(decode("d3:cow3:moo4:spam4:eggse"), (Dictionary{{"cow", "moo"}, {"spam", "eggs"}}));
    for (const char* text : {"i-9223372036854775808e", "i9223372036854775807e", "0:", "le", "de", "d1:al1:bi-1eee",
                             "d1:\x7Fi1e2:\xC3\x28i2ee"})
        EXPECT_EQ(encode(decode(text)), text);
    EXPECT_EQ(decode(std::string_view("3:\0\xFF\x01", 5)).dataValue()->size(), 3U);
}

TEST(BEncoder, isLenientWithIntegersAsFarAsAPlainParserIs) {
    for (const auto& [text, value] :
         {std::pair(std::string("i03e"), 3), {"i-0e", 0}, {"i+5e", 5}, {"i" + std::string(1000, '0') + "7e", 7}})
        EXPECT_EQ(decode(text).intValue(), value);
    EXPECT_EQ(decode("004:spam").stringValue(), "spam");
    for (const char* text : {"ie", "i-e", "i+e", "i+-1e", "i--1e", "i1.5e", "i 1e", "i1 e", "i0x1e",
                             "i\xD9\xA1"
                             "e",
                             "i9223372036854775808e", "i-9223372036854775809e"})
        EXPECT_EQ(failureOf(text), "Invalid integer encoding") << text;
}

TEST(BEncoder, saysWhatIsWrong) {
    for (const char* text :
         {"", "i42", "5:spam", "4", "l", "l4:spam", "d", "d1:a", "d1:ai1e", "di1ee", "9223372036854775807:a"})
        EXPECT_EQ(failureOf(text), "Unexpected end of data") << text;
    EXPECT_EQ(failureOf("x:"), "Invalid BEncode format: Unexpected byte: 120 at index 0");
    EXPECT_EQ(failureOf("l4:spam-1:e"), "Invalid BEncode format: Unexpected byte: 45 at index 7");
    for (const char* text : {"4x:spam", "9223372036854775808:a", "d-1:ai1ee", "di1e1:ae"})
        EXPECT_EQ(failureOf(text), "Invalid string length") << text;
}

TEST(BEncoder, nestsAtMost128Levels) {
    EXPECT_EQ(encode(decode(nested(128))), nested(128));
    for (const std::string& text : {nested(129), std::string(1'000'000, 'l'), "d1:a" + nested(128) + "e"})
        EXPECT_EQ(failureOf(text), "Invalid BEncode format: Nesting too deep");
}

TEST(BEncoder, findsTheInfoDictionaryUnderTheKeyOfTheTopLevelAlone) {
    const auto infoIn = [](std::string_view text) -> std::optional<std::string_view> {
        const BEncoder::TorrentOutline outline = BEncoder::outlineOfTorrent(asBytes(text));
        EXPECT_EQ(outline.value, decode(text));
        if (!outline.info) return std::nullopt;
        const std::string_view info = text.substr(outline.info->begin, outline.info->end - outline.info->begin);
        EXPECT_EQ(decode(info), *outline.value["info"]) << "what is hashed is what is read";
        return info;
    };
    EXPECT_EQ(infoIn("d1:a1:b4:infod1:xi1eee"), "d1:xi1ee");
    EXPECT_EQ(infoIn("d8:announce9:4:infoi7e4:infodee"), "de");
    EXPECT_EQ(infoIn("d1:ad4:infoi1ee4:infoi2e1:z4:infoe"), "i2e");
    EXPECT_EQ(infoIn("d04:infoi1e4:infoi2ee"), "i1e") << "of a key that stands twice the first";
    for (const char* text : {"de4:infoi7e", "l4:infoi7ee", "d1:a6:4:infoe", "d1:ad4:infoi1eee", "i1e"})
        EXPECT_EQ(infoIn(text), std::nullopt) << text;
}

TEST(BEncoder, leavesTheListOfFilesWhereItIs) {
    const auto filesIn = [](std::string_view text) {
        const BEncoder::TorrentOutline outline = BEncoder::outlineOfTorrent(asBytes(text));
        EXPECT_EQ(outline.value["info"]->listAt("files"), nullptr);
        return outline.files ? text.substr(outline.files->range.begin, outline.files->range.end) : std::string_view();
    };
    EXPECT_TRUE(filesIn("d4:infod5:filesli1eleeee").starts_with("li1elee"));
    EXPECT_EQ(filesIn("d4:infod5:filesi1e5:filesleee"), "") << "of a key that stands twice the first";
    EXPECT_EQ(filesIn("d4:infod1:ad5:filesleeee"), "");
    for (const char* const wrong : {"d4:infod5:filesli1xeee", "d4:infod5:filesl5:aee", "d4:infod9:file treed1:ai1xeee"})
        EXPECT_THROW(filesIn(wrong), BEncodeException) << wrong;
    std::vector<std::int64_t> seen;
    BEncoder::forEachElement(asBytes("li3ei4ee"),
                             [&](const BEncodeValue& element) { seen.push_back(*element.intValue()); });
    EXPECT_EQ(seen, (std::vector<std::int64_t>{3, 4}));
}

TEST(BEncoder, refusesWhatWouldTakeFarMoreMemoryThanItIsLong) {
    const auto repeated = [](std::string_view text, std::size_t count) {
        std::string list = "l";
        for (std::size_t i = 0; i < count; ++i) list += text;
        return list + "e";
    };
    EXPECT_EQ(decode(repeated("le", 50'000)).listValue()->size(), 50'000U) << "a short message is never refused";
    for (const char* const dense : {"le", "i0e", "0:", "d0:0:e"})
        EXPECT_EQ(failureOf(repeated(dense, 1'000'000)), "Invalid BEncode format: Too many values for so little data");
    EXPECT_EQ(decode(repeated("60:" + std::string(60, 'x'), 100'000)).listValue()->size(), 100'000U);
    const std::string files = "d4:infod5:files" + repeated("le", 1'000'000) + "ee";
    EXPECT_EQ(BEncoder::outlineOfTorrent(asBytes(files)).files->count, 1'000'000U);
    std::size_t count = 0;
    BEncoder::forEachElement(asBytes(repeated("le", 1'000'000)), [&](const BEncodeValue&) { ++count; });
    EXPECT_EQ(count, 1'000'000U) << "of which one is held at a time";
}

TEST(BEncodeValue, keepsTheOrderOfADictionaryAndEncodesItSorted) {
    const BEncodeValue value = decode("d1:bi1e1:ai2e1:bi3ee");
    EXPECT_EQ(value, (Dictionary{{"b", 1}, {"a", 2}, {"b", 3}}));
    EXPECT_EQ(value.intAt("b"), 1);
    EXPECT_EQ(encode(value), "d1:ai2e1:bi1e1:bi3ee");
    EXPECT_FALSE(value == decode("d1:ai2e1:bi1e1:bi3ee"));
}

}  // namespace
}  // namespace skein
