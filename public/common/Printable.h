#pragma once

#include <string>
#include <string_view>

namespace skein {

/// `text` as it may go to a terminal: whatever could move the cursor, break the line, turn the writing direction or is
/// no UTF-8 is replaced by "?". Names come from strangers.
std::string printable(std::string_view text);

}  // namespace skein
