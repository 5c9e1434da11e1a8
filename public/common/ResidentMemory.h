#pragma once

#include <cstdint>

namespace skein {

/// Bytes of this process that are in memory now; 0 where the system does not tell. Blocks: for the disk pool.
std::int64_t residentMemoryBytes();

}  // namespace skein
