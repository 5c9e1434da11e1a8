#pragma once

#include "Core/formats/MagnetLink.h"
#include "Core/formats/MagnetParseError.h"

#include <string_view>

/// Reads magnet links. Source: BEP 9. Stateless; any thread.
namespace skein::MagnetParser {

/// Throws MagnetParseException. Values whose percent-encoding is broken, or is no UTF-8, count as absent.
MagnetLink parse(std::string_view uri);

}  // namespace skein::MagnetParser
