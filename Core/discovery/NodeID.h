#pragma once

#include "public/common/SHA1.h"

#include <algorithm>
#include <cstddef>
#include <optional>

namespace skein {

/// The name of a node, in the same space as the info-hashes. Source: BEP 5.
using NodeID = SHA1Digest;

/// The XOR of two ids: a big-endian number, the smaller the closer.
inline NodeID distance(const NodeID& left, const NodeID& right) noexcept {
    NodeID result{};
    for (std::size_t i = 0; i < result.size(); ++i) result[i] = left[i] ^ right[i];
    return result;
}

/// Whether `left` is closer to `target` than `right`: the first byte that differs decides.
inline bool xorLess(const NodeID& target, const NodeID& left, const NodeID& right) noexcept {
    const auto differs = std::mismatch(left.begin(), left.end(), right.begin());
    if (differs.first == left.end()) return false;
    const std::uint8_t mask = target[static_cast<std::size_t>(differs.first - left.begin())];
    return (*differs.first ^ mask) < (*differs.second ^ mask);
}

/// Nothing when there are not exactly 20 bytes.
inline std::optional<NodeID> nodeIDFrom(ByteView bytes) noexcept {
    NodeID id{};
    if (bytes.size() != id.size()) return std::nullopt;
    std::copy(bytes.begin(), bytes.end(), id.begin());
    return id;
}

}  // namespace skein
