#include "Core/discovery/RoutingTable.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace {

template <class Nodes>
auto findByID(Nodes& nodes, const NodeID& id) {
    return std::find_if(nodes.begin(), nodes.end(), [&](const DHTNodeInfo& node) { return node.id == id; });
}

}  // namespace

void RoutingTable::addNode(DHTNodeInfo node) {
    if (node.id == localID_) return;
    if (const auto known = findByID(nodes_, node.id); known != nodes_.end()) {
        known->host = node.host;
        known->port = node.port;
        known->lastSeen = node.lastSeen;
    } else if (nodes_.size() < maxNodes) {
        nodes_.push_back(std::move(node));
    } else {
        const auto isOlder = [](const DHTNodeInfo& left, const DHTNodeInfo& right) {
            return left.lastSeen < right.lastSeen;
        };
        *std::min_element(nodes_.begin(), nodes_.end(), isOlder) = std::move(node);
    }
}

std::vector<DHTNodeInfo> RoutingTable::closestNodes(const NodeID& target, std::size_t count) const {
    std::vector<const DHTNodeInfo*> sorted;
    sorted.reserve(nodes_.size());
    for (const DHTNodeInfo& node : nodes_) sorted.push_back(&node);
    const auto end = sorted.begin() + static_cast<std::ptrdiff_t>(std::min(count, sorted.size()));
    std::partial_sort(sorted.begin(), end, sorted.end(),
                      [&](auto* left, auto* right) { return xorLess(target, left->id, right->id); });
    std::vector<DHTNodeInfo> closest;
    closest.reserve(static_cast<std::size_t>(end - sorted.begin()));
    for (auto node = sorted.begin(); node != end; ++node) closest.push_back(**node);
    return closest;
}

void RoutingTable::setToken(ByteView token, const NodeID& id) {
    const auto known = findByID(nodes_, id);
    if (known != nodes_.end()) known->lastToken.emplace(token.begin(), token.end());
}

const DHTNodeInfo* RoutingTable::find(const NodeID& id) const noexcept {
    const auto known = findByID(nodes_, id);
    return known == nodes_.end() ? nullptr : &*known;
}

void RoutingTable::removeNode(const NodeID& id) {
    if (const auto known = findByID(nodes_, id); known != nodes_.end()) nodes_.erase(known);
}

}  // namespace skein
