#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace skein {

// The characters of strangers' texts that do something to the text around them instead of standing for themselves, in
// UTF-8: control characters (of ASCII, DEL, U+0080 to U+009F), those that turn the writing direction (U+061C, U+200E,
// U+200F, U+202A to U+202E, U+2066 to U+2069), that break a line (U+2028, U+2029) or cannot be seen (U+200B, U+FEFF).
// U+200C and U+200D are not odd: scripts and emoji need them.

/// Bytes of the odd character that `text` begins with; 0 when it begins with anything else.
std::size_t oddLength(std::string_view text) noexcept;
bool hasOdd(std::string_view text) noexcept;
/// `text` with `instead` for each odd character.
std::string withoutOdd(std::string_view text, char instead);

}  // namespace skein
