#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace skein {

/// Bytes of the character at the start of `text`; 0 when there is no whole one.
std::size_t firstCharacterLength(std::string_view text) noexcept;

/// `text` with U+FFFD for each byte that belongs to no character.
std::string toValidUTF8(std::string_view text);

}  // namespace skein
