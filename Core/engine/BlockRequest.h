#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

namespace skein {

/// A part of a piece, as peers ask each other for it (BEP 3, "request").
struct BlockRequest {
    int pieceIndex = 0;
    int begin = 0;   ///< bytes from the start of the piece
    int length = 0;  ///< bytes

    friend bool operator==(const BlockRequest&, const BlockRequest&) = default;
};

/// One block to be read for an upload; `ok` tells whether `into`, which is as long as the block, was filled.
struct BlockRead {
    BlockRequest request;
    std::span<std::uint8_t> into;
    bool ok = false;
};

}  // namespace skein

template <>
struct std::hash<skein::BlockRequest> {
    std::size_t operator()(const skein::BlockRequest& block) const noexcept {
        const auto place = static_cast<std::uint64_t>(static_cast<std::uint32_t>(block.pieceIndex)) << 32U |
                           static_cast<std::uint32_t>(block.begin);
        return std::hash<std::uint64_t>{}(place * 0x9E3779B97F4A7C15U ^ static_cast<std::uint32_t>(block.length));
    }
};
