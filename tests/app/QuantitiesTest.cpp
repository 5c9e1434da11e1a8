#include "app/Quantities.h"

#include <gtest/gtest.h>

#include <limits>

namespace skein {
namespace {

TEST(Quantities, readsBytesWithAndWithoutAUnit) {
    for (const auto& [text, bytes] :
         {std::pair("0", 0), {"16384", 16'384}, {"500K", 512'000}, {"2m", 2 << 20}, {"1G", 1 << 30}})
        EXPECT_EQ(parseByteCount(text), bytes);
    for (const char* text : {"", "K", "-1", "+1", "1.5M", "1KB", " 1", "9223372036854775808", "9007199254740992K"})
        EXPECT_FALSE(parseByteCount(text)) << text;
}

TEST(Quantities, showsBytesInTheUnitThatFits) {
    for (const auto& [bytes, text] : {std::pair(0, "0 B"),
                                      {1023, "1023 B"},
                                      {1024, "1.0 KiB"},
                                      {(1 << 20) - 1, "1.0 MiB"},
                                      {1'610'612'736, "1.5 GiB"},
                                      {-5, "-5 B"}})
        EXPECT_EQ(formatByteCount(bytes), text);
    EXPECT_EQ(formatByteCount(std::numeric_limits<std::int64_t>::max()), "8.0 EiB");
}

TEST(Quantities, showsDatesOfFourDigitYears) {
    const auto shown = [](std::int64_t seconds) {
        return formatDate(std::chrono::sys_seconds(std::chrono::seconds(seconds)));
    };
    EXPECT_EQ(shown(0), "1970-01-01 00:00:00 UTC");
    EXPECT_EQ(shown(1'234'567'890), "2009-02-13 23:31:30 UTC");
    for (const std::int64_t seconds :
         {std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()})
        EXPECT_EQ(shown(seconds), std::to_string(seconds));
}

}  // namespace
}  // namespace skein
