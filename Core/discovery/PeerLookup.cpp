#include "Core/discovery/PeerLookup.h"

#include <algorithm>
#include <iterator>

namespace skein {

namespace {

/// Puts `node` into its place among `nodes`, which are sorted by distance and at most `limit`.
void insertSorted(std::vector<DHTNodeInfo>& nodes, const DHTNodeInfo& node, const NodeID& target, std::size_t limit) {
    const auto isCloser = [&](const DHTNodeInfo& left, const DHTNodeInfo& right) {
        return xorLess(target, left.id, right.id);
    };
    nodes.insert(std::upper_bound(nodes.begin(), nodes.end(), node, isCloser), node);
    if (nodes.size() > limit) nodes.pop_back();
}

}  // namespace

std::string_view textOf(LookupEnd end) noexcept {
    switch (end) {
        case LookupEnd::exhausted: return "exhausted";
        case LookupEnd::queryBudgetExhausted: return "query budget exhausted";
        case LookupEnd::timeout: return "timeout";
        case LookupEnd::cancelled: return "cancelled";
    }
    return "";
}

void PeerLookup::offer(const DHTNodeInfo& node) {
    const bool isFull = candidateNodes_.size() >= lookupMaxCandidates;
    if (isFull && !xorLess(infoHash_, node.id, candidateNodes_.back().id)) return;
    if (candidateEndpoints_.contains(node.endpoint()) || !candidateNodeIDs_.insert(node.id).second) return;
    candidateEndpoints_.insert(node.endpoint());
    insertSorted(candidateNodes_, node, infoHash_, lookupMaxCandidates);
    ++statistics_.nodesFound;
}

std::vector<DHTNodeInfo> PeerLookup::nextQueries(std::size_t atMost) {
    const std::size_t idle = lookupAlpha - std::min(lookupAlpha, inFlightNodes_.size());
    const std::size_t affordable = lookupMaxQueries - statistics_.queried;
    const auto count = static_cast<std::ptrdiff_t>(std::min({idle, affordable, candidateNodes_.size(), atMost}));
    const auto end = candidateNodes_.begin() + count;
    std::vector<DHTNodeInfo> next(std::make_move_iterator(candidateNodes_.begin()), std::make_move_iterator(end));
    candidateNodes_.erase(candidateNodes_.begin(), end);
    for (const DHTNodeInfo& node : next) inFlightNodes_.insert(node.id);
    statistics_.queried += next.size();
    if (!next.empty()) ++statistics_.rounds;
    return next;
}

std::vector<DHTEndpoint> PeerLookup::answered(const NodeID& node, const DHTNodeInfo& from,
                                              const std::vector<DHTEndpoint>& peers) {
    if (inFlightNodes_.erase(node) > 0) ++statistics_.responses;
    if (from.lastToken) keepToken(from);
    std::vector<DHTEndpoint> found;
    for (const DHTEndpoint& peer : peers)
        if (emittedPeers_.size() < maxPeers && emittedPeers_.insert(peer).second) found.push_back(peer);
    statistics_.peersFromLastResponse = found.size();
    statistics_.peersFound += found.size();
    return found;
}

void PeerLookup::timedOut(const NodeID& node) {
    if (inFlightNodes_.erase(node) > 0) ++statistics_.timeouts;
}

std::optional<LookupEnd> PeerLookup::endAt(TimePoint now) const noexcept {
    if (now >= deadline()) return LookupEnd::timeout;
    if (!inFlightNodes_.empty()) return std::nullopt;
    if (statistics_.queried >= lookupMaxQueries) return LookupEnd::queryBudgetExhausted;
    if (candidateNodes_.empty()) return LookupEnd::exhausted;
    return std::nullopt;
}

void PeerLookup::keepToken(const DHTNodeInfo& node) {
    std::erase_if(tokenHolders_, [&](const DHTNodeInfo& held) { return held.id == node.id; });
    insertSorted(tokenHolders_, node, infoHash_, maxTokenHolders);
}

}  // namespace skein
