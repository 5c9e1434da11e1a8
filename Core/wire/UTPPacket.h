#pragma once

#include "Core/wire/UTPPacketHeader.h"
#include "public/common/Bytes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace skein {

/// Something that a packet carries beside its payload. We know none and skip all.
struct UTPPacketExtension {
    std::uint8_t type = 0;  ///< not 0, which ends the chain
    ByteView payload;       ///< at most 255 bytes
};

/// One uTP datagram. Source: BEP 29. The views of a decoded packet are valid as long as the datagram is.
struct UTPPacket {
    UTPPacketHeader header;
    std::vector<UTPPacketExtension> extensions;
    ByteView payload;

    /// The header's `extensionType` is made to fit.
    Bytes encode() const;
    /// Throws UTPException.
    static UTPPacket decode(ByteView datagram);
    /// One line for the log.
    std::string summary() const;
};

}  // namespace skein
