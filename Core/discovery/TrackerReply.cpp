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

/// BEP 15: a datagram begins with its action and its transaction, the requests with eight bytes before these.
constexpr std::uint32_t connectAction = 0;
constexpr std::uint32_t announceAction = 1;
constexpr std::uint32_t errorAction = 3;
constexpr std::size_t headerBytes = 8;
constexpr std::size_t headerOfRequest = 8;

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

std::int64_t sensibleCount(std::int64_t count) { return std::clamp<std::int64_t>(count, 0, largestCount); }

std::int64_t sensibleInterval(std::int64_t seconds) {
    return seconds < 0 ? defaultInterval : std::min(seconds, longestInterval);
}

std::int64_t countAt(const BEncodeValue& reply, std::string_view key) {
    return sensibleCount(reply.intAt(key).value_or(0));
}

/// A 32-bit number of a UDP reply; they are signed.
std::int64_t numberAt(ByteView datagram, std::size_t offset) {
    return static_cast<std::int32_t>(readBigEndian<std::uint32_t>(datagram.subspan(offset)));
}

/// Throws what is wrong with a UDP reply that should be of `action` and have `leastBytes`.
void refuseUnless(std::uint32_t action, std::size_t leastBytes, ByteView datagram) {
    if (datagram.size() < headerBytes) throw TrackerException(TrackerError::invalidResponse);
    const auto given = readBigEndian<std::uint32_t>(datagram);
    if (given == errorAction)
        throw TrackerException(TrackerError::trackerError, presentable(datagram.subspan(headerBytes)));
    if (given != action || datagram.size() < leastBytes) throw TrackerException(TrackerError::invalidResponse);
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

bool isAnswerTo(ByteView request, ByteView datagram) {
    if (datagram.size() < headerBytes) return false;
    const ByteView asked = request.subspan(headerOfRequest, headerBytes);
    const auto action = readBigEndian<std::uint32_t>(datagram);
    if (action != errorAction && action != readBigEndian<std::uint32_t>(asked)) return false;
    return readBigEndian<std::uint32_t>(datagram.subspan(4)) == readBigEndian<std::uint32_t>(asked.subspan(4));
}

std::uint64_t parseUDPConnectReply(ByteView datagram) {
    refuseUnless(connectAction, 16, datagram);
    return readBigEndian<std::uint64_t>(datagram.subspan(8));
}

TrackerAnnounceResult parseUDPAnnounceReply(ByteView datagram, PeerAddressFamily family) {
    refuseUnless(announceAction, 20, datagram);
    TrackerAnnounceResult result;
    result.interval = sensibleInterval(numberAt(datagram, 8));
    result.incomplete = sensibleCount(numberAt(datagram, 12));
    result.complete = sensibleCount(numberAt(datagram, 16));
    const ByteView peers = datagram.subspan(20);
    result.peers = family == PeerAddressFamily::ipv6 ? parseCompactIPv6Peers(peers) : parseCompactIPv4Peers(peers);
    return result;
}

}  // namespace skein::TrackerReply
