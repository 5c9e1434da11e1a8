#include "Core/engine/StorageError.h"
#include "Core/engine/TorrentLayout.h"
#include "tests/Core/engine/TestTorrent.h"

#include <gtest/gtest.h>

#include <limits>

namespace skein {
namespace {

std::optional<StorageError> refusalOf(const TorrentMetaInfo& metaInfo) {
    try {
        TorrentLayout{metaInfo};
    } catch (const StorageException& refusal) {
        return refusal.error;
    }
    return std::nullopt;
}

std::optional<StorageError> refusalOf(const TestTorrent::Files& files) {
    return refusalOf(*TestTorrent(4, files).metaInfo);
}

TEST(TorrentLayoutTest, refusesPathsThatLeaveTheFolderOrCannotBeNames) {
    std::string deep = "f";
    for (int i = 0; i < 2100; ++i) deep.insert(0, "d/");
    for (const std::string& path :
         {std::string("/etc/passwd"), std::string("../x"), std::string("t/../../x"), std::string("t/.."), std::string(),
          std::string("./."), std::string("t/a\0b", 5), "t/" + std::string(256, 'n'), deep})
        EXPECT_EQ(refusalOf({{path, 1}}), StorageError::unsafePath) << path;
    EXPECT_EQ(TorrentLayout::normalised("t//./..a/."), "t/..a");
    EXPECT_EQ(TorrentLayout::normalised(std::string(255, 'n')), std::string(255, 'n'));
}

TEST(TorrentLayoutTest, refusesClashingPathsButLetsPaddingOfOneSizeShareAFile) {
    EXPECT_EQ(refusalOf({{"t/a", 1}, {"t/./a", 1}}), StorageError::duplicatePath);
    EXPECT_EQ(refusalOf({{"t/a", 1}, {"t/a/b", 1}}), StorageError::duplicatePath);
    EXPECT_EQ(refusalOf({{"t/a/b/c", 1}, {"t/a", 0}}), StorageError::duplicatePath);
    EXPECT_EQ(refusalOf({{"t/.pad/3", 3}, {"t/.pad/3", 2}}), StorageError::duplicatePath);
    EXPECT_EQ(refusalOf({{"t/a", 1}, {"t/.pad/3", 3}, {"t/ab", 1}, {"t/.pad/3", 3}}), std::nullopt);
}

TEST(TorrentLayoutTest, refusesSizesThatCannotBe) {
    const TestTorrent good(4, {{"t", 10}});
    const auto changed = [&](auto change) {
        TorrentMetaInfo metaInfo = *good.metaInfo;
        change(metaInfo);
        return refusalOf(metaInfo);
    };
    constexpr std::int64_t huge = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(refusalOf(*good.metaInfo), std::nullopt);
    for (const int length : {0, -4})
        EXPECT_EQ(changed([=](auto& it) { it.pieceLength = length; }), StorageError::invalidPieceLength);
    EXPECT_EQ(changed([](auto& it) { it.files.edit()[0].size = -1; }), StorageError::invalidFileSize);
    EXPECT_EQ(changed([](auto& it) { it.files.edit().push_back({"u", huge - 9, 10}); }), StorageError::invalidFileSize);
    for (const std::size_t size : {40U, 80U})
        EXPECT_EQ(changed([=](auto& it) { it.pieces.resize(size); }), StorageError::pieceCountMismatch);
    EXPECT_EQ(changed([](auto& it) { it.totalSize = 11; }), StorageError::pieceCountMismatch);
    const auto ofOnePiece = [&](std::int64_t size) {
        return changed([=](auto& it) {
            it.pieceLength = huge;
            it.pieces.resize(33);  // a stray part of a hash is not counted
            it.files.edit()[0].size = it.totalSize = size;
        });
    };
    EXPECT_EQ(ofOnePiece(10), std::nullopt);
    EXPECT_EQ(ofOnePiece(huge), StorageError::pieceTooLarge);
}

}  // namespace
}  // namespace skein
