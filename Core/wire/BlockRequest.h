#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
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

template <>
struct std::hash<skein::BlockRequest> {
    std::size_t operator()(const skein::BlockRequest& block) const noexcept {
        const auto place = static_cast<std::uint64_t>(static_cast<std::uint32_t>(block.pieceIndex)) << 32U |
                           static_cast<std::uint32_t>(block.begin);
        return std::hash<std::uint64_t>{}(place * 0x9E3779B97F4A7C15U ^ static_cast<std::uint32_t>(block.length));
    }
};
