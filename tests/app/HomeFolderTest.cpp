#include "app/Command.h"
#include "app/EngineHost.h"
#include "public/common/LocalBinding.h"
#include "public/common/WholeFile.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

namespace skein {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr, testing::IsEmpty, testing::UnorderedElementsAre;

/// A process that keeps nothing from others by its mask.
class HomeFolderTest : public testing::Test {
protected:
    ~HomeFolderTest() override { ::umask(before); }

    /// What of the home others may use.
    std::vector<std::string> open() const {
        std::vector<std::string> paths;
        const auto look = [&](const fs::path& path) {
            constexpr auto ofOthers = fs::perms::group_all | fs::perms::others_all;
            if ((fs::symlink_status(path).permissions() & ofOthers) != fs::perms::none)
                paths.push_back(path.lexically_relative(home));
        };
        look(home);
        for (const auto& entry : fs::recursive_directory_iterator(home)) look(entry.path());
        return paths;
    }
    void write(const std::string& name) const {
        fs::create_directories((home / name).parent_path());
        replaceWholeFile(home / name, {}, sharedFile);
    }

    const mode_t before = ::umask(0);
    const TemporaryFolder folder;
    const fs::path home = folder.path() / "share" / "home";
};

TEST_F(HomeFolderTest, whatTheProgramWritesIsForItsOwnerAlone) {
    const SHA1Digest infoHash{};
    EngineHost host(home, LocalBinding("127.0.0.1"));
    host.archive().keep(infoHash, toBytes("torrent"));
    host.archive().saveResumeRecord(infoHash, toBytes("record"));
    host.archive().save(infoHash, folder.path() / "files", "name", toBytes("torrent"));
    for (int i = 0; i < 900; ++i) host.log().info(std::string(8000, 'x'));  // more than a log file holds
    while (!fs::exists(home / "logs" / "skein.1.log")) ::usleep(1000);
    EXPECT_THAT(open(), IsEmpty());
    EXPECT_EQ(fs::status(folder.path() / "share").permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(folder.path() / "files" / "name.torrent").permissions(), sharedFile) << "is the user's";
}

TEST_F(HomeFolderTest, isNarrowedWhenOthersHadAccessAndSparesWhatIsTheUsers) {
    for (const char* const name : {"tasks.json", "tasks.json.damaged", "settings.db-wal", "logs/skein.log",
                                   "resume/record", "torrents/a.torrent", "films/film", "tool"})
        write(name);
    fs::create_symlink(folder.path(), home / "resume" / "elsewhere");
    for (const char* const name : {".tasks.json.new", ".daemon.json.77.new", "resume/.record.new"}) write(name);
    const auto modeOutside = fs::status(folder.path()).permissions();
    const HomeFolder first(home);
    EXPECT_EQ(first.narrowedCount(), 10U);
    for (const char* const left : {".tasks.json.new", ".daemon.json.77.new", "resume/.record.new"})
        EXPECT_FALSE(fs::exists(home / left)) << left;
    EXPECT_THAT(open(), UnorderedElementsAre("films", "films/film", "tool", "resume/elsewhere"));
    EXPECT_EQ(fs::status(folder.path()).permissions(), modeOutside);
    EXPECT_EQ(HomeFolder(home).narrowedCount(), 0U);
}

TEST_F(HomeFolderTest, refusesAFolderOfAnotherUserAndWhatIsNone) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a folder away";
    fs::create_directories(home);
    ASSERT_EQ(::chown(home.c_str(), 12345, 12345), 0);
    const auto failure = [](const fs::path& path) {
        try {
            const HomeFolder tried(path);
        } catch (const CommandFailure& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_THAT(failure(home), HasSubstr("belongs to another user"));
    write("file");
    EXPECT_THAT(failure(home / "file"), HasSubstr("exists"));
}

}  // namespace
}  // namespace skein
