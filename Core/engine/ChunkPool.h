#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace skein {

/// Memory for what arrives, in chunks of one size that are used again and again and are not cleared.
///
/// Chunks come from the system directly and go back to it: a heap would keep them. What is free stays, within a limit,
/// while anything is in use, so a steady download asks the system for nothing; one that stalls holds little.
/// Owner: PieceManager, on whose strand it lives. All chunks are given back before the pool goes.
class ChunkPool {
public:
    /// What is kept free when nothing is in use, and while something is.
    static constexpr std::size_t keptWhenIdle = std::size_t{1} << 20U;
    static constexpr std::size_t keptInUse = std::size_t{16} << 20U;

    explicit ChunkPool(std::size_t chunkSize);
    ChunkPool(const ChunkPool&) = delete;
    ChunkPool& operator=(const ChunkPool&) = delete;
    ~ChunkPool();

    std::size_t chunkSize() const noexcept { return chunkSize_; }
    /// A chunk of any content. Throws std::bad_alloc.
    std::uint8_t* take();
    void giveBack(std::uint8_t* chunk) noexcept;
    /// Gives all free chunks to the system.
    void trim() noexcept;

    std::size_t bytesInUse() const noexcept { return inUse_ * chunkSize_; }
    std::size_t bytesFree() const noexcept { return free_.size() * chunkSize_; }

private:
    void shrinkTo(std::size_t chunks) noexcept;

    const std::size_t chunkSize_;
    std::size_t inUse_ = 0;
    std::vector<std::uint8_t*> free_;  // the last one given back is the next one taken: it may still be in a cache
};

}  // namespace skein
