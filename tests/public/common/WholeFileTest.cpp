#include "public/common/WholeFile.h"
#include "tests/support/FailureIn.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <system_error>
#include <thread>
#include <vector>

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

TEST_F(WholeFileTest, whatAKilledWriterLeftDoesNoHarmAndGoes) {
    const fs::path left = folder / ".file.new";
    fs::create_symlink(file, left);
    for (const char* const content : {"one", "two"}) {
        replaceWholeFile(file, toBytes(content));
        EXPECT_EQ(asText(readWholeFile(file, 9)), content);
        EXPECT_FALSE(fs::exists(fs::symlink_status(left)));
        std::ofstream(left) << "half";
    }
    for (const fs::path& mine : {folder / "a.new", folder / ".hidden"}) {
        replaceWholeFile(mine, {});
        removeIfLeftNew(mine);
        EXPECT_TRUE(fs::exists(mine));
    }
    removeIfLeftNew(left);
    EXPECT_FALSE(fs::exists(left));
}

TEST_F(WholeFileTest, writersOfOneFileTakeTurns) {
    std::vector<std::thread> writers;
    for (std::uint8_t letter = 'a'; letter < 'e'; ++letter)
        writers.emplace_back([this, letter] {
            for (int i = 0; i < 20; ++i) {
                replaceWholeFile(file, Bytes(100'000, letter));
                removeIfLeftNew(folder / ".file.new");
                const Bytes found = readWholeFile(file, 100'000);
                EXPECT_EQ(found, Bytes(100'000, found.at(0)));
            }
        });
    for (std::thread& writer : writers) writer.join();
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);
}

}  // namespace
}  // namespace skein
