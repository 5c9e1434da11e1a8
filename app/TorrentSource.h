#pragma once

#include "public/common/Bytes.h"

#include <string>

namespace skein {

class EngineHost;

/// The bytes of the `.torrent` that `source` names: a path, or an HTTP(S) address that ends in ".torrent".
/// Throws CommandFailure.
Bytes readTorrentSource(const std::string& source, EngineHost& host);

}  // namespace skein
