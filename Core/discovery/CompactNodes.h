#pragma once

#include "Core/discovery/DHTEndpoint.h"
#include "Core/discovery/DHTNodeInfo.h"
#include "public/common/Bytes.h"

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

/// Nodes and peers as they stand in messages. What is incomplete at the end is ignored. Source: BEP 5, BEP 32.
namespace skein::CompactNodes {

inline constexpr std::size_t nodeBytes = 26;      ///< id, IPv4 address, port
inline constexpr std::size_t nodeBytesIPv6 = 38;  ///< id, IPv6 address, port
inline constexpr std::size_t peerBytes = 6;
inline constexpr std::size_t peerBytesIPv6 = 18;

std::vector<DHTNodeInfo> parseCompactNodes(ByteView bytes);
std::vector<DHTNodeInfo> parseCompactIPv6Nodes(ByteView bytes);
/// 6 or 18 bytes; nothing for any other length.
std::optional<DHTEndpoint> parseCompactPeer(ByteView bytes);
/// The IPv4 ones among `nodes`.
Bytes encodeCompactNodes(std::span<const DHTNodeInfo> nodes);

}  // namespace skein::CompactNodes
