#include "Core/discovery/KRPCMessage.h"

#include "Core/discovery/CompactNodes.h"
#include "Core/formats/BEncoder.h"

#include <iterator>
#include <utility>

namespace skein {

namespace {

std::optional<KRPCMessage::Kind> kindNamed(std::optional<ByteView> name) noexcept {
    if (!name || name->size() != 1) return std::nullopt;
    switch ((*name)[0]) {
        case 'q': return KRPCMessage::Kind::query;
        case 'r': return KRPCMessage::Kind::response;
        case 'e': return KRPCMessage::Kind::error;
        default: return std::nullopt;
    }
}

Bytes query(ByteView transactionID, const char* method, BEncodeValue::Dictionary arguments) {
    return BEncoder::encode(
        BEncodeValue::Dictionary{{"t", transactionID}, {"y", "q"}, {"q", method}, {"a", std::move(arguments)}});
}

/// BEP 32: nodes of both families are welcome, whatever the query came over.
BEncodeValue bothFamilies() { return BEncodeValue::List{"n4", "n6"}; }

}  // namespace

std::optional<KRPCMessage> KRPCMessage::decode(ByteView datagram) try {
    // Most of what is not meant for us is told apart here, without the cost of an exception.
    if (datagram.empty() || datagram.front() != 'd') return std::nullopt;
    BEncodeValue root = BEncoder::decode(datagram);
    const auto transaction = root.dataAt("t");
    const auto kind = kindNamed(root.dataAt("y"));
    if (!transaction || transaction->empty() || transaction->size() > maxTransactionIDBytes || !kind)
        return std::nullopt;
    return KRPCMessage(std::move(root), *kind);
} catch (const BEncodeException&) {
    return std::nullopt;
}

const BEncodeValue* KRPCMessage::body() const noexcept { return root_[kind_ == Kind::query ? "a" : "r"]; }

std::optional<NodeID> KRPCMessage::idAt(std::string_view key) const noexcept {
    const BEncodeValue* values = body();
    const auto bytes = values != nullptr ? values->dataAt(key) : std::nullopt;
    return bytes ? nodeIDFrom(*bytes) : std::nullopt;
}

std::vector<DHTNodeInfo> KRPCMessage::nodes() const {
    std::vector<DHTNodeInfo> nodes;
    const BEncodeValue* values = body();
    if (values == nullptr) return nodes;
    if (const auto compact = values->dataAt("nodes")) nodes = CompactNodes::parseCompactNodes(*compact);
    if (const auto compact = values->dataAt("nodes6")) {
        std::vector<DHTNodeInfo> more = CompactNodes::parseCompactIPv6Nodes(*compact);
        std::move(more.begin(), more.end(), std::back_inserter(nodes));
    }
    return nodes;
}

std::vector<DHTEndpoint> KRPCMessage::peers() const {
    std::vector<DHTEndpoint> peers;
    const BEncodeValue* values = body();
    const BEncodeValue::List* list = values != nullptr ? values->listAt("values") : nullptr;
    if (list == nullptr) return peers;
    for (const BEncodeValue& element : *list) {
        const auto compact = element.dataValue();
        const auto peer = compact ? CompactNodes::parseCompactPeer(*compact) : std::nullopt;
        if (peer) peers.push_back(*peer);
    }
    return peers;
}

std::optional<ByteView> KRPCMessage::token() const noexcept {
    const BEncodeValue* values = body();
    const auto token = values != nullptr ? values->dataAt("token") : std::nullopt;
    if (!token || token->empty() || token->size() > maxTokenBytes) return std::nullopt;
    return token;
}

namespace KRPC {

Bytes findNode(ByteView transactionID, const NodeID& own, const NodeID& target) {
    return query(transactionID, "find_node",
                 {{"id", ByteView(own)}, {"target", ByteView(target)}, {"want", bothFamilies()}});
}

Bytes getPeers(ByteView transactionID, const NodeID& own, const NodeID& infoHash) {
    return query(transactionID, "get_peers",
                 {{"id", ByteView(own)}, {"info_hash", ByteView(infoHash)}, {"want", bothFamilies()}});
}

Bytes announcePeer(ByteView transactionID, const NodeID& own, const NodeID& infoHash, std::uint16_t port,
                   ByteView token) {
    return query(transactionID, "announce_peer",
                 {{"id", ByteView(own)},
                  {"info_hash", ByteView(infoHash)},
                  {"port", port},
                  {"token", token},
                  {"implied_port", 1}});
}

Bytes buildResponse(ByteView transactionID, BEncodeValue::Dictionary values) {
    return BEncoder::encode(BEncodeValue::Dictionary{{"t", transactionID}, {"y", "r"}, {"r", std::move(values)}});
}

}  // namespace KRPC

}  // namespace skein
