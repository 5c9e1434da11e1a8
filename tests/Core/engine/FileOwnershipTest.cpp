#include "Core/engine/FileClaims.h"
#include "public/common/TargetLock.h"
#include "tests/Core/engine/PieceManagerFixture.h"
#include "tests/support/FailureIn.h"

#include <gmock/gmock.h>

namespace skein {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

/// A download into a folder where somebody else may have files.
class FileOwnershipTest : public PieceManagerFixture {
protected:
    FileOwnershipTest() {
        claim.claims = &claims;
        start(two);
        EXPECT_EQ(receive(0), ReceiveBlockResult::completed);
        close();
    }
    /// Starts that torrent; the text of its failure, "none" without one.
    std::string start(const TestTorrent& of) {
        torrent = of;
        make();
        return failureIn<StorageException>([&] { simulation.finish(manager->setup()); });
    }
    void close() {
        simulation.finish(manager->cleanup());
        manager.reset();
    }
    void put(const std::string& path, const std::string& text) const {
        fs::create_directories((folder.path() / path).parent_path());
        std::ofstream(folder.path() / path, std::ios::binary) << text;
    }
    std::string textOf(const std::string& path) const {
        return std::string(asText(TestTorrent::contentOf(folder.path() / path)));
    }
    static TestTorrent named(TestTorrent torrent, std::uint8_t hash) {
        torrent.metaInfo = std::make_shared<TorrentMetaInfo>(*torrent.metaInfo);
        torrent.metaInfo->infoHash.fill(hash);
        return torrent;
    }

    TemporaryFolder home;
    FileClaims claims{home.path() / "claims.db", log};
    /// Its first piece is on disk: all of t/a, and the beginning of t/b.
    const TestTorrent two = named(TestTorrent(20000, {{"t/a", 15000}, {"t/b", 25000}}), 2);
};

TEST_F(FileOwnershipTest, leavesForeignFilesAsTheyAreAndSaysWhichOneIsInTheWay) {
    const TestTorrent other = named(TestTorrent(20000, {{"u/x", 15000}, {"u/y", 25000}}), 9);
    const std::string path = (folder.path() / "u/y").string();
    for (const std::string& text : {std::string("a diary"), std::string(25000, 'd'), std::string(25001, 'd')}) {
        put("u/y", text);
        EXPECT_THAT(start(other), HasSubstr(path + " exists and is not part of this download - "));
        EXPECT_EQ(textOf("u/y"), text);
        EXPECT_FALSE(fs::exists(folder.path() / "u/x"));
    }
    // Moved aside, it and an older one of that name stay whole.
    put("u/y.before", "older");
    claim.movesAside = true;
    EXPECT_EQ(start(other), "none");
    EXPECT_EQ(textOf("u/y.before.2"), std::string(25001, 'd'));
    EXPECT_EQ(textOf("u/y.before"), "older");
}

TEST_F(FileOwnershipTest, takesWhatMatchesAndWhatHoldsNothing) {
    claim.claims = nullptr;  // another home, say
    put("t/b", textOf("t/b"));
    EXPECT_EQ(start(two), "none");
    EXPECT_EQ(manager->completedPieces(), 1);
    fs::remove_all(folder.path() / "t");
    put("t/a", "");
    put("t/b", "");
    fs::resize_file(folder.path() / "t/b", 25000);
    EXPECT_EQ(start(two), "none");
    EXPECT_EQ(receive(0), ReceiveBlockResult::completed);
}

TEST_F(FileOwnershipTest, aMatchThatAnybodyCanArrangeProvesNothing) {
    const TestTorrent tiny = named(TestTorrent(1, {{"u/x", 40}}), 9);
    const TestTorrent blank = named(TestTorrent(20000, {{"u/y", 50000}}, std::uint8_t{0}), 10);
    const std::string diary = std::string(asText(tiny.bytes(0, 3))) + " a diary";
    const std::string image = std::string(25000, '\0') + "a disk image";
    put("u/x", diary);
    put("u/y", image);
    for (const TestTorrent* const made : {&tiny, &blank})
        EXPECT_THAT(start(*made), HasSubstr("exists and is not part of this download"));
    EXPECT_EQ(textOf("u/x"), diary);
    EXPECT_EQ(textOf("u/y"), image);
    tiny.writeTo(folder.path());
    blank.writeTo(folder.path());
    for (const TestTorrent* const whole : {&tiny, &blank}) EXPECT_EQ(start(*whole), "none");
}

TEST_F(FileOwnershipTest, knowsItsOwnFileAgainThoughNothingInItMatches) {
    put("t/a", "spoilt");
    EXPECT_EQ(start(two), "none");
    EXPECT_EQ(receive(0), ReceiveBlockResult::completed);
    close();
    // But not one that took its place.
    fs::rename(folder.path() / "t/a", folder.path() / "kept");
    put("t/a", std::string(15000, 'x'));
    EXPECT_THAT(start(two), HasSubstr("exists and is not part of this download"));
    EXPECT_EQ(textOf("t/a"), std::string(15000, 'x'));
}

TEST_F(FileOwnershipTest, twoDownloadsNeverOwnOneFile) {
    // The same content, and so the same pieces, under another info-hash.
    const TestTorrent twin = named(two, 3);
    {
        const TargetLock running(folder.path(), two.metaInfo->infoHash);
        EXPECT_THAT(start(twin), HasSubstr("exists and is not part of this download"));
        claim.movesAside = true;
        EXPECT_THAT(start(twin), HasSubstr("exists and is not part of this download"));
        claim.movesAside = false;
    }
    EXPECT_EQ(start(twin), "none") << "nobody uses it any more";
    EXPECT_TRUE(claims.claimsOf(two.metaInfo->infoHash).empty());
    claim.isListed = true;
    EXPECT_EQ(start(twin), "none");
    claims.begin({twin.metaInfo->infoHash, folder.path(), true}, {});
    EXPECT_THAT(start(two), HasSubstr("exists and is not part of this download")) << "it rests in the list";
    claims.keepListed({});
    EXPECT_EQ(start(two), "none");
}

TEST_F(FileOwnershipTest, writesNothingToAFileThatTookAnotherOnesPlaceMeanwhile) {
    EXPECT_EQ(start(two), "none");
    fs::rename(folder.path() / "t/b", folder.path() / "t/moved");
    put("t/b", "somebody else's");
    simulation.finish(manager->cleanup());  // files are opened anew, as they are now and then
    EXPECT_EQ(receive(1), ReceiveBlockResult::failed);
    EXPECT_EQ(textOf("t/b"), "somebody else's");
    EXPECT_THAT(manager->storageProblem().value_or(""), HasSubstr("t/b exists and is not part of this download"));
}

}  // namespace
}  // namespace skein
