#include "Core/engine/PieceSet.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace skein {
namespace {

std::set<int> contentOf(const PieceSet& set) {
    std::set<int> content;
    set.forEach([&](int piece) { content.insert(content.end(), piece); });
    return content;
}

std::optional<int> firstOf(const std::set<int>& model) {
    return model.empty() ? std::nullopt : std::optional(*model.begin());
}

TEST(PieceSetTest, agreesWithAPlainSetThroughRandomOperations) {
    std::mt19937 random(1);
    // Sizes on both sides of every boundary of the levels.
    for (const int size : {0, 1, 63, 64, 65, 4095, 4096, 4097, 262143, 262145}) {
        PieceSet set(size);
        PieceSet other(size);
        std::set<int> model;
        for (int i = 0; i < 3000; ++i) {
            const int piece = static_cast<int>(random() % static_cast<unsigned>(size + 3)) - 1;
            if (random() % 5 < 3) {
                EXPECT_EQ(set.insert(piece), piece >= 0 && piece < size && model.insert(piece).second);
            } else {
                EXPECT_EQ(set.erase(piece), model.erase(piece) > 0);
            }
            ASSERT_EQ(set.contains(piece), model.contains(piece));
            if (i % 4 == 0) other.insert(piece + 1);
        }
        EXPECT_EQ(contentOf(set), model);
        EXPECT_EQ(set.count(), static_cast<int>(model.size()));
        EXPECT_EQ(set.first(), firstOf(model));
        EXPECT_EQ(PieceSet::fromBitfield(set.toBitfield(), size), set);
        const Bytes tooLong(static_cast<std::size_t>(size) / 8 + 2, 0xff);
        EXPECT_EQ(PieceSet::fromBitfield(tooLong, size), PieceSet::full(size));
        EXPECT_TRUE(PieceSet::fromBitfield({}, size).empty());
        EXPECT_EQ(set.complement().complement(), set);
        EXPECT_EQ(set.complement().count(), size - set.count());
        EXPECT_FALSE(firstCommon(set, set.complement()));

        std::erase_if(model, [&](int piece) { return !other.contains(piece); });
        EXPECT_EQ(firstCommon(set, other), firstOf(model));
        PieceSet moved(size);
        PieceSet rest = set;
        EXPECT_EQ(rest.moveCommon(moved, other), !model.empty());
        EXPECT_EQ(contentOf(moved), model);
        EXPECT_EQ(rest.count() + moved.count(), set.count());
        EXPECT_FALSE(firstCommon(rest, other));
    }
}

}  // namespace
}  // namespace skein
