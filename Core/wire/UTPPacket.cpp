#include "Core/wire/UTPPacket.h"

#include "Core/wire/UTPException.h"

#include <cassert>

namespace skein {

Bytes UTPPacket::encode() const {
    Bytes datagram;
    datagram.reserve(UTPPacketHeader::byteCount + payload.size());
    header.withExtensionType(extensions.empty() ? std::uint8_t{0} : extensions.front().type).appendTo(datagram);
    for (std::size_t i = 0; i < extensions.size(); ++i) {
        const UTPPacketExtension& extension = extensions[i];
        assert(extension.type != 0 && extension.payload.size() <= 255);
        datagram.push_back(i + 1 < extensions.size() ? extensions[i + 1].type : std::uint8_t{0});
        datagram.push_back(static_cast<std::uint8_t>(extension.payload.size()));
        append(datagram, extension.payload);
    }
    append(datagram, payload);
    return datagram;
}

UTPPacket UTPPacket::decode(ByteView datagram) {
    UTPPacket packet;
    packet.header = UTPPacketHeader::decode(datagram);
    ByteView rest = datagram.subspan(UTPPacketHeader::byteCount);
    for (std::uint8_t type = packet.header.extensionType; type != 0;) {
        if (rest.size() < 2 || rest.size() - 2 < rest[1]) throw UTPException("Invalid uTP packet: truncated extension");
        packet.extensions.push_back({type, rest.subspan(2, rest[1])});
        type = rest[0];
        rest = rest.subspan(std::size_t{2} + rest[1]);
    }
    packet.payload = rest;
    return packet;
}

std::string UTPPacket::summary() const {
    std::string text(displayNameOf(header.type));
    text += " cid=" + std::to_string(header.connectionID);
    text += " seq=" + std::to_string(header.sequenceNumber);
    text += " ack=" + std::to_string(header.acknowledgementNumber);
    text += " wnd=" + std::to_string(header.windowSize);
    return text;
}

}  // namespace skein
