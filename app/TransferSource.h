#pragma once

#include "Core/formats/MagnetLink.h"
#include "public/common/Bytes.h"

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace skein {

class EngineHost;
class Interrupt;

/// A plain file on a web server.
struct WebFile {
    std::string url;
};

/// What is to be transferred: the bytes of a `.torrent`, a magnet link, or a web file.
using TransferSource = std::variant<Bytes, MagnetLink, WebFile>;

/// What each of `names` stands for: a magnet link, the path of a `.torrent`, or an HTTP(S) address; one whose path ends
/// in ".torrent" is fetched. Nothing when the user interrupts that. Throws CommandFailure.
std::optional<std::vector<TransferSource>> readTransferSources(const std::vector<std::string>& names, EngineHost& host,
                                                               const Interrupt& interrupt);

}  // namespace skein
