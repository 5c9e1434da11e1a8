#pragma once

#include "Core/formats/MagnetLink.h"
#include "public/common/Bytes.h"

#include <string>
#include <variant>

namespace skein {

class EngineHost;

/// What is to be transferred: the bytes of a `.torrent`, or a magnet link.
using TransferSource = std::variant<Bytes, MagnetLink>;

/// What `source` names: a magnet link, the path of a `.torrent`, or an HTTP(S) address that ends in ".torrent".
/// Throws CommandFailure.
TransferSource readTransferSource(const std::string& source, EngineHost& host);

}  // namespace skein
