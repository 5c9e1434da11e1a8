#include "Core/engine/PieceSet.h"

#include <algorithm>
#include <utility>

namespace skein {

PieceSet::PieceSet(int size) : size_(std::max(size, 0)) {
    pages_.resize((static_cast<std::size_t>(size_) + piecesPerPage - 1) / piecesPerPage);
    occupied_.resize((pages_.size() + 63) / 64);
}

PieceSet::PieceSet(const PieceSet& other)
    : size_(other.size_), count_(other.count_), occupied_(other.occupied_), pages_(other.pages_.size()) {
    for (std::size_t at = 0; at < pages_.size(); ++at)
        if (other.pages_[at]) pages_[at] = std::make_unique<Page>(*other.pages_[at]);
}

PieceSet::PieceSet(PieceSet&& other) noexcept
    : size_(std::exchange(other.size_, 0)),
      count_(std::exchange(other.count_, 0)),
      occupied_(std::exchange(other.occupied_, {})),
      pages_(std::exchange(other.pages_, {})) {}

PieceSet& PieceSet::operator=(PieceSet other) noexcept {
    std::swap(size_, other.size_);
    std::swap(count_, other.count_);
    occupied_.swap(other.occupied_);
    pages_.swap(other.pages_);
    return *this;
}

PieceSet PieceSet::full(int size) { return PieceSet(size).complement(); }

PieceSet PieceSet::fromBitfield(ByteView bitfield, int pieceCount) {
    PieceSet set(pieceCount);
    const std::size_t words = std::min((bitfield.size() + 7) / 8, (static_cast<std::size_t>(set.size_) + 63) / 64);
    for (std::size_t i = 0; i < words; ++i) {
        const ByteView rest = bitfield.subspan(i * 8);
        std::uint64_t bits = 0;
        if (rest.size() >= 8) {
            bits = readBigEndian<std::uint64_t>(rest);
        } else {
            for (std::size_t byte = 0; byte < rest.size(); ++byte)
                bits |= std::uint64_t{rest[byte]} << (56U - 8U * static_cast<unsigned>(byte));
        }
        bits &= set.validBits(i / 64, i % 64);
        if (bits != 0) set.putWord(i / 64, i % 64, bits);
    }
    return set;
}

Bytes PieceSet::toBitfield() const {
    // Whole words are written, the bytes past the last piece cut off.
    Bytes bitfield((static_cast<std::size_t>(size_) + 63) / 64 * 8);
    for (std::size_t at = 0; at < pages_.size(); ++at) {
        if (!pages_[at]) continue;
        for (std::size_t word = 0; word < 64; ++word)
            if (const std::uint64_t bits = pages_[at]->words[word]; bits != 0)
                writeBigEndian(bitfield.data() + (at * 64 + word) * 8, bits);
    }
    bitfield.resize((static_cast<std::size_t>(size_) + 7) / 8);
    return bitfield;
}

PieceSet PieceSet::complement() const {
    PieceSet others(size_);
    for (std::size_t at = 0; at < pages_.size(); ++at) {
        for (std::size_t word = 0; word < 64; ++word) {
            const std::uint64_t bits = pages_[at] ? pages_[at]->words[word] : 0;
            const std::uint64_t missing = ~bits & validBits(at, word);
            if (missing != 0) others.putWord(at, word, missing);
        }
    }
    return others;
}

bool PieceSet::insert(int piece) {
    if (piece < 0 || piece >= size_ || contains(piece)) return false;
    Page& page = pageForWriting(pageOf(piece));
    page.words[wordOf(piece)] |= bitOf(piece);
    page.summary |= topBit >> wordOf(piece);
    ++count_;
    return true;
}

bool PieceSet::erase(int piece) {
    if (!contains(piece)) return false;
    const std::size_t at = pageOf(piece);
    std::uint64_t& word = pages_[at]->words[wordOf(piece)];
    word &= ~bitOf(piece);
    if (word == 0) pages_[at]->summary &= ~(topBit >> wordOf(piece));
    dropPageIfEmpty(at);
    --count_;
    return true;
}

std::optional<int> firstCommon(const PieceSet& a, const PieceSet& b) noexcept {
    const std::size_t groups = std::min(a.occupied_.size(), b.occupied_.size());
    for (std::size_t group = 0; group < groups; ++group) {
        std::uint64_t pages = a.occupied_[group] & b.occupied_[group];
        for (; pages != 0; pages &= ~PieceSet::firstBit(pages)) {
            const std::size_t at = group * 64 + static_cast<std::size_t>(std::countl_zero(pages));
            const PieceSet::Page& pageA = *a.pages_[at];
            const PieceSet::Page& pageB = *b.pages_[at];
            std::uint64_t words = pageA.summary & pageB.summary;
            for (; words != 0; words &= ~PieceSet::firstBit(words)) {
                const auto word = static_cast<std::size_t>(std::countl_zero(words));
                const std::uint64_t bits = pageA.words[word] & pageB.words[word];
                if (bits != 0) return PieceSet::pieceAt(at, word, bits);
            }
        }
    }
    return std::nullopt;
}

bool PieceSet::moveCommon(PieceSet& to, const PieceSet& mask) {
    const int before = count_;
    for (std::size_t at = 0; at < std::min(pages_.size(), mask.pages_.size()); ++at) {
        if (!pages_[at] || !mask.pages_[at]) continue;
        Page& from = *pages_[at];
        const Page& chosen = *mask.pages_[at];
        for (std::uint64_t words = from.summary & chosen.summary; words != 0; words &= ~firstBit(words)) {
            const auto word = static_cast<std::size_t>(std::countl_zero(words));
            const std::uint64_t moved = from.words[word] & chosen.words[word];
            if (moved == 0) continue;
            from.words[word] ^= moved;
            if (from.words[word] == 0) from.summary &= ~(topBit >> word);
            Page& target = to.pageForWriting(at);
            const int added = std::popcount(moved & ~target.words[word]);
            target.words[word] |= moved;
            target.summary |= topBit >> word;
            to.count_ += added;
            count_ -= std::popcount(moved);
        }
        dropPageIfEmpty(at);
    }
    return count_ != before;
}

bool operator==(const PieceSet& a, const PieceSet& b) noexcept {
    if (a.size_ != b.size_ || a.count_ != b.count_ || a.occupied_ != b.occupied_) return false;
    for (std::size_t at = 0; at < a.pages_.size(); ++at)
        if (a.pages_[at] && a.pages_[at]->words != b.pages_[at]->words) return false;
    return true;
}

std::uint64_t PieceSet::validBits(std::size_t page, std::size_t word) const noexcept {
    const std::size_t first = page * piecesPerPage + word * 64;
    const auto size = static_cast<std::size_t>(size_);
    if (first >= size) return 0;
    const std::size_t valid = size - first;
    return valid >= 64 ? ~std::uint64_t{0} : ~(~std::uint64_t{0} >> valid);
}

PieceSet::Page& PieceSet::pageForWriting(std::size_t at) {
    if (!pages_[at]) {
        pages_[at] = std::make_unique<Page>();
        occupied_[at / 64] |= topBit >> (at % 64);
    }
    return *pages_[at];
}

void PieceSet::dropPageIfEmpty(std::size_t at) noexcept {
    if (pages_[at]->summary != 0) return;
    pages_[at].reset();
    occupied_[at / 64] &= ~(topBit >> (at % 64));
}

void PieceSet::putWord(std::size_t page, std::size_t word, std::uint64_t bits) {
    Page& target = pageForWriting(page);
    target.words[word] = bits;
    target.summary |= topBit >> word;
    count_ += std::popcount(bits);
}

}  // namespace skein
