#include "public/common/FileLogger.h"
#include "public/common/OddCharacters.h"
#include "public/common/PlainJSON.h"
#include "public/common/Printable.h"
#include "public/common/WholeFile.h"
#include "tests/support/OddCharacters.h"
#include "tests/support/TemporaryFolder.h"

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

namespace json = boost::json;

TEST(OddCharacters, reachNeitherTheTerminalNorJSONNorTheLog) {
    std::string all;
    for (const std::string& odd : oddCharacters) {
        const std::string text = "a" + odd + "b";
        all += odd;
        EXPECT_EQ(printable(text), "a?b") << testing::PrintToString(odd);
        EXPECT_EQ(withoutOdd(text, '_'), "a_b") << testing::PrintToString(odd);
        const std::string written = plainJSON(json::value(text));
        EXPECT_FALSE(hasOdd(written)) << written;
        EXPECT_EQ(json::parse(written), json::value(text)) << "the value stays true";
    }
    EXPECT_EQ(plainJSON(json::value("\u009B\u202E\uFEFF\x7F")), R"("\u009b\u202e\ufeff\u007f")");
    const TemporaryFolder folder;
    FileLogger(folder.path() / "log", LogLevel::info).info(all);
    const Bytes log = readWholeFile(folder.path() / "log", 10'000);
    EXPECT_THAT(std::string(asText(log)), testing::EndsWith(std::string(oddCharacters.size(), '?') + "\n"));
}

TEST(OddCharacters, areNoOthers) {
    for (const std::string& plain : plainCharacters) {
        EXPECT_EQ(printable(plain), plain);
        EXPECT_EQ(plainJSON(json::value(plain)), "\"" + plain + "\"");
    }
    for (const char* cut : {"\xC2", "\xE2\x80", "\xEF\xBB", "\x8B"}) EXPECT_EQ(withoutOdd(cut, '_'), cut);
}

}  // namespace
}  // namespace skein
