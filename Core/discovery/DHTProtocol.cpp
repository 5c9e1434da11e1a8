#include "Core/discovery/DHTProtocol.h"

#include "Core/discovery/CompactNodes.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace skein {

namespace {

NodeID randomID(Random& random) {
    NodeID id{};
    random.fill(id);
    return id;
}

}  // namespace

DHTProtocol::DHTProtocol(Random& random, Host& host)
    : host_(host), routingTable_(randomID(random)), transactions_(random) {}

void DHTProtocol::receive(ByteView datagram, const DHTEndpoint& from, TimePoint now) {
    const auto message = KRPCMessage::decode(datagram);
    if (!message) return;
    switch (message->kind()) {
        case KRPCMessage::Kind::query: handleQuery(*message, from, now); break;
        case KRPCMessage::Kind::response: handleResponse(*message, from, now); break;
        case KRPCMessage::Kind::error: handleError(*message, from, now); break;
    }
    beginWaiting(now);
}

void DHTProtocol::expire(TimePoint now) {
    while (const auto context = transactions_.takeExpired(now)) handleTransactionTimeout(*context, now);
    for (auto lookup = activeLookups_.begin(); lookup != activeLookups_.end();) advance(lookup++, now);
    beginWaiting(now);
}

std::optional<DHTProtocol::TimePoint> DHTProtocol::deadline() const noexcept {
    std::optional<TimePoint> first = transactions_.deadline();
    for (const auto& [infoHash, lookup] : activeLookups_)
        first = std::min(first.value_or(TimePoint::max()), lookup.deadline());
    return first;
}

bool DHTProtocol::needsBootstrap(TimePoint now) const noexcept {
    const auto& nodes = routingTable_.nodes();
    return std::none_of(nodes.begin(), nodes.end(),
                        [&](const DHTNodeInfo& node) { return node.lastSeen + goodFor >= now; });
}

void DHTProtocol::handleQuery(const KRPCMessage& query, const DHTEndpoint& from, TimePoint now) {
    const std::string_view method = query.method();
    const auto target = query.target();
    const bool isFindNode = method == "find_node" && target;
    if (!from.isUsable() || !query.senderID() || (method != "ping" && !isFindNode)) return;
    if (!replies_.admits(now)) return;
    BEncodeValue::Dictionary values{{"id", ByteView(nodeID())}};
    if (isFindNode) values.emplace_back("nodes", CompactNodes::encodeCompactNodes(nodesToName(*target, from)));
    host_.send(from, KRPC::buildResponse(query.transactionID(), std::move(values)));
}

/// The compact form of a reply has room for IPv4 alone, and nobody outside learns of the nodes of our own site.
std::vector<DHTNodeInfo> DHTProtocol::nodesToName(const NodeID& target, const DHTEndpoint& asker) const {
    std::vector<DHTNodeInfo> nodes = routingTable_.closestNodes(target, RoutingTable::maxNodes);
    std::erase_if(nodes, [&](const DHTNodeInfo& node) {
        return !node.host.isIPv4() || (node.endpoint().isLocal() && !asker.isLocal());
    });
    if (nodes.size() > closestCount) nodes.erase(nodes.begin() + closestCount, nodes.end());
    return nodes;
}

void DHTProtocol::handleResponse(const KRPCMessage& response, const DHTEndpoint& from, TimePoint now) {
    const auto id = response.senderID();
    if (!id) return;
    const auto context = transactions_.take(response.transactionID(), from);
    if (!context) return;
    DHTNodeInfo responder{*id, from.host, from.port, now, std::nullopt};
    if (const auto token = response.token()) responder.lastToken.emplace(token->begin(), token->end());
    // The node behind this endpoint has another id by now.
    if (context->nodeID && *context->nodeID != *id) forget(*context->nodeID, from, TimePoint::max());
    learnResponder(responder, now);
    const std::vector<DHTNodeInfo> nodes = credibleNodes(response, from);
    for (const DHTNodeInfo& node : nodes) learnHearsay(node);

    if (context->type == QueryType::announcePeer) settleAnnounce(true);
    const auto lookup =
        context->type == QueryType::getPeers ? activeLookups_.find(*context->infoHash) : activeLookups_.end();
    if (lookup != activeLookups_.end()) {
        std::vector<DHTEndpoint> peers = response.peers();
        std::erase_if(peers, [&](const DHTEndpoint& peer) { return !from.mayName(peer); });
        for (const DHTNodeInfo& node : nodes) lookup->second.offer(node);
        for (const DHTEndpoint& peer : lookup->second.answered(context->nodeID.value_or(*id), responder, peers))
            host_.foundPeer(lookup->first, peer);
        advance(lookup, now);
    }
}

