#pragma once

#include "Core/engine/PieceSet.h"

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace skein {

/// Which piece to fetch next: of the candidates that a peer has, the one announced least often, and among equals the
/// one of the lowest index.
///
/// Announcements are only ever counted up: how common a piece is counts all that was heard of it in this run, also from
/// peers that have left. Candidates are kept by their count, so a choice costs no look at the other pieces.
/// Owner: PieceManager, on whose strand it lives.
class PiecePicker {
public:
    /// All of the `pieceCount` pieces are candidates that nobody has announced.
    explicit PiecePicker(int pieceCount);

    /// Counts one announcement of each piece in `pieces`. One of all pieces, or of nearly all, costs little.
    void countAll(const PieceSet& pieces);
    void count(int piece);
    /// How often `piece` was announced; 0 for what is no piece.
    int availabilityOf(int piece) const noexcept;

    void addCandidate(int piece);
    void removeCandidate(int piece);
    const PieceSet& candidates() const noexcept { return candidates_; }

    std::optional<int> next(const PieceSet& peerHas) const;

private:
    /// Up to so many pieces of a peer are looked at one by one; beyond, the search goes by count. Both find the same.
    static constexpr int fewPieces = 128;

    std::optional<int> nextAmongFew(const PieceSet& peerHas) const;

    std::int64_t common_ = 0;  // a piece's availability is this plus its own count, which may be negative
    std::vector<std::int32_t> own_;
    PieceSet candidates_;
    std::map<std::int32_t, PieceSet> byCount_;  // the candidates by own count; none of the sets is empty
};

}  // namespace skein
