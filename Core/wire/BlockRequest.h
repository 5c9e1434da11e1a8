#pragma once

#include <cstdint>
#include <span>

namespace skein {

/// A block as the wire names it. Source: BEP 3, "request".
struct BlockRequest {
    int pieceIndex = 0;
    int begin = 0;   ///< bytes from the piece's start
    int length = 0;  ///< bytes

    friend bool operator==(const BlockRequest&, const BlockRequest&) = default;
};

/// A block to be read for an upload; `ok` tells whether `into` was filled.
struct BlockRead {
    BlockRequest request;
    std::span<std::uint8_t> into;
    bool ok = false;
};

}  // namespace skein
