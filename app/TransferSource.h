#pragma once

#include "Core/formats/MagnetLink.h"
#include "public/common/Bytes.h"

#include <string>
#include <variant>

namespace skein {

class EngineHost;

/// A plain file on a web server.
struct WebFile {
    std::string url;
};

/// What is to be transferred: the bytes of a `.torrent`, a magnet link, or a web file.
using TransferSource = std::variant<Bytes, MagnetLink, WebFile>;

/// What `source` names: a magnet link, the path of a `.torrent`, or an HTTP(S) address; one whose path ends in
/// ".torrent" is fetched. Throws CommandFailure.
TransferSource readTransferSource(const std::string& source, EngineHost& host);

}  // namespace skein
