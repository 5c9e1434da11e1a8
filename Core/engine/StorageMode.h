#pragma once

#include <cstdint>

namespace skein {

/// What storage may do with a torrent's files: all that a download needs; or only read what is there.
enum class StorageMode : std::uint8_t { download, readOnly };

}  // namespace skein
