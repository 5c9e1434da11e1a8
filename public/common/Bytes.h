#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

Bytes toBytes(std::string_view text);
/// The same bytes seen as text, whatever they are; valid as long as `bytes` is.
std::string_view asText(ByteView bytes) noexcept;
ByteView asBytes(std::string_view text) noexcept;

/// Two lower-case hex digits a byte.
std::string toHex(ByteView bytes);
std::string toUpperHex(ByteView bytes);
/// Either case; nothing for an odd length or a character that is no hex digit.
std::optional<Bytes> fromHex(std::string_view text);

bool isValidUTF8(ByteView bytes) noexcept;

/// The big-endian number at the start of `bytes`, which must hold at least `sizeof(Number)` bytes.
template <std::unsigned_integral Number>
Number readBigEndian(ByteView bytes) noexcept {
    Number value = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i) value = static_cast<Number>(value << 8U | bytes[i]);
    return value;
}

template <std::unsigned_integral Number>
void writeBigEndian(std::uint8_t* to, Number value) noexcept {
    for (std::size_t i = 0; i < sizeof(Number); ++i)
        to[i] = static_cast<std::uint8_t>(value >> (8U * (sizeof(Number) - 1 - i)));
}

template <std::unsigned_integral Number>
void appendBigEndian(Bytes& to, Number value) {
    to.resize(to.size() + sizeof(Number));
    writeBigEndian(to.data() + to.size() - sizeof(Number), value);
}

inline void append(Bytes& to, ByteView bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }

}  // namespace skein