void DHTProtocol::handleError(const KRPCMessage& error, const DHTEndpoint& from, TimePoint now) {
    const auto context = transactions_.take(error.transactionID(), from);
    if (!context) return;
    if (context->type == QueryType::announcePeer) settleAnnounce(false);
    const auto lookup =
        context->type == QueryType::getPeers ? activeLookups_.find(*context->infoHash) : activeLookups_.end();
    if (lookup != activeLookups_.end()) {
        lookup->second.failed(*context->nodeID);
        advance(lookup, now);
    }
}

void DHTProtocol::handleTransactionTimeout(const TransactionContext& context, TimePoint now) {
    // One that was good a while ago may have lost a datagram; the others only cost look-ups their time.
    if (context.nodeID) forget(*context.nodeID, context.node, now - goodFor);
    if (context.type == QueryType::announcePeer) settleAnnounce(false);
    if (context.type != QueryType::getPeers) return;
    const auto lookup = activeLookups_.find(*context.infoHash);
    if (lookup != activeLookups_.end()) lookup->second.timedOut(*context.nodeID);
}

void DHTProtocol::settleAnnounce(bool hasSucceeded) {
    ++(hasSucceeded ? announces_.succeeded : announces_.failed);
    host_.announceSettled();
}

std::vector<DHTNodeInfo> DHTProtocol::credibleNodes(const KRPCMessage& response, const DHTEndpoint& from) const {
    std::vector<DHTNodeInfo> nodes = response.nodes();
    std::erase_if(nodes, [&](const DHTNodeInfo& node) {
        return node.id == nodeID() || !from.mayName(node.endpoint()) || !host_.canReach(node.host);
    });
    if (nodes.size() > maxNodesPerResponse) nodes.erase(nodes.begin() + maxNodesPerResponse, nodes.end());
    return nodes;
}

/// An id that answered lately from elsewhere stays where it is: nobody takes over the place of a node by its name.
void DHTProtocol::learnResponder(const DHTNodeInfo& node, TimePoint now) {
    const DHTNodeInfo* known = routingTable_.find(node.id);
    if (known != nullptr && known->endpoint() != node.endpoint() && known->lastSeen + goodFor >= now) return;
    routingTable_.addNode(node);
    if (node.lastToken) routingTable_.setToken(*node.lastToken, node.id);
}

/// What is only heard of pushes out what is only heard of, never a node that answered.
void DHTProtocol::learnHearsay(const DHTNodeInfo& node) {
    const auto& nodes = routingTable_.nodes();
    const bool hasRoom = nodes.size() < RoutingTable::maxNodes ||
                         std::any_of(nodes.begin(), nodes.end(),
                                     [](const DHTNodeInfo& held) { return held.lastSeen == DHTNodeInfo::neverSeen; });
    if (hasRoom && routingTable_.find(node.id) == nullptr) routingTable_.addNode(node);
}

void DHTProtocol::forget(const NodeID& id, const DHTEndpoint& endpoint, TimePoint ifSeenBefore) {
    const DHTNodeInfo* known = routingTable_.find(id);
    if (known != nullptr && known->endpoint() == endpoint && known->lastSeen < ifSeenBefore)
        routingTable_.removeNode(id);
}

template <class Encode>
bool DHTProtocol::ask(const TransactionContext& context, TimePoint now, Encode encode) {
    const auto transaction = transactions_.add(context, now);
    if (host_.send(context.node, encode(transaction))) return true;
    transactions_.take(transaction, context.node);
    return false;
}

void DHTProtocol::sendFindNode(const DHTEndpoint& to, const NodeID& target, TimePoint now) {
    if (transactions_.isFull()) return;
    ask({QueryType::findNode, std::nullopt, std::nullopt, to}, now,
        [&](const auto& transaction) { return KRPC::findNode(transaction, nodeID(), target); });
}

bool DHTProtocol::sendGetPeers(const DHTNodeInfo& to, const NodeID& infoHash, TimePoint now) {
    return ask({QueryType::getPeers, infoHash, to.id, to.endpoint()}, now,
               [&](const auto& transaction) { return KRPC::getPeers(transaction, nodeID(), infoHash); });
}

bool DHTProtocol::sendAnnounce(const DHTNodeInfo& to, const NodeID& infoHash, std::uint16_t port, TimePoint now) {
    return ask({QueryType::announcePeer, infoHash, to.id, to.endpoint()}, now, [&](const auto& transaction) {
        return KRPC::announcePeer(transaction, nodeID(), infoHash, port, *to.lastToken);
    });
}

