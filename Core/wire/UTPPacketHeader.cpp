#include "Core/wire/UTPPacketHeader.h"

#include "Core/wire/UTPException.h"

namespace skein {

std::string_view displayNameOf(UTPPacketType type) noexcept {
    switch (type) {
        case UTPPacketType::data: return "ST_DATA";
        case UTPPacketType::fin: return "ST_FIN";
        case UTPPacketType::state: return "ST_STATE";
        case UTPPacketType::reset: return "ST_RESET";
        case UTPPacketType::syn: return "ST_SYN";
    }
    return "";
}

UTPPacketHeader UTPPacketHeader::withExtensionType(std::uint8_t newType) const {
    UTPPacketHeader copy = *this;
    copy.extensionType = newType;
    return copy;
}

void UTPPacketHeader::appendTo(Bytes& to) const {
    to.push_back(static_cast<std::uint8_t>(static_cast<unsigned>(type) << 4U | version));
    to.push_back(extensionType);
    appendBigEndian(to, connectionID);
    appendBigEndian(to, timestampMicroseconds);
    appendBigEndian(to, timestampDifferenceMicroseconds);
    appendBigEndian(to, windowSize);
    appendBigEndian(to, sequenceNumber);
    appendBigEndian(to, acknowledgementNumber);
}

UTPPacketHeader UTPPacketHeader::decode(ByteView datagram) {
    if (datagram.size() < byteCount) throw UTPException("Invalid uTP packet: shorter than a header");
    if ((datagram[0] & 15U) != currentVersion) throw UTPException("Invalid uTP packet: unknown version");
    if (datagram[0] >> 4U > static_cast<unsigned>(UTPPacketType::syn))
        throw UTPException("Invalid uTP packet: unknown type");
    UTPPacketHeader header;
    header.type = static_cast<UTPPacketType>(datagram[0] >> 4U);
    header.extensionType = datagram[1];
    header.connectionID = readBigEndian<std::uint16_t>(datagram.subspan(2));
    header.timestampMicroseconds = readBigEndian<std::uint32_t>(datagram.subspan(4));
    header.timestampDifferenceMicroseconds = readBigEndian<std::uint32_t>(datagram.subspan(8));
    header.windowSize = readBigEndian<std::uint32_t>(datagram.subspan(12));
    header.sequenceNumber = readBigEndian<std::uint16_t>(datagram.subspan(16));
    header.acknowledgementNumber = readBigEndian<std::uint16_t>(datagram.subspan(18));
    return header;
}

}  // namespace skein
