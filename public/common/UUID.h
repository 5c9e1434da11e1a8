#pragma once

#include "public/common/Random.h"

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

namespace skein {

/// A universally unique identifier. Source: RFC 4122. Immutable; any thread.
struct UUID {
    std::array<std::uint8_t, 16> bytes{};

    /// A fresh one (version 4).
    static UUID random(Random& random);
    /// 36 characters, upper-case hex digits in five groups.
    std::string text() const;

    friend auto operator<=>(const UUID&, const UUID&) = default;
};

}  // namespace skein

template <>
struct std::hash<skein::UUID> {
    std::size_t operator()(const skein::UUID& id) const noexcept {
        std::size_t start = 0;  // the bytes are random: any of them will do
        std::memcpy(&start, id.bytes.data(), sizeof start);
        return start;
    }
};
