#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace skein {

/// Columns that a terminal shows `text` in, UTF-8 without control characters: two for ideographs and most pictures,
/// none for marks that go onto the character before.
std::size_t columnsOf(std::string_view text) noexcept;

/// `text` in exactly so many columns: filled up with blanks, or cut and ended by "…".
std::string fitted(std::string_view text, std::size_t columns);

/// Filled up on the left; not cut.
std::string rightAligned(std::string_view text, std::size_t columns);

}  // namespace skein
