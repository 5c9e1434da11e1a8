#include "Core/engine/PiecePicker.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace skein {
namespace {

/// The rule, written down as a search of all pieces.
struct Model {
    std::optional<int> next(const PieceSet& peerHas) {
        std::optional<int> best;
        for (const int piece : candidates)
            if (peerHas.contains(piece) && (!best || at(piece) < at(*best))) best = piece;
        return best;
    }
    int& at(int piece) { return counts[static_cast<std::size_t>(piece)]; }
    std::vector<int> counts;
    std::set<int> candidates;
};

TEST(PiecePickerTest, agreesWithASearchOfAllPiecesThroughRandomOperations) {
    EXPECT_FALSE(PiecePicker(0).next(PieceSet::full(5)));
    std::mt19937 random(3);
    for (const int size : {1, 64, 130, 700, 5000}) {
        PiecePicker picker(size);
        for (const int none : {-1, size}) picker.count(none);
        Model model{std::vector<int>(static_cast<std::size_t>(size)), {}};
        for (int piece = 0; piece < size; ++piece) model.candidates.insert(piece);
        for (int i = 0; i < 600; ++i) {
            const int piece = static_cast<int>(random() % static_cast<unsigned>(size));
            const auto percent = random() % 4 == 0 ? 100 : random() % 101;
            PieceSet somePieces(size);
            for (int each = 0; each < size; ++each)
                if (random() % 100 < percent) somePieces.insert(each);
            switch (random() % 5) {
                case 0:
                    picker.countAll(somePieces);
                    somePieces.forEach([&](int each) { ++model.at(each); });
                    break;
                case 1:
                    picker.count(piece);
                    ++model.at(piece);
                    break;
                case 2:
                    picker.addCandidate(piece);
                    model.candidates.insert(piece);
                    break;
                default:
                    const std::optional<int> next = picker.next(somePieces);
                    ASSERT_EQ(next, model.next(somePieces));
                    if (!next) break;
                    picker.removeCandidate(*next);
                    model.candidates.erase(*next);
            }
            ASSERT_EQ(picker.availabilityOf(piece), model.at(piece));
            ASSERT_EQ(picker.candidates().count(), static_cast<int>(model.candidates.size()));
        }
    }
}

}  // namespace
}  // namespace skein
