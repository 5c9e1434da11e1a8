#pragma once

#include "Core/discovery/PeerHistory.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace skein {

/// The stored form of the history: a JSON object from info-hash to a list of entries, with dates as seconds since
/// 2001-01-01 00:00 UTC. Plain code; both cost time in proportion to the text, so they have no place on an `io` thread.

/// An empty history when `text` is not of that form; an entry that is not is left out.
PeerHistory decodePeerHistory(std::string_view text);

/// Drops the worst entries until the text has at most `maxBytes`, and returns it.
std::string encodePeerHistory(PeerHistory& history, std::size_t maxBytes);

}  // namespace skein