void DHTProtocol::startLookup(const NodeID& infoHash, TimePoint now) {
    waitingLookups_.push_back(infoHash);
    beginWaiting(now);
}

void DHTProtocol::beginWaiting(TimePoint now) {
    while (!waitingLookups_.empty() && activeLookups_.size() < maxActiveLookups) {
        const NodeID infoHash = waitingLookups_.front();
        waitingLookups_.pop_front();
        const auto lookup = activeLookups_.try_emplace(infoHash, infoHash, now).first;
        for (const DHTNodeInfo& node : routingTable_.closestNodes(infoHash, lookupSeeds)) lookup->second.offer(node);
        advance(lookup, now);
    }
}

const PeerLookup* DHTProtocol::activeLookup(const NodeID& infoHash) const noexcept {
    const auto lookup = activeLookups_.find(infoHash);
    return lookup == activeLookups_.end() ? nullptr : &lookup->second;
}

void DHTProtocol::cancelLookup(const NodeID& infoHash, TimePoint now) {
    std::erase(waitingLookups_, infoHash);
    const auto lookup = activeLookups_.find(infoHash);
    if (lookup != activeLookups_.end()) finish(lookup, LookupEnd::cancelled, now);
    beginWaiting(now);
}

void DHTProtocol::cancelAllLookups(TimePoint now) {
    waitingLookups_.clear();
    while (!activeLookups_.empty()) finish(activeLookups_.begin(), LookupEnd::cancelled, now);
}

/// Sends what may be sent, or ends the look-up. Where there is no transaction left it goes on with the next `expire`.
void DHTProtocol::advance(Lookups::iterator lookup, TimePoint now) {
    PeerLookup& state = lookup->second;
    // Once more after a round of which nothing could leave: its places are free again.
    for (;;) {
        if (const auto end = state.endAt(now)) return finish(lookup, *end, now);
        const std::vector<DHTNodeInfo> next = state.nextQueries(transactions_.room());
        if (next.empty()) return;
        for (const DHTNodeInfo& node : next)
            if (!sendGetPeers(node, lookup->first, now)) state.timedOut(node.id);
    }
}

void DHTProtocol::finish(Lookups::iterator lookup, LookupEnd end, TimePoint now) {
    rememberTargets(lookup->second, now);
    const auto ended = activeLookups_.extract(lookup);
    host_.lookupFinished(ended.mapped(), end, now - ended.mapped().startedAt());
}

/// The routing table cannot keep the tokens of many look-ups at once, so the announce that follows one is prepared
/// here.
void DHTProtocol::rememberTargets(const PeerLookup& lookup, TimePoint now) {
    std::erase_if(announceTargets_, [&](const auto& entry) { return entry.second.since + tokenLifetime < now; });
    if (lookup.tokenHolders().empty()) return;
    if (announceTargets_.size() >= maxRememberedTargets) announceTargets_.erase(announceTargets_.begin());
    announceTargets_[lookup.infoHash()] = {now, lookup.tokenHolders()};
}

std::vector<DHTNodeInfo> DHTProtocol::announceTargets(const NodeID& infoHash, TimePoint now) const {
    std::vector<DHTNodeInfo> targets = routingTable_.closestNodes(infoHash, closestCount);
    std::erase_if(targets, [](const DHTNodeInfo& node) { return !node.lastToken; });
    const auto add = [&](const std::vector<DHTNodeInfo>& holders) {
        for (const DHTNodeInfo& holder : holders) {
            std::erase_if(targets, [&](const DHTNodeInfo& target) { return target.id == holder.id; });
            targets.push_back(holder);
        }
    };
    const auto remembered = announceTargets_.find(infoHash);
    if (remembered != announceTargets_.end() && remembered->second.since + tokenLifetime >= now)
        add(remembered->second.nodes);
    if (const PeerLookup* lookup = activeLookup(infoHash)) add(lookup->tokenHolders());
    std::sort(targets.begin(), targets.end(),
              [&](const DHTNodeInfo& left, const DHTNodeInfo& right) { return xorLess(infoHash, left.id, right.id); });
    if (targets.size() > closestCount) targets.erase(targets.begin() + closestCount, targets.end());
    return targets;
}

void DHTProtocol::announce(const NodeID& infoHash, std::uint16_t port, TimePoint now) {
    for (const DHTNodeInfo& node : announceTargets(infoHash, now)) {
        if (transactions_.isFull()) return;
        ++announces_.sent;
        if (!sendAnnounce(node, infoHash, port, now)) settleAnnounce(false);
    }
}

}  // namespace skein
