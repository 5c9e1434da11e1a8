#include "Core/discovery/CompactNodes.h"
#include "Core/discovery/DHTProtocol.h"
#include "fuzz/Check.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

namespace skein {
namespace {

/// The same numbers in each run, so that a fault can be shown again.
class CountedRandom final : public Random {
public:
    void fill(std::span<std::uint8_t> bytes) override {
        for (std::uint8_t& byte : bytes) {
            state_ = state_ * 6364136223846793005U + 1442695040888963407U;
            byte = static_cast<std::uint8_t>(state_ >> 56U);
        }
    }

private:
    std::uint64_t state_ = 1;
};

/// Holds the node to what it promises, and keeps its latest queries for the input to answer.
class Network final : public DHTProtocol::Host {
public:
    struct Query {
        DHTEndpoint to;
        Bytes transaction;
    };

    bool send(const DHTEndpoint& to, ByteView datagram) override {
        check(to.isUsable() && datagram.size() <= 512);
        const auto message = KRPCMessage::decode(datagram);
        check(message.has_value() && message->senderID().has_value());
        if (message->kind() != KRPCMessage::Kind::query) return true;
        const ByteView transaction = message->transactionID();
        if (queries.size() == 256) queries.erase(queries.begin());
        queries.push_back({to, Bytes(transaction.begin(), transaction.end())});
        return ++sent_ % 16 != 0;
    }
    bool canReach(const IPAddress&) const override { return true; }
    void foundPeer(const NodeID&, const DHTEndpoint& peer) override {
        check(peer.isUsable());
        check(found_.insert(peer).second);
    }
    void lookupFinished(const PeerLookup& lookup, LookupEnd, DHTProtocol::Duration elapsed) override {
        const auto& all = lookup.statistics();
        check(all.queried <= PeerLookup::lookupMaxQueries && all.responses + all.timeouts <= all.queried);
        check(elapsed <= PeerLookup::lookupTimeout);
        found_.clear();
    }
    void announceSettled() override {}

    std::vector<Query> queries;

private:
    std::set<DHTEndpoint> found_;
    std::size_t sent_ = 0;
};

/// Takes the input apart: a step's kind, then what it needs.
class Script {
public:
    explicit Script(ByteView data) : data_(data) {}
    bool isAtEnd() const { return data_.empty(); }
    std::uint8_t byte() {
        if (data_.empty()) return 0;
        const std::uint8_t first = data_.front();
        data_ = data_.subspan(1);
        return first;
    }
    ByteView bytes() {
        const std::size_t wanted = byte() * std::size_t{256} + byte();
        const ByteView taken = data_.first(std::min(wanted, data_.size()));
        data_ = data_.subspan(taken.size());
        return taken;
    }

private:
    ByteView data_;
};

/// The answer to a query whose values are the input's.
Bytes answerTo(const Network::Query& query, std::uint8_t id, ByteView values) {
    Bytes datagram = toBytes("d1:rd2:id20:");
    datagram.insert(datagram.end(), 20, id);
    append(datagram, values);
    append(datagram, toBytes("e1:t" + std::to_string(query.transaction.size()) + ":"));
    append(datagram, query.transaction);
    append(datagram, toBytes("1:y1:re"));
    return datagram;
}

/// A node that lives through what the input does to it.
void life(ByteView data) {
    const std::array<DHTEndpoint, 4> others{DHTEndpoint{IPAddress(IPAddress::V4Bytes{8, 8, 8, 8}), 1},
                                            {IPAddress(IPAddress::V4Bytes{127, 0, 0, 1}), 2},
                                            {IPAddress(IPAddress::V4Bytes{224, 0, 0, 1}), 3},
                                            {IPAddress(IPAddress::V6Bytes{0x20, 1, 0x48, 0x60}), 0}};
    CountedRandom random;
    Network network;
    DHTProtocol node(random, network);
    DHTProtocol::TimePoint now{std::chrono::hours(1)};
    NodeID infoHash{};
    node.receive(data, others[0], now);
    for (Script script(data); !script.isAtEnd();) {
        switch (script.byte() % 6) {
            case 0: {
                const DHTEndpoint& from = others[script.byte() % others.size()];
                node.receive(script.bytes(), from, now);
                break;
            }
            case 1: {
                if (network.queries.empty()) break;
                const Network::Query query = network.queries[script.byte() % network.queries.size()];
                const std::uint8_t id = script.byte();
                node.receive(answerTo(query, id, script.bytes()), query.to, now);
                break;
            }
            case 2:
                for (const auto target = now + std::chrono::milliseconds(100) * script.byte(); now < target;) {
                    now = std::min(target, node.deadline().value_or(target));
                    node.expire(now);
                }
                break;
            case 3: node.sendFindNode(others[script.byte() % 2], node.nodeID(), now); break;
            case 4:
                node.cancelLookup(infoHash, now);
                infoHash.fill(script.byte());
                node.startLookup(infoHash, now);
                break;
            default: node.announce(infoHash, script.byte(), now);
        }
        check(node.activeLookup(infoHash) == nullptr || node.deadline().has_value());
        check(node.routingTable().nodes().size() <= RoutingTable::maxNodes);
    }
    for (const DHTNodeInfo& known : node.routingTable().nodes())
        check(known.endpoint().isUsable() && known.id != node.nodeID());
    while (const auto deadline = node.deadline()) node.expire(now = std::max(now, *deadline));
}

void compactForms(ByteView data) {
    const auto nodes = CompactNodes::parseCompactNodes(data);
    const Bytes again = CompactNodes::encodeCompactNodes(nodes);
    check(std::equal(again.begin(), again.end(), data.begin()) && data.size() - again.size() < CompactNodes::nodeBytes);
    for (const DHTNodeInfo& node : CompactNodes::parseCompactIPv6Nodes(data)) check(!node.host.text().empty());
}

}  // namespace
}  // namespace skein

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    skein::compactForms({data, size});
    skein::life({data, size});
    return 0;
}
