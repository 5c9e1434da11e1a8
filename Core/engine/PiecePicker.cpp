#include "Core/engine/PiecePicker.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace skein {

namespace {

/// Beyond this count a piece is as common as can be: a peer that announces for days must not overflow the counter.
constexpr std::int32_t highestCount = std::numeric_limits<std::int32_t>::max() / 4;

}  // namespace

PiecePicker::PiecePicker(int pieceCount)
    : own_(static_cast<std::size_t>(std::max(pieceCount, 0))), candidates_(PieceSet::full(pieceCount)) {
    if (!candidates_.empty()) byCount_.emplace(0, candidates_);
}

void PiecePicker::countAll(const PieceSet& pieces) {
    // Whichever is less work: one up for the pieces in the set, or one up for all and one down for the rest.
    const bool upForAll = pieces.count() > candidates_.size() / 2;
    const std::int32_t change = upForAll ? -1 : 1;
    if (upForAll) ++common_;
    if (upForAll && pieces.count() == candidates_.size()) return;
    const PieceSet rest = upForAll ? pieces.complement() : PieceSet();
    const PieceSet& moved = upForAll ? rest : pieces;
    if (moved.empty()) return;
    moved.forEach([&](int piece) { own_[static_cast<std::size_t>(piece)] += change; });

    // Each set hands on to its neighbour, which has by then handed on what it had, so nothing moves twice.
    const auto handOn = [&](std::int32_t count, PieceSet& from) {
        PieceSet to(candidates_.size());
        if (const auto found = byCount_.find(count + change); found != byCount_.end()) {
            from.moveCommon(found->second, moved);
        } else if (from.moveCommon(to, moved)) {
            byCount_.emplace(count + change, std::move(to));
        }
    };
    std::vector<std::int32_t> counts;
    for (const auto& [count, set] : byCount_) counts.push_back(count);
    if (change > 0) std::reverse(counts.begin(), counts.end());
    for (const std::int32_t count : counts) {
        const auto entry = byCount_.find(count);
        handOn(count, entry->second);
        if (entry->second.empty()) byCount_.erase(entry);
    }
}

void PiecePicker::count(int piece) {
    if (piece < 0 || piece >= candidates_.size()) return;
    std::int32_t& own = own_[static_cast<std::size_t>(piece)];
    if (own >= highestCount) return;
    const bool isCandidate = candidates_.contains(piece);
    if (isCandidate) removeCandidate(piece);
    ++own;
    if (isCandidate) addCandidate(piece);
}

int PiecePicker::availabilityOf(int piece) const noexcept {
    if (piece < 0 || piece >= candidates_.size()) return 0;
    return static_cast<int>(common_ + own_[static_cast<std::size_t>(piece)]);
}

void PiecePicker::addCandidate(int piece) {
    if (!candidates_.insert(piece)) return;
    byCount_.try_emplace(own_[static_cast<std::size_t>(piece)], candidates_.size()).first->second.insert(piece);
}

void PiecePicker::removeCandidate(int piece) {
    if (!candidates_.erase(piece)) return;
    const auto entry = byCount_.find(own_[static_cast<std::size_t>(piece)]);
    entry->second.erase(piece);
    if (entry->second.empty()) byCount_.erase(entry);
}

std::optional<int> PiecePicker::next(const PieceSet& peerHas) const {
    if (peerHas.count() <= fewPieces) return nextAmongFew(peerHas);
    // A peer that has nothing for us is asked about again and again; it must not cost a search of every set.
    if (!firstCommon(candidates_, peerHas)) return std::nullopt;
    for (const auto& [count, set] : byCount_)
        if (const std::optional<int> piece = firstCommon(set, peerHas)) return piece;
    return std::nullopt;
}

std::optional<int> PiecePicker::nextAmongFew(const PieceSet& peerHas) const {
    std::optional<int> best;
    peerHas.forEach([&](int piece) {
        if (!candidates_.contains(piece)) return;
        if (!best || own_[static_cast<std::size_t>(piece)] < own_[static_cast<std::size_t>(*best)]) best = piece;
    });
    return best;
}

}  // namespace skein
