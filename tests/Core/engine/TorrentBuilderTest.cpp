#include "Core/engine/TorrentBuilder.h"
#include "public/common/ThreadPools.h"
#include "tests/Core/engine/FaultyCalls.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/support/FailureIn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class TorrentBuilderTest : public testing::Test {
protected:
    TorrentMetaInfo built(const TorrentBuilder::Options& options) {
        TorrentBuilder builder(options);
        builder.hashPieces(pools.disk(), {}, [this](std::int64_t bytes) { progress = bytes; });
        return builder.torrent();
    }

    std::string failureToBuild(const TorrentBuilder::Options& options) {
        return failureIn<TorrentBuildException>([&] { built(options); });
    }

    void write(const std::string& path, std::string_view content) {
        fs::create_directories((folder.path() / path).parent_path());
        std::ofstream(folder.path() / path) << content;
    }

    TemporaryFolder folder;
    ThreadPools pools;
    std::int64_t progress = 0;
};

TEST_F(TorrentBuilderTest, hashesPiecesAcrossSortedFiles) {
    const TestTorrent expected(
        16'384,
        {{"d/.hidden", 1}, {"d/a", 700'000}, {"d/b/empty", 0}, {"d/b/one", 16'383}, {"d/c", 5}, {"d/z/empty", 0}});
    expected.writeTo(folder.path());
    for (const fs::path& source : {folder.path() / "d", folder.path() / "d/", folder.path() / "d" / "b" / ".."}) {
        const TorrentMetaInfo torrent = built({.source = source, .pieceLength = 16'384});
        EXPECT_EQ(torrent.name, "d");
        EXPECT_EQ(torrent.files, expected.metaInfo->files);
        EXPECT_EQ(torrent.pieces, expected.metaInfo->pieces);
        EXPECT_EQ(torrent.totalSize, expected.metaInfo->totalSize);
        EXPECT_EQ(progress, torrent.totalSize);
    }
}

TEST_F(TorrentBuilderTest, followsALinkThatIsNamedButLeavesOutThoseInsideAndTheFileToBeWritten) {
    write("file", "abc");
    fs::create_symlink("file", folder.path() / "link");
    const TorrentMetaInfo torrent = built({.source = folder.path() / "link"});
    EXPECT_EQ(torrent.files, (std::vector<TorrentFileInfo>{{"link", 3, 0}}));
    EXPECT_EQ(toHex(torrent.pieces), "a9993e364706816aba3e25717850c26c9cd0d89d");
    write("d/kept", "1");
    write("d/out.torrent", "old");
    write("outside/secret", "2");
    fs::create_symlink("../outside", folder.path() / "d" / "folder-link");
    fs::create_symlink("kept", folder.path() / "d" / "file-link");
    const TorrentBuilder builder(
        {.source = folder.path() / "d", .leftOut = folder.path() / "outside/../d/out.torrent"});
    EXPECT_EQ(builder.torrent().files, (std::vector<TorrentFileInfo>{{"d/kept", 1, 0}}));
    EXPECT_EQ(builder.leftOutCount(), 2);
}

TEST_F(TorrentBuilderTest, choosesAPowerOfTwoThatMakesSomeThousandPieces) {
    EXPECT_EQ(TorrentBuilder::defaultPieceLength(1), 16'384);
    EXPECT_EQ(TorrentBuilder::defaultPieceLength(32'000'000), 16'384);
    EXPECT_EQ(TorrentBuilder::defaultPieceLength(std::int64_t{1} << 30U), 1 << 20U);
    EXPECT_EQ(TorrentBuilder::defaultPieceLength(std::int64_t{1} << 62U), 16 << 20U);
}

TEST_F(TorrentBuilderTest, saysWhyNoTorrentCanBeMade) {
    write("d/empty", "");
    EXPECT_EQ(failureToBuild({.source = folder.path() / "d"}), "Nothing in it to share");
    EXPECT_THAT(failureToBuild({.source = folder.path() / "none"}), HasSubstr("none: No such file or directory"));
    EXPECT_THAT(failureToBuild({.source = "/dev/null"}), HasSubstr("Cannot read: /dev/null: "));
    EXPECT_THAT(failureToBuild({.source = "/"}), HasSubstr("Cannot read: /: "));
    write("e/\xFF", "1");
    EXPECT_EQ(failureToBuild({.source = folder.path() / "e"}), "A name is not valid UTF-8: e/\xFF");
    write("huge", "");
    fs::resize_file(folder.path() / "huge", std::uintmax_t{1} << 40U);
    EXPECT_EQ(failureToBuild({.source = folder.path() / "huge", .pieceLength = 16'384}),
              "Too many pieces, a greater piece length is needed");
}

TEST_F(TorrentBuilderTest, noticesFilesThatChangeOrFailMeanwhile) {
    FaultyCalls failing;
    failing.readError = EIO;
    const auto failureOfHashing = [this](TorrentBuilder& builder, const std::stop_token& stop = {}) {
        return failureIn<TorrentBuildException>([&] { builder.hashPieces(pools.disk(), stop, [](std::int64_t) {}); });
    };
    write("d/a", std::string(100'000, 'a'));
    TorrentBuilder broken({.source = folder.path() / "d"}, failing);
    EXPECT_EQ(failureOfHashing(broken), "Cannot read: d/a: Input/output error");

    TorrentBuilder builder({.source = folder.path() / "d"});
    std::stop_source stop;
    stop.request_stop();
    EXPECT_EQ(failureOfHashing(builder, stop.get_token()), "Stopped");
    fs::resize_file(folder.path() / "d" / "a", 5);
    EXPECT_EQ(failureOfHashing(builder), "Changed while it was read: d/a");
    fs::remove(folder.path() / "d" / "a");
    EXPECT_EQ(failureOfHashing(builder), "Cannot read: d/a: No such file or directory");
}

}  // namespace
}  // namespace skein
