#include "Core/discovery/CompactNodes.h"

#include <algorithm>

namespace skein::CompactNodes {

namespace {

template <class AddressBytes>
DHTEndpoint endpointIn(ByteView bytes) {
    AddressBytes address{};
    std::copy_n(bytes.begin(), address.size(), address.begin());
    return {IPAddress(address), readBigEndian<std::uint16_t>(bytes.subspan(address.size()))};
}

template <class AddressBytes>
std::vector<DHTNodeInfo> parseNodes(ByteView bytes) {
    constexpr std::size_t entryBytes = sizeof(NodeID) + sizeof(AddressBytes) + sizeof(std::uint16_t);
    std::vector<DHTNodeInfo> nodes;
    nodes.reserve(bytes.size() / entryBytes);
    for (; bytes.size() >= entryBytes; bytes = bytes.subspan(entryBytes)) {
        const DHTEndpoint endpoint = endpointIn<AddressBytes>(bytes.subspan(sizeof(NodeID)));
        DHTNodeInfo node{{}, endpoint.host, endpoint.port, DHTNodeInfo::neverSeen, std::nullopt};
        std::copy_n(bytes.begin(), node.id.size(), node.id.begin());
        nodes.push_back(std::move(node));
    }
    return nodes;
}

}  // namespace

std::vector<DHTNodeInfo> parseCompactNodes(ByteView bytes) { return parseNodes<IPAddress::V4Bytes>(bytes); }

std::vector<DHTNodeInfo> parseCompactIPv6Nodes(ByteView bytes) { return parseNodes<IPAddress::V6Bytes>(bytes); }

std::optional<DHTEndpoint> parseCompactPeer(ByteView bytes) {
    if (bytes.size() == peerBytes) return endpointIn<IPAddress::V4Bytes>(bytes);
    if (bytes.size() == peerBytesIPv6) return endpointIn<IPAddress::V6Bytes>(bytes);
    return std::nullopt;
}

Bytes encodeCompactNodes(std::span<const DHTNodeInfo> nodes) {
    Bytes bytes;
    bytes.reserve(nodes.size() * nodeBytes);
    for (const DHTNodeInfo& node : nodes) {
        if (!node.host.isIPv4()) continue;
        append(bytes, node.id);
        append(bytes, node.host.bytes());
        appendBigEndian(bytes, node.port);
    }
    return bytes;
}

}  // namespace skein::CompactNodes
