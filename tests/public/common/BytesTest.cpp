#include "public/common/Bytes.h"

#include <gtest/gtest.h>

namespace skein {
namespace {

TEST(Bytes, hexGoesBothWaysAndRefusesWhatIsNone) {
    EXPECT_EQ(toHex(Bytes{0x00, 0xAB, 0xFF}), "00abff");
    EXPECT_EQ(toUpperHex(Bytes{0x00, 0xAB, 0xFF}), "00ABFF");
    EXPECT_EQ(fromHex("00aBfF"), (Bytes{0x00, 0xAB, 0xFF}));
    EXPECT_FALSE(fromHex("abc"));
    EXPECT_FALSE(fromHex("0g"));
}

TEST(Bytes, utf8IsAcceptedOnlyInItsShortestForm) {
    EXPECT_TRUE(isValidUTF8(toBytes("plain, \xC3\xA9, \xE7\x8C\xAB, \xF0\x9F\x90\x88")));
    for (const char* broken : {"\x80", "\xC0\xAF", "\xC3", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"})
        EXPECT_FALSE(isValidUTF8(toBytes(broken))) << toHex(toBytes(broken));
}

}  // namespace
}  // namespace skein
