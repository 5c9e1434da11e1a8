#pragma once

#include <cstdint>
#include <string>

namespace skein {

/// A port that is free for TCP and UDP alike at `bindAddress` (a literal; empty: all addresses): peers and the DHT are
/// reached under one number. `wanted` when it is, else one that the system chooses; 0 when none was found.
std::uint16_t choosePort(const std::string& bindAddress, std::uint16_t wanted);

}  // namespace skein
