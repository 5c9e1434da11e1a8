#include "Core/engine/PieceSet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>

namespace skein {
namespace {

using testing::ElementsAre;

/// Sizes on both sides of every boundary of the levels.
constexpr int awkwardSizes[] = {0, 1, 63, 64, 65, 4095, 4096, 4097, 262143, 262145};

std::set<int> contentOf(const PieceSet& set) {
    std::set<int> content;
    set.forEach([&](int piece) { content.insert(content.end(), piece); });
    return content;
}

TEST(PieceSetTest, agreesWithAPlainSetThroughRandomOperations) {
    std::mt19937 random(1);
    for (const int size : awkwardSizes) {
        PieceSet set(size);
        std::set<int> model;
        for (int i = 0; i < 3000; ++i) {
            const int piece = static_cast<int>(random() % static_cast<unsigned>(size + 3)) - 1;
            if (random() % 5 < 3) {
                EXPECT_EQ(set.insert(piece), piece >= 0 && piece < size && model.insert(piece).second);
            } else {
                EXPECT_EQ(set.erase(piece), model.erase(piece) > 0);
            }
            ASSERT_EQ(set.contains(piece), model.contains(piece));
        }
        EXPECT_EQ(contentOf(set), model);
        EXPECT_EQ(set.count(), static_cast<int>(model.size()));
        EXPECT_EQ(set.first(), model.empty() ? std::nullopt : std::optional(*model.begin()));
        EXPECT_EQ(PieceSet::fromBitfield(set.toBitfield(), size), set);
        EXPECT_EQ(set.complement().complement(), set);
        EXPECT_EQ(set.complement().count(), size - set.count());
        EXPECT_FALSE(firstCommon(set, set.complement()));
    }
}

TEST(PieceSetTest, findsTheFirstCommonPieceAndMovesTheCommonOnes) {
    std::mt19937 random(2);
    for (int round = 0; round < 200; ++round) {
        const int size = 1 + static_cast<int>(random() % 20000);
        PieceSet a(size);
        PieceSet b(size);
        for (auto i = random() % 300; i > 0; --i) a.insert(static_cast<int>(random() % static_cast<unsigned>(size)));
        for (auto i = random() % 300; i > 0; --i) b.insert(static_cast<int>(random() % static_cast<unsigned>(size)));
        std::set<int> common;
        a.forEach([&](int piece) {
            if (b.contains(piece)) common.insert(piece);
        });
        EXPECT_EQ(firstCommon(a, b), common.empty() ? std::nullopt : std::optional(*common.begin()));
        PieceSet moved(size);
        PieceSet rest = a;
        EXPECT_EQ(rest.moveCommon(moved, b), !common.empty());
        EXPECT_EQ(contentOf(moved), common);
        EXPECT_EQ(rest.count() + moved.count(), a.count());
        EXPECT_FALSE(firstCommon(rest, b));
    }
}

TEST(PieceSetTest, readsABitfieldAsFarAsItGoes) {
    EXPECT_THAT(contentOf(PieceSet::fromBitfield(Bytes{0x80, 0x01}, 20)), ElementsAre(0, 15));
    EXPECT_THAT(contentOf(PieceSet::fromBitfield(Bytes{0xff, 0xff, 0xff}, 10)).size(), 10);
    EXPECT_TRUE(PieceSet::fromBitfield(Bytes(1000, 0xff), 0).empty());
    EXPECT_TRUE(PieceSet::fromBitfield(Bytes(), 100).empty());
}

TEST(PieceSetTest, writesTheFirstPieceAsTheHighestBitAndLeavesSpareBitsClear) {
    PieceSet set = PieceSet::full(10);
    EXPECT_EQ(set.toBitfield(), (Bytes{0xff, 0xc0}));
    set.erase(0);
    EXPECT_EQ(set.toBitfield(), (Bytes{0x7f, 0xc0}));
}

}  // namespace
}  // namespace skein
