#pragma once

#include "Core/discovery/DHTNodeInfo.h"
#include "Core/discovery/NodeID.h"
#include "public/common/Bytes.h"

#include <cstddef>
#include <vector>

namespace skein {

/// The nodes that we know. One flat list: what a node that mostly asks needs is a fresh start for its look-ups, not a
/// map of the whole network in buckets. A plain value; not locked.
class RoutingTable {
public:
    static constexpr std::size_t maxNodes = 256;

    explicit RoutingTable(const NodeID& localID) : localID_(localID) {}

    const NodeID& localID() const noexcept { return localID_; }
    const std::vector<DHTNodeInfo>& nodes() const noexcept { return nodes_; }

    /// Updates the node of this id in place (its token stays), or appends it, or, when the table is full, puts it in
    /// the place of the one seen longest ago. Our own id is never added.
    void addNode(DHTNodeInfo node);
    /// The first `count` by distance.
    std::vector<DHTNodeInfo> closestNodes(const NodeID& target, std::size_t count) const;
    /// Remembers what the node of this id gave us; an unknown one is ignored.
    void setToken(ByteView token, const NodeID& id);
    /// Valid until the table changes; null when the id is unknown.
    const DHTNodeInfo* find(const NodeID& id) const noexcept;
    void removeNode(const NodeID& id);

private:
    NodeID localID_;
    std::vector<DHTNodeInfo> nodes_;
};

}  // namespace skein
