#include "public/common/WholeFile.h"
#include "tests/support/FailureIn.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <system_error>

namespace skein {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class WholeFileTest : public testing::Test {
protected:
    static std::string failureOf(auto call) { return failureIn<std::system_error>(call); }

    const TemporaryFolder temporary;
    const fs::path folder = temporary.path();
    const fs::path file = folder / "file";
};

TEST_F(WholeFileTest, aFileIsReplacedAsAWholeAndReadBack) {
    replaceWholeFile(file, toBytes("one"), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const Bytes large(3'000'000, 7);
    replaceWholeFile(file, large);
    EXPECT_EQ(readWholeFile(file, large.size()), large);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);
    replaceWholeFile(file, {});
    EXPECT_EQ(readWholeFile(file, 0), Bytes());
}

TEST_F(WholeFileTest, saysWhyAFileCannotBeRead) {
    replaceWholeFile(file, toBytes("four"));
    EXPECT_THAT(failureOf([&] { readWholeFile(file, 3); }), HasSubstr("File too large"));
    EXPECT_THAT(failureOf([&] { readWholeFile(folder, 3); }), HasSubstr("Is a directory"));
    EXPECT_THAT(failureOf([&] { readWholeFile(folder / "none", 3); }), HasSubstr("No such file"));
    EXPECT_THAT(failureOf([&] { readWholeFile("/dev/zero", 100'000); }), HasSubstr("File too large"));
}

TEST_F(WholeFileTest, aFailedReplacementLeavesNothingBehind) {
    fs::create_directories(file / "inside");
    EXPECT_NE(failureOf([&] { replaceWholeFile(file, toBytes("x")); }), "none");
    EXPECT_THAT(failureOf([&] { replaceWholeFile(folder / "none" / "file", {}); }), HasSubstr("No such file"));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);
}

}  // namespace
}  // namespace skein
