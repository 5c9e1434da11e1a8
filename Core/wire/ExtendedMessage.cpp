#include "Core/wire/ExtendedMessage.h"

#include "Core/formats/BEncoder.h"

namespace skein {

namespace {

constexpr std::size_t ipv4EntrySize = 6;
constexpr std::size_t ipv6EntrySize = 18;

std::optional<BEncoder::DecodedPrefix> decodePrefix(ByteView payload) {
    try {
        return BEncoder::decodeWithConsumedLength(payload);
    } catch (const BEncodeException&) {
        return std::nullopt;
    }
}

std::uint16_t portAt(ByteView bytes) { return static_cast<std::uint16_t>(bytes[0] << 8U | bytes[1]); }

void parseCompactIPv4Peers(ByteView list, std::size_t limit, std::vector<PeerAddress>& peers) {
    for (; list.size() >= ipv4EntrySize && peers.size() < limit; list = list.subspan(ipv4EntrySize))
        peers.push_back(PeerAddress::fromIPv4(list.first<4>(), portAt(list.subspan(4))));
}

void parseCompactIPv6Peers(ByteView list, std::size_t limit, std::vector<PeerAddress>& peers) {
    for (; list.size() >= ipv6EntrySize && peers.size() < limit; list = list.subspan(ipv6EntrySize))
        peers.push_back(PeerAddress::fromIPv6(list.first<16>(), portAt(list.subspan(16))));
}

}  // namespace

std::optional<ExtendedHandshake> ExtendedHandshake::decode(ByteView payload) {
    const auto decoded = decodePrefix(payload);
    if (!decoded || decoded->value.kind() != BEncodeValue::Kind::dictionary) return std::nullopt;
    ExtendedHandshake handshake;
    if (const BEncodeValue* const extensions = decoded->value["m"]) {
        handshake.metadataID = extensions->intAt("ut_metadata");
        handshake.pexID = extensions->intAt("ut_pex");
    }
    handshake.metadataSize = decoded->value.intAt("metadata_size");
    handshake.requestQueue = decoded->value.intAt("reqq");
    return handshake;
}

Bytes ExtendedHandshake::encode() const {
    BEncodeValue::Dictionary extensions;
    if (metadataID) extensions.emplace_back("ut_metadata", *metadataID);
    if (pexID) extensions.emplace_back("ut_pex", *pexID);
    BEncodeValue::Dictionary handshake{{"m", std::move(extensions)}};
    if (metadataSize) handshake.emplace_back("metadata_size", *metadataSize);
    return BEncoder::encode(handshake);
}

std::optional<MetadataMessage> MetadataMessage::decode(ByteView payload) {
    const auto decoded = decodePrefix(payload);
    if (!decoded) return std::nullopt;
    return MetadataMessage{decoded->value.intAt("msg_type"), decoded->value.intAt("piece"),
                           payload.subspan(decoded->consumed)};
}

Bytes MetadataMessage::encodeRequest(std::int64_t piece) {
    return BEncoder::encode(BEncodeValue::Dictionary{{"msg_type", request}, {"piece", piece}});
}

Bytes MetadataMessage::encodeReject(std::int64_t piece) {
    return BEncoder::encode(BEncodeValue::Dictionary{{"msg_type", reject}, {"piece", piece}});
}

Bytes MetadataMessage::encodeData(std::int64_t piece, std::int64_t totalSize, ByteView bytes) {
    Bytes message =
        BEncoder::encode(BEncodeValue::Dictionary{{"msg_type", data}, {"piece", piece}, {"total_size", totalSize}});
    append(message, bytes);
    return message;
}

std::vector<PeerAddress> pex::decode(ByteView payload, std::size_t limit) {
    std::vector<PeerAddress> peers;
    const auto decoded = decodePrefix(payload);
    if (!decoded) return peers;
    if (const auto list = decoded->value.dataAt("added")) parseCompactIPv4Peers(*list, limit, peers);
    if (const auto list = decoded->value.dataAt("added6")) parseCompactIPv6Peers(*list, limit, peers);
    return peers;
}

}  // namespace skein
