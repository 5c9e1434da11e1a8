#include "Core/wire/PeerHandshake.h"

#include <algorithm>

namespace skein {

namespace {

constexpr std::string_view protocolName = "BitTorrent protocol";
constexpr std::size_t extensionByte = 25;
constexpr std::uint8_t extensionBit = 0x10;
constexpr std::size_t infoHashOffset = 28;
constexpr std::size_t peerIDOffset = 48;
constexpr std::size_t dumpedBytes = 32;

std::string printable(ByteView bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) text.push_back(byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.');
    return text;
}

}  // namespace

PeerHandshake::Encoded PeerHandshake::encode() const {
    Encoded bytes{};
    bytes[0] = static_cast<std::uint8_t>(protocolName.size());
    std::copy(protocolName.begin(), protocolName.end(), bytes.begin() + 1);
    if (supportsExtended) bytes[extensionByte] = extensionBit;
    std::copy(infoHash.begin(), infoHash.end(), bytes.begin() + infoHashOffset);
    std::copy(peerID.begin(), peerID.end(), bytes.begin() + peerIDOffset);
    return bytes;
}

Bytes PeerHandshake::opening() {
    Bytes bytes{static_cast<std::uint8_t>(protocolName.size())};
    append(bytes, asBytes(protocolName));
    return bytes;
}

std::optional<std::string> PeerHandshake::faultOf(ByteView bytes) {
    const ByteView head = bytes.first(std::min(bytes.size(), dumpedBytes));
    if (bytes[0] != protocolName.size())
        return " bad pstrlen=" + std::to_string(bytes[0]) + " head=" + toHex(head) + " ascii=\"" + printable(head) +
               "\"";
    const ByteView name = bytes.subspan(1, protocolName.size());
    if (asText(name) != protocolName) return " bad pstr=\"" + printable(name) + "\" head=" + toHex(head);
    return std::nullopt;
}

PeerHandshake PeerHandshake::decode(ByteView bytes) {
    PeerHandshake handshake;
    std::copy_n(bytes.begin() + infoHashOffset, handshake.infoHash.size(), handshake.infoHash.begin());
    std::copy_n(bytes.begin() + peerIDOffset, handshake.peerID.size(), handshake.peerID.begin());
    handshake.supportsExtended = (bytes[extensionByte] & extensionBit) != 0;
    return handshake;
}

}  // namespace skein
