#include "Core/engine/StoredPaths.h"
#include "Core/engine/TorrentFile.h"
#include "public/common/WholeFile.h"
#include "tests/support/OddCharacters.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using testing::ElementsAre;

class StoredPathsTest : public testing::Test {
protected:
    std::vector<std::string> paths(const std::vector<std::string>& given, const std::string& top = {}) const {
        TorrentMetaInfo torrent;
        torrent.name = "t";
        for (const std::string& path : given) torrent.files.edit().push_back({path, 1, 0});
        std::vector<std::string> stored;
        const auto placed = storedIn(folder.path(), top, std::make_shared<const TorrentMetaInfo>(std::move(torrent)));
        for (const TorrentFileInfo& file : placed->files) stored.push_back(file.path);
        return stored;
    }

    const TemporaryFolder folder;
};

TEST_F(StoredPathsTest, namesOfStrangersBecomePlainOnes) {
    for (const std::string& odd : oddCharacters) {
        EXPECT_THAT(paths({"t/x" + odd + "y.txt"}), ElementsAre("t/x_y.txt")) << testing::PrintToString(odd);
        EXPECT_EQ(TorrentFile::safeFileName("x" + odd + "y"), "x_y");
    }
    for (const std::string& plain : plainCharacters)
        EXPECT_THAT(paths({"t/x" + plain + "y"}), ElementsAre("t/x" + plain + "y"));
    EXPECT_THAT(paths({"t/a", "t/b\x1B"}, "mine"), ElementsAre("mine/a", "mine/b_"));
}

TEST_F(StoredPathsTest, differentPathsStayDifferent) {
    EXPECT_THAT(paths({"t/a\u202E.txt", "t/a\u200E.txt", "t/a_.txt", "t/d\n/x", "t/d\r/x", "t/d\n/y"}),
                ElementsAre("t/a_ (2).txt", "t/a_ (3).txt", "t/a_.txt", "t/d_/x", "t/d_ (2)/x", "t/d_/y"));
}

TEST_F(StoredPathsTest, aFileThatIsThereStaysWhereItIs) {
    const std::string there = "t/\u200Esong";
    std::filesystem::create_directories(folder.path() / "t");
    replaceWholeFile(folder.path() / there, asBytes("x"));
    EXPECT_THAT(paths({there, "t/\u200Eother"}), ElementsAre(there, "t/_other"));
}

}  // namespace
}  // namespace skein
