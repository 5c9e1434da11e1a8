#include "Core/engine/PiecePicker.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace skein {
namespace {

TEST(PiecePickerTest, choosesTheRarestAndAmongEqualsTheLowest) {
    PiecePicker picker(3);
    for (int i = 0; i < 3; ++i) picker.count(0);
    picker.count(1);
    picker.count(2);
    EXPECT_EQ(picker.next(PieceSet::full(3)), 1);
    picker.removeCandidate(1);
    EXPECT_EQ(picker.next(PieceSet::full(3)), 2);
    EXPECT_EQ(picker.next(PieceSet::fromBitfield(Bytes{0xc0}, 3)), 0);
    EXPECT_FALSE(picker.next(PieceSet::fromBitfield(Bytes{0x40}, 3)));
}

/// The rule, written down as a search of all pieces.
struct Model {
    explicit Model(int size) : counts(static_cast<std::size_t>(size)) {
        for (int piece = 0; piece < size; ++piece) candidates.insert(piece);
    }
    std::optional<int> next(const PieceSet& peerHas) const {
        std::optional<int> best;
        for (const int piece : candidates)
            if (peerHas.contains(piece) && (!best || at(piece) < at(*best))) best = piece;
        return best;
    }
    int at(int piece) const { return counts[static_cast<std::size_t>(piece)]; }
    std::vector<int> counts;
    std::set<int> candidates;
};

TEST(PiecePickerTest, agreesWithASearchOfAllPiecesThroughRandomOperations) {
    std::mt19937 random(3);
    for (const int size : {1, 64, 130, 700, 5000}) {
        PiecePicker picker(size);
        Model model(size);
        const auto somePiece = [&] { return static_cast<int>(random() % static_cast<unsigned>(size)); };
        const auto somePieces = [&] {
            const auto percent = random() % 4 == 0 ? 100 : random() % 101;
            PieceSet set(size);
            for (int piece = 0; piece < size; ++piece)
                if (random() % 100 < percent) set.insert(piece);
            return set;
        };
        for (int i = 0; i < 600; ++i) {
            switch (random() % 5) {
                case 0: {
                    const PieceSet announced = somePieces();
                    picker.countAll(announced);
                    announced.forEach([&](int piece) { ++model.counts[static_cast<std::size_t>(piece)]; });
                    break;
                }
                case 1: {
                    const int piece = somePiece();
                    picker.count(piece);
                    ++model.counts[static_cast<std::size_t>(piece)];
                    break;
                }
                case 2: {
                    const int piece = somePiece();
                    picker.addCandidate(piece);
                    model.candidates.insert(piece);
                    break;
                }
                default: {
                    const PieceSet peerHas = somePieces();
                    const std::optional<int> piece = picker.next(peerHas);
                    ASSERT_EQ(piece, model.next(peerHas));
                    if (!piece) break;
                    ASSERT_EQ(picker.availabilityOf(*piece), model.at(*piece));
                    picker.removeCandidate(*piece);
                    model.candidates.erase(*piece);
                }
            }
            ASSERT_EQ(picker.candidates().count(), static_cast<int>(model.candidates.size()));
        }
    }
}

TEST(PiecePickerTest, ignoresWhatIsNoPiece) {
    PiecePicker picker(2);
    picker.count(-1);
    picker.count(2);
    picker.addCandidate(7);
    EXPECT_EQ(picker.availabilityOf(-1) + picker.availabilityOf(0) + picker.availabilityOf(1), 0);
    EXPECT_EQ(picker.candidates().count(), 2);
    EXPECT_FALSE(PiecePicker(0).next(PieceSet::full(5)));
}

}  // namespace
}  // namespace skein
