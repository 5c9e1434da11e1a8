#pragma once

#include <cstddef>
#include <string_view>

namespace skein {

/// How many bytes the white-space character at `index` has, 0 when there is none. Unicode's white space, line breaks
/// included, in UTF-8: names in Chinese have its wide space.
std::size_t whitespaceAt(std::string_view text, std::size_t index) noexcept;

/// `text` without white space at both ends.
std::string_view trimWhitespace(std::string_view text) noexcept;

}  // namespace skein
