#pragma once

#include "Core/engine/ChunkPool.h"
#include "Core/wire/BlockRequest.h"
#include "public/common/Bytes.h"

#include <cstdint>
#include <sys/uio.h>
#include <vector>

namespace skein {

/// A piece of which blocks are being received: its bytes so far, and which blocks are still to come.
///
/// Memory is taken as blocks arrive, not for the whole piece at once. Owner: PieceManager, on whose strand it is
/// changed; once it is whole it no longer changes, and the disk pool reads it.
class PieceInFlight {
public:
    PieceInFlight(ChunkPool& pool, std::int64_t size);
    PieceInFlight(const PieceInFlight&) = delete;
    PieceInFlight& operator=(const PieceInFlight&) = delete;
    ~PieceInFlight();

    std::int64_t size() const noexcept { return size_; }
    bool isWhole() const noexcept { return outstanding_ == 0; }
    /// A block has come.
    bool hasBegun() const noexcept { return outstanding_ < static_cast<std::int64_t>(received_.size()); }
    /// True where `begin` starts a block that has not come yet.
    bool expects(std::int64_t begin) const noexcept;
    /// Keeps `data` as the block at `begin`, which is expected. Data that would pass the end of the piece is not kept;
    /// the block then counts as received, and the piece's hash will tell.
    void store(std::int64_t begin, ByteView data);
    /// The bytes of a whole piece, in order.
    std::vector<iovec> buffers() const;

    bool isResting = false;    ///< nobody fetches it at the moment; what came stays for the next one
    bool isSubmitted = false;  ///< handed to the disk pool; from now on nothing but its result ends it

private:
    std::uint8_t* chunkAt(std::size_t index);

    ChunkPool& pool_;
    const std::int64_t size_;
    std::int64_t outstanding_;           // blocks
    std::vector<bool> received_;         // by block
    std::vector<std::uint8_t*> chunks_;  // nullptr until something in it has come
};

}  // namespace skein
