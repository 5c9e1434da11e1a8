#include "Core/discovery/TrackerRequest.h"

#include <algorithm>
#include <cassert>

namespace skein::TrackerRequest {

namespace {

constexpr std::uint64_t protocolID = 0x41727101980;
constexpr std::uint32_t connectAction = 0;
constexpr std::uint32_t announceAction = 1;
constexpr std::size_t peerIDLength = 20;

bool isUnreserved(std::uint8_t byte) noexcept {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
           byte == '-' || byte == '_' || byte == '.' || byte == '~';
}

std::uint64_t count(std::int64_t bytes) noexcept {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(bytes, 0));
}

}  // namespace

std::string percentEncode(ByteView bytes) {
    std::string text;
    text.reserve(bytes.size() * 3);
    for (const std::uint8_t byte : bytes) {
        if (isUnreserved(byte)) {
            text += static_cast<char>(byte);
        } else {
            text += '%';
            text += toUpperHex(ByteView(&byte, 1));
        }
    }
    return text;
}

std::string httpURL(const TrackerURL& tracker, const TrackerAnnounce& announce, ByteView peerID, std::uint16_t port) {
    std::string query = "info_hash=" + percentEncode(announce.infoHash);
    query += "&peer_id=" + percentEncode(peerID);
    query += "&port=" + std::to_string(port);
    query += "&uploaded=" + std::to_string(count(announce.uploaded));
    query += "&downloaded=" + std::to_string(count(announce.downloaded));
    query += "&left=" + std::to_string(count(announce.left));
    query += "&compact=1&ipv6=1";
    if (announce.event != TrackerEvent::empty) query.append("&event=").append(textOf(announce.event));
    return tracker.withQuery(query);
}

Bytes udpConnect(std::uint32_t transaction) {
    Bytes packet;
    packet.reserve(16);
    appendBigEndian(packet, protocolID);
    appendBigEndian(packet, connectAction);
    appendBigEndian(packet, transaction);
    return packet;
}

Bytes udpAnnounce(const UDPAnnounceNumbers& numbers, const TrackerAnnounce& announce, ByteView peerID,
                  std::uint16_t port) {
    assert(peerID.size() == peerIDLength);
    Bytes packet;
    packet.reserve(98);
    appendBigEndian(packet, numbers.connection);
    appendBigEndian(packet, announceAction);
    appendBigEndian(packet, numbers.transaction);
    append(packet, announce.infoHash);
    append(packet, peerID.first(peerIDLength));
    appendBigEndian(packet, count(announce.downloaded));
    appendBigEndian(packet, count(announce.left));
    appendBigEndian(packet, count(announce.uploaded));
    appendBigEndian(packet, udpCodeOf(announce.event));
    appendBigEndian(packet, std::uint32_t{0});  // the address: that of the datagram
    appendBigEndian(packet, numbers.key);
    appendBigEndian(packet, ~std::uint32_t{0});  // as many peers as the tracker likes
    appendBigEndian(packet, port);
    return packet;
}

}  // namespace skein::TrackerRequest
