#pragma once

#include "public/common/Bytes.h"

#include <optional>
#include <string>
#include <string_view>

/// Turns a remote peer id into the name of the client that chose it, for showing. Source: BEP 20. Stateless; any
/// thread. What comes out is printable whatever the peer sent.
namespace skein::PeerIDClientParser {

/// The printable ASCII at the start of the id.
std::string prefix(ByteView peerID);

/// "µTorrent 3.5.5.0" for "-UT3550-…"; nothing for an id that no rule knows.
std::optional<std::string> clientName(ByteView peerID);

/// "3.5.5.0" for "3550": the letters and digits, joined with dots.
std::string formatVersion(std::string_view version);

/// Ids from before the dash form, by how their prefix begins.
std::optional<std::string> legacyClientName(std::string_view prefix);

}  // namespace skein::PeerIDClientParser
