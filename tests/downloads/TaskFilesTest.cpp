#include "downloads/TaskFiles.h"
#include "public/common/WholeFile.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace skein {
namespace {

namespace fs = std::filesystem;

class TaskFilesTest : public testing::Test {
protected:
    void make(const fs::path& path) {
        fs::create_directories(path.parent_path());
        replaceWholeFile(path, toBytes("x"));
    }
    TaskFiles files(std::initializer_list<std::string> paths) {
        std::vector<TorrentFileInfo> list;
        for (const std::string& path : paths) list.push_back({path, 1, 0});
        return {folder, list};
    }
    /// Claims what is there now.
    TaskFiles::Removal remove(const std::vector<std::string>& paths) {
        std::vector<FileClaims::Claim> claims;
        std::vector<TorrentFileInfo> list;
        for (const std::string& path : paths) {
            claims.push_back({list.size(), FileIdentity::at(folder / path)});
            list.push_back({path, 1, 0});
        }
        return TaskFiles(folder, list).remove(claims);
    }
    std::set<fs::path> left() {
        const fs::recursive_directory_iterator entries(temporary.path());
        return {begin(entries), end(entries)};
    }

    const TemporaryFolder temporary;
    const fs::path folder = temporary.path() / "downloads";
};

TEST_F(TaskFilesTest, removesItsFilesAndTheFoldersThatThisLeftEmpty) {
    for (const char* path : {"t/a", "t/sub/deep/b", "t/sub/c", "t/kept/theirs", "t/kept/d", "w/x/y"})
        make(folder / path);
    fs::create_directories(folder / "t/empty");
    const auto removal = remove({"t/a", "t/sub/deep/b", "t/./sub//c", "t/kept/d", "t/empty/missing", "u/v", "w/x/y"});
    EXPECT_EQ(removal.files, 5U);
    EXPECT_EQ(removal.folders, 4U);
    EXPECT_EQ(removal.failures, 0U) << removal.firstFailure;
    EXPECT_THAT(left(), testing::ElementsAre(folder, folder / "t", folder / "t/empty", folder / "t/kept",
                                             folder / "t/kept/theirs"));
    make(folder / "one");
    EXPECT_EQ(remove({"one"}).files, 1U);
    EXPECT_TRUE(fs::is_directory(folder));
}

TEST_F(TaskFilesTest, removesNothingOutsideOfTheDownloadFolderNorThroughALink) {
    make(temporary.path() / "outside/file");
    make(folder / "t/mine");
    fs::create_directory_symlink(temporary.path() / "outside", folder / "t/link");
    fs::create_symlink(temporary.path() / "outside/file", folder / "t/alias");
    fs::create_directories(folder / "t/folder");
    const auto before = left();
    const auto removal = remove({"../outside/file", (temporary.path() / "outside/file").string(), "t/link/file",
                                 "t/alias", "t/folder", "t/mine/below"});
    EXPECT_EQ(removal.failures, 6U);
    EXPECT_EQ(removal.firstFailure, "../outside/file: not below the download folder");
    EXPECT_EQ(left(), before);
}

TEST_F(TaskFilesTest, removesOnlyWhatTheTaskClaims) {
    for (const char* path : {"t/unclaimed", "t/replaced", "t/begun"}) make(folder / path);
    const FileIdentity gone{1, 2, 3};
    const auto removal = files({"t/unclaimed", "t/replaced", "t/begun"}).remove({{1, gone}, {2, {}}, {7, gone}});
    EXPECT_EQ(removal.files, 0U);
    EXPECT_EQ(removal.firstFailure, "t/replaced: not a file of this download");
    fs::resize_file(folder / "t/begun", 0);  // killed before the file was put down, and so before it was written to
    EXPECT_EQ(files({"t/unclaimed", "t/replaced", "t/begun"}).remove({{2, {}}}).files, 1U);
}

TEST_F(TaskFilesTest, findsWhatToShow) {
    EXPECT_EQ(files({"t/a", "t/b"}).bestRevealURL(), folder);
    make(folder / "t/b");
    EXPECT_EQ(files({"t/a", "t/b"}).bestRevealURL(), folder / "t");
    EXPECT_EQ(files({"t/a", "t/b"}).firstExistingFileURL(), folder / "t/b");
    EXPECT_EQ(files({"t/b"}).bestRevealURL(), folder / "t/b");
    EXPECT_EQ(files({}).fileURL({"../x", 1, 0}), std::nullopt);
    EXPECT_TRUE(files({}).isFileAvailable({"t/b", 1, 0}, 1.0));
    EXPECT_FALSE(files({}).isFileAvailable({"t/a", 1, 0}, 1.0));
}

}  // namespace
}  // namespace skein
