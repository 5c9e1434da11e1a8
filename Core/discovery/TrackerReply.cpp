#include "Core/discovery/TrackerReply.h"

#include "Core/discovery/TrackerError.h"
#include "Core/formats/BEncoder.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <string>
#include <utility>

namespace skein::TrackerReply {

namespace {

/// RFC 1035: a name has at most 255 bytes.
constexpr std::size_t longestHost = 255;
/// More of a tracker's message than this helps nobody to understand it.
constexpr std::size_t longestReason = 500;

template <std::size_t hostBytes, class Make>
std::vector<PeerAddress> parseCompact(ByteView bytes, Make make) {
    constexpr std::size_t entryBytes = hostBytes + 2;
    const std::size_t count = std::min(bytes.size() / entryBytes, maxPeers);
    std::vector<PeerAddress> peers;
    peers.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const ByteView entry = bytes.subspan(i * entryBytes, entryBytes);
        peers.push_back(make(entry.first<hostBytes>(), readBigEndian<std::uint16_t>(entry.subspan(hostBytes))));
    }
    return peers;
}

std::optional<PeerAddress> parseListedPeer(const BEncodeValue& element) {
    const auto host = element.stringAt("ip");
    const auto port = element.intAt("port");
    if (!host || !port || *port < 0 || *port > std::numeric_limits<std::uint16_t>::max()) return std::nullopt;
    const auto isPlain = [](char character) { return character > ' ' && character < 0x7F; };
    if (host->empty() || host->size() > longestHost || !std::all_of(host->begin(), host->end(), isPlain))
        return std::nullopt;
    return PeerAddress::fromHost(*host, static_cast<std::uint16_t>(*port));
}

std::vector<PeerAddress> parseListedPeers(const BEncodeValue::List& list) {
    std::vector<PeerAddress> peers;
    for (const BEncodeValue& element : list) {
        if (peers.size() == maxPeers) break;
        if (auto peer = parseListedPeer(element)) peers.push_back(*std::move(peer));
    }
    return peers;
}

/// The tracker's message, fit to be shown on a terminal.
std::string presentable(ByteView message) {
    const bool isUTF8 = isValidUTF8(message);
    std::string text(asText(message.first(std::min(message.size(), longestReason))));
    for (char& character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !isUTF8)) character = '?';
    }
    // Where the cut went through a character of several bytes.
    while (!text.empty() && !isValidUTF8(toBytes(text))) text.pop_back();
    return text;
}

std::int64_t countAt(const BEncodeValue& reply, std::string_view key) {
    return std::max<std::int64_t>(reply.intAt(key).value_or(0), 0);
}

std::int64_t sensibleInterval(std::int64_t seconds) { return seconds < 0 ? defaultInterval : seconds; }

/// A 32-bit number of a UDP reply; they are signed.
std::int64_t numberAt(ByteView datagram, std::size_t offset) {
    return static_cast<std::int32_t>(readBigEndian<std::uint32_t>(datagram.subspan(offset)));
}

BEncodeValue decodeDictionary(ByteView body) try {
    BEncodeValue reply = BEncoder::decode(body);
    if (reply.dictionaryValue() == nullptr) throw TrackerException(TrackerError::invalidResponse);
    return reply;
} catch (const BEncodeException&) {
    throw TrackerException(TrackerError::invalidResponse);
}

}  // namespace

std::vector<PeerAddress> parseCompactIPv4Peers(ByteView bytes) {
    return parseCompact<4>(bytes, &PeerAddress::fromIPv4);
}

std::vector<PeerAddress> parseCompactIPv6Peers(ByteView bytes) {
    return parseCompact<16>(bytes, &PeerAddress::fromIPv6);
}

HTTPAnnounceReply parseHTTPAnnounceReply(ByteView body) {
    const BEncodeValue reply = decodeDictionary(body);
    if (const auto reason = reply.dataAt("failure reason"))
        throw TrackerException(TrackerError::trackerError, presentable(*reason));
    HTTPAnnounceReply parsed;
    TrackerAnnounceResult& result = parsed.result;
    result.interval = sensibleInterval(reply.intAt("interval").value_or(defaultInterval));
    result.complete = countAt(reply, "complete");
    result.incomplete = countAt(reply, "incomplete");
    if (const auto compact = reply.dataAt("peers")) result.peers = parseCompactIPv4Peers(*compact);
    if (const auto* list = reply.listAt("peers")) result.peers = parseListedPeers(*list);
    if (const auto compact = reply.dataAt("peers6")) {
        std::vector<PeerAddress> more = parseCompactIPv6Peers(*compact);
        parsed.peers6 = more.size();
        std::move(more.begin(), more.end(), std::back_inserter(result.peers));
    }
    return parsed;
}

std::uint64_t parseUDPConnectReply(ByteView datagram) {
    if (datagram.size() < 16) throw TrackerException(TrackerError::invalidResponse);
    return readBigEndian<std::uint64_t>(datagram.subspan(8));
}

TrackerAnnounceResult parseUDPAnnounceReply(ByteView datagram, PeerAddressFamily family) {
    if (datagram.size() < 20) throw TrackerException(TrackerError::invalidResponse);
    TrackerAnnounceResult result;
    result.interval = sensibleInterval(numberAt(datagram, 8));
    result.incomplete = std::max<std::int64_t>(numberAt(datagram, 12), 0);
    result.complete = std::max<std::int64_t>(numberAt(datagram, 16), 0);
    const ByteView peers = datagram.subspan(20);
    result.peers = family == PeerAddressFamily::ipv6 ? parseCompactIPv6Peers(peers) : parseCompactIPv4Peers(peers);
    return result;
}

}  // namespace skein::TrackerReply
