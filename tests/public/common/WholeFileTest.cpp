#include "public/common/WholeFile.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <system_error>

namespace skein {
namespace {

namespace fs = std::filesystem;

class WholeFileTest : public testing::Test {
protected:
    std::errc failureOf(auto call) {
        try {
            call();
        } catch (const std::system_error& failure) {
            return static_cast<std::errc>(failure.code().value());
        }
        return {};
    }

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
    EXPECT_EQ(failureOf([&] { readWholeFile(file, 3); }), std::errc::file_too_large);
    EXPECT_EQ(failureOf([&] { readWholeFile(folder, 3); }), std::errc::is_a_directory);
    EXPECT_EQ(failureOf([&] { readWholeFile(folder / "none", 3); }), std::errc::no_such_file_or_directory);
    EXPECT_EQ(failureOf([&] { readWholeFile("/dev/zero", 100'000); }), std::errc::file_too_large);
}

TEST_F(WholeFileTest, aFailedReplacementLeavesNothingBehind) {
    fs::create_directories(file / "inside");
    EXPECT_NE(failureOf([&] { replaceWholeFile(file, toBytes("x")); }), std::errc());
    EXPECT_EQ(failureOf([&] { replaceWholeFile(folder / "none" / "file", {}); }), std::errc::no_such_file_or_directory);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);
}

}  // namespace
}  // namespace skein
