#pragma once

#include <string>
#include <string_view>

namespace skein {

/// `text` as it may go to a terminal: each odd character (see OddCharacters.h), and each byte that is no UTF-8, is
/// replaced by "?". Names come from strangers.
std::string printable(std::string_view text);

}  // namespace skein
