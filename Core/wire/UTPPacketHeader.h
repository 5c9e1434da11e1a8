#pragma once

#include "public/common/Bytes.h"

#include <cstdint>
#include <string_view>

namespace skein {

enum class UTPPacketType : std::uint8_t { data = 0, fin = 1, state = 2, reset = 3, syn = 4 };

std::string_view displayNameOf(UTPPacketType type) noexcept;

/// The first 20 bytes of every uTP packet. Source: BEP 29, "header format".
struct UTPPacketHeader {
    static constexpr std::size_t byteCount = 20;
    static constexpr std::uint8_t currentVersion = 1;

    UTPPacketType type = UTPPacketType::data;
    std::uint8_t version = currentVersion;
    std::uint8_t extensionType = 0;  ///< of the first extension; 0 = there is none
    std::uint16_t connectionID = 0;
    std::uint32_t timestampMicroseconds = 0;
    std::uint32_t timestampDifferenceMicroseconds = 0;  ///< how long the peer's last packet took, clocks compared
    std::uint32_t windowSize = 0;                       ///< bytes that the sender of this has room for
    std::uint16_t sequenceNumber = 0;
    std::uint16_t acknowledgementNumber = 0;

    UTPPacketHeader withExtensionType(std::uint8_t newType) const;
    void appendTo(Bytes& to) const;
    /// Throws UTPException.
    static UTPPacketHeader decode(ByteView datagram);

    bool operator==(const UTPPacketHeader& other) const = default;
};

}  // namespace skein
