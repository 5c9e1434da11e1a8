#pragma once

#include "public/common/Bytes.h"

#include <array>
#include <bit>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace skein {

/// A set of piece indices in [0, size): a bitmap of three levels, 64 branches each.
///
/// The two upper levels say where the lower one holds anything, so that searching, and intersecting with another set,
/// costs what the emptier of the two has and not the torrent's size. Ranges of 4096 pieces without a member take no
/// memory. Everything out of range is accepted and is in no set. Thread: one at a time.
class PieceSet {
public:
    PieceSet() = default;
    explicit PieceSet(int size);
    PieceSet(const PieceSet& other);
    PieceSet(PieceSet&& other) noexcept;
    PieceSet& operator=(PieceSet other) noexcept;
    ~PieceSet() = default;

    static PieceSet full(int size);
    /// Most significant bit first (BEP 3). Pieces beyond the end of `bitfield` are absent, bits beyond the last piece
    /// are ignored.
    static PieceSet fromBitfield(ByteView bitfield, int pieceCount);
    /// ⌈size ÷ 8⌉ bytes, spare bits 0.
    Bytes toBitfield() const;
    /// All pieces that are not in this set.
    PieceSet complement() const;

    /// Each returns whether the set changed.
    bool insert(int piece);
    bool erase(int piece);

    bool contains(int piece) const noexcept {
        if (piece < 0 || piece >= size_) return false;
        const Page* page = pages_[pageOf(piece)].get();
        return page != nullptr && (page->words[wordOf(piece)] & bitOf(piece)) != 0;
    }
    int count() const noexcept { return count_; }
    int size() const noexcept { return size_; }
    bool empty() const noexcept { return count_ == 0; }

    std::optional<int> first() const noexcept { return firstCommon(*this, *this); }
    /// The lowest piece that is in both.
    friend std::optional<int> firstCommon(const PieceSet& a, const PieceSet& b) noexcept;
    /// Moves what is in `mask` over to `to`, which has the same size. Returns whether anything was.
    bool moveCommon(PieceSet& to, const PieceSet& mask);

    /// Calls `visit` with each piece, lowest first, until it returns false. `visit` must not change the set.
    template <class Visit>
    void visitWhile(Visit visit) const {
        for (std::size_t at = 0; at < pages_.size(); ++at) {
            const Page* page = pages_[at].get();
            if (page == nullptr) continue;
            for (std::uint64_t summary = page->summary; summary != 0; summary &= ~firstBit(summary)) {
                const auto word = static_cast<std::size_t>(std::countl_zero(summary));
                for (std::uint64_t bits = page->words[word]; bits != 0; bits &= ~firstBit(bits))
                    if (!visit(pieceAt(at, word, bits))) return;
            }
        }
    }
    template <class Visit>
    void forEach(Visit visit) const {
        visitWhile([&](int piece) {
            visit(piece);
            return true;
        });
    }

    friend bool operator==(const PieceSet& a, const PieceSet& b) noexcept;

private:
    // Piece 0 is the most significant bit of its word, as on the wire: a bitfield is copied, not turned around.
    struct Page {
        std::uint64_t summary = 0;  // bit w: words[w] is not 0
        std::array<std::uint64_t, 64> words{};
    };
    static constexpr int piecesPerPage = 4096;

    static constexpr std::uint64_t topBit = std::uint64_t{1} << 63U;
    static std::uint64_t firstBit(std::uint64_t bits) noexcept { return topBit >> std::countl_zero(bits); }
    static std::size_t pageOf(int piece) noexcept { return static_cast<std::size_t>(piece) / piecesPerPage; }
    static std::size_t wordOf(int piece) noexcept { return static_cast<std::size_t>(piece) / 64 % 64; }
    static std::uint64_t bitOf(int piece) noexcept { return topBit >> (static_cast<unsigned>(piece) % 64U); }
    static int pieceAt(std::size_t page, std::size_t word, std::uint64_t bits) noexcept {
        return static_cast<int>(page * piecesPerPage + word * 64) + std::countl_zero(bits);
    }
    /// The bits of word `word` of page `page` that stand for pieces below `size_`.
    std::uint64_t validBits(std::size_t page, std::size_t word) const noexcept;
    Page& pageForWriting(std::size_t at);
    void dropPageIfEmpty(std::size_t at) noexcept;
    /// Makes word `word` of page `page` be `bits`; neither was there before.
    void putWord(std::size_t page, std::size_t word, std::uint64_t bits);

    int size_ = 0;
    int count_ = 0;
    std::vector<std::uint64_t> occupied_;  // bit p: pages_[p] exists, and is then not empty
    std::vector<std::unique_ptr<Page>> pages_;
};

}  // namespace skein
