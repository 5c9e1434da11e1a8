#pragma once

#include "public/common/LocalBinding.h"

#include <cstdint>

namespace skein {

/// A port that is free for TCP and UDP alike at the addresses of `binding`: peers and the DHT are reached under one
/// number. `wanted` when it is, else one that the system chooses; 0 when none was found.
std::uint16_t choosePort(const LocalBinding& binding, std::uint16_t wanted);

}  // namespace skein
