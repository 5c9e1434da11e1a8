#pragma once

#include <string>
#include <vector>

namespace skein {

/// Public UDP trackers, for a torrent that is not private and names none. A user's setting replaces them.
std::vector<std::string> builtInFallbackTrackers();

}  // namespace skein
