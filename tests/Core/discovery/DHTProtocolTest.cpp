#include "Core/discovery/CompactNodes.h"
#include "Core/discovery/DHTProtocol.h"
#include "Core/formats/BEncoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Dictionary = BEncodeValue::Dictionary;

/// An id that is the farther from the id of zeros the larger the number.
NodeID idOf(std::size_t number) {
    NodeID id{};
    writeBigEndian(id.data() + 12, std::uint64_t{number});
    return id;
}

DHTNodeInfo nodeAt(const char* host, std::uint16_t port, std::size_t number) {
    return {idOf(number), *IPAddress::parse(host), port, DHTNodeInfo::neverSeen, std::nullopt};
}

Bytes compactPeer(const char* host, std::uint16_t port) {
    const IPAddress address = *IPAddress::parse(host);
    Bytes peer(address.bytes().begin(), address.bytes().end());
    appendBigEndian(peer, port);
    return peer;
}

TEST(RoutingTableTest, aFullTableReplacesTheNodeSeenLongestAgo) {
    RoutingTable table(idOf(0));
    table.addNode(nodeAt("1.1.1.1", 1, 0));
    EXPECT_THAT(table.nodes(), IsEmpty());  // itself
    for (std::size_t i = 1; i <= RoutingTable::maxNodes; ++i) {
        DHTNodeInfo node = nodeAt("1.1.1.1", 1, i);
        node.lastSeen = DHTNodeInfo::TimePoint(i == 7 || i == 9 ? 1s : 5s);
        table.addNode(node);
    }
    table.setToken(toBytes("token"), idOf(9));
    table.setToken(toBytes("token"), idOf(1000));
    DHTNodeInfo again = nodeAt("2.2.2.2", 2, 9);
    again.lastSeen = DHTNodeInfo::TimePoint(1s);
    table.addNode(again);  // in place
    EXPECT_EQ(table.find(idOf(9))->endpoint(), (DHTEndpoint{*IPAddress::parse("2.2.2.2"), 2}));
    EXPECT_EQ(table.find(idOf(9))->lastToken, toBytes("token"));
    table.addNode(nodeAt("3.3.3.3", 3, 1000));
    EXPECT_EQ(table.nodes().size(), RoutingTable::maxNodes);
    EXPECT_EQ(table.find(idOf(7)), nullptr);  // the first of two that were seen at the same time
    EXPECT_EQ(table.nodes()[6].id, idOf(1000));
    const auto closest = table.closestNodes(idOf(5), 3);  // by XOR: 5, 4, then 1 beats 6 and 7 by nothing but distance
    ASSERT_THAT(closest, SizeIs(3));
    EXPECT_EQ(closest[0].id, idOf(5));
    EXPECT_EQ(closest[1].id, idOf(4));
    EXPECT_EQ(closest[2].id, idOf(6));
}

class DHTProtocolTest : public testing::Test, protected DHTProtocol::Host {
protected:
    struct Sent {
        DHTEndpoint to;
        BEncodeValue message;
        std::string text(std::string_view key) const { return std::string(asText(*message.dataAt(key))); }
    };

    bool send(const DHTEndpoint& to, ByteView datagram) override {
        EXPECT_LE(datagram.size(), 512U);
        sent.push_back({to, BEncoder::decode(datagram)});
        return !isUnplugged;
    }
    bool canReach(const IPAddress&) const override { return true; }
    void foundPeer(const NodeID&, const DHTEndpoint& peer) override { found.push_back(peer); }
    void lookupFinished(const PeerLookup& lookup, LookupEnd end, DHTProtocol::Duration elapsed) override {
        ends.emplace_back(textOf(end));
        statistics = lookup.statistics();
        lasted = elapsed;
    }
    void announceSettled() override {}

    /// Answers a query as the node it went to, or as `from`, that has `number` for its id.
    void answer(const Sent& query, std::size_t number, Dictionary values, std::optional<DHTEndpoint> from = {}) {
        values.emplace_back("id", ByteView(idOf(number)));
        receive({{"t", query.text("t")}, {"y", "r"}, {"r", values}}, from.value_or(query.to));
    }
    void receive(const Dictionary& message, const DHTEndpoint& from) {
        protocol.receive(BEncoder::encode(message), from, now);
    }
    /// Makes nodes known as a router at `router` names them.
    void introduce(const std::vector<DHTNodeInfo>& nodes, const char* router = "9.9.9.9") {
        protocol.sendFindNode({*IPAddress::parse(router), 1}, idOf(0), now);
        for (std::size_t i = 0; i < nodes.size(); i += 32) {
            const std::size_t count = std::min<std::size_t>(32, nodes.size() - i);
            answer(sent.back(), 1'000'000, {{"nodes", CompactNodes::encodeCompactNodes({&nodes[i], count})}});
            protocol.sendFindNode({*IPAddress::parse(router), 1}, idOf(0), now);
        }
        answer(sent.back(), 1'000'000, {});
        sent.clear();
    }
    std::vector<DHTNodeInfo> nodesFrom(std::size_t first, std::size_t count) {
        std::vector<DHTNodeInfo> nodes;
        for (std::size_t i = first; i < first + count; ++i)
            nodes.push_back(nodeAt("8.8.8.8", static_cast<std::uint16_t>(i), i));
        return nodes;
    }
    void advance(DHTProtocol::Duration duration) {
        for (const auto target = now + duration; now < target;) {
            now = std::min(target, protocol.deadline().value_or(target));
            protocol.expire(now);
        }
    }

    const NodeID infoHash = idOf(0);
    const DHTEndpoint stranger{*IPAddress::parse("7.7.7.7"), 7};
    DHTProtocol::TimePoint now{1h};
    std::vector<Sent> sent;
    std::vector<DHTEndpoint> found;
    std::vector<std::string> ends;
    PeerLookup::Statistics statistics;
    DHTProtocol::Duration lasted{};
    bool isUnplugged = false;
    SecureRandom random;
    DHTProtocol protocol{random, *this};
};

TEST_F(DHTProtocolTest, aLookupEndsWhenNobodyIsLeftToAsk) {
    protocol.startLookup(infoHash, now);
    EXPECT_THAT(ends, ElementsAre("exhausted"));
    introduce(nodesFrom(1, 2));
    protocol.startLookup(infoHash, now);
    ASSERT_THAT(sent, SizeIs(3));  // the two and the router
    receive({{"t", sent[0].text("t")}, {"y", "e"}, {"e", BEncodeValue::List{201, "no"}}}, sent[0].to);
    answer(sent[1], 2, {});
    advance(4s);
    EXPECT_THAT(ends, SizeIs(1));
    advance(1s);
    EXPECT_THAT(ends, ElementsAre("exhausted", "exhausted"));
    EXPECT_EQ(statistics.responses, 1U);
    EXPECT_EQ(statistics.timeouts, 1U);
    EXPECT_EQ(protocol.deadline(), std::nullopt);

    isUnplugged = true;  // what cannot leave is not waited for
    protocol.startLookup(infoHash, now);
    EXPECT_THAT(ends, SizeIs(3));
}

TEST_F(DHTProtocolTest, aLookupAsksFourAtATimeAndEightyInAll) {
    introduce(nodesFrom(1000, 20));
    protocol.startLookup(infoHash, now);
    for (std::size_t i = 0; ends.empty(); ++i) {
        ASSERT_EQ(sent.size(), std::min<std::size_t>(i + PeerLookup::lookupAlpha, PeerLookup::lookupMaxQueries));
        // Each names two that are closer, and one that all name.
        const std::vector<DHTNodeInfo> closer = {nodeAt("8.8.8.8", 1, 5000), nodeAt("8.8.1.1", 1, 900 - 2 * i),
                                                 nodeAt("8.8.1.1", static_cast<std::uint16_t>(i + 2), 901 - 2 * i)};
        answer(sent[i], 2000 + i, {{"nodes", CompactNodes::encodeCompactNodes(closer)}});
    }
    EXPECT_THAT(ends, ElementsAre("query budget exhausted"));
    EXPECT_EQ(sent.size(), PeerLookup::lookupMaxQueries);
    EXPECT_EQ(statistics.responses, PeerLookup::lookupMaxQueries);
}

TEST_F(DHTProtocolTest, aLookupEndsAfterThirtyFiveSecondsOrWhenItIsCancelled) {
    introduce(nodesFrom(1, 100));
    protocol.startLookup(infoHash, now);
    advance(34'999ms);
    EXPECT_THAT(ends, IsEmpty());
    advance(1ms);
    EXPECT_THAT(ends, ElementsAre("timeout"));
    EXPECT_EQ(lasted, 35s);
    EXPECT_EQ(statistics.timeouts, 28U);
    EXPECT_EQ(protocol.routingTable().find(idOf(1)), nullptr);  // it never answered anybody
    protocol.startLookup(infoHash, now);
    protocol.cancelLookup(infoHash, now);
    EXPECT_THAT(ends, ElementsAre("timeout", "cancelled"));
    advance(5s);
    EXPECT_EQ(protocol.deadline(), std::nullopt);
}

TEST_F(DHTProtocolTest, eachPeerIsHandedOutOnceAndOnlyWhatItsNodeMaySpeakFor) {
    introduce(nodesFrom(1, 2));
    protocol.startLookup(infoHash, now);
    BEncodeValue::List values{compactPeer("8.8.4.4", 6881), compactPeer("2a00:1450::1", 6882), "short", 7};
    for (const char* host : {"127.0.0.1", "192.168.0.1", "224.0.0.1", "255.255.255.255", "0.0.0.0", "fe80::1", "::1"})
        values.emplace_back(compactPeer(host, 6881));
    values.emplace_back(compactPeer("8.8.4.4", 0));
    const std::vector<DHTNodeInfo> nodes = {nodeAt("10.0.0.1", 1, 11), nodeAt("239.1.1.1", 1, 12),
                                            nodeAt("8.8.4.4", 0, 13), nodeAt("8.8.4.4", 9, 14)};
    answer(sent[0], 1, {{"values", values}, {"nodes", CompactNodes::encodeCompactNodes(nodes)}});
    answer(sent[1], 2, {{"values", values}});
    EXPECT_THAT(found, ElementsAre(DHTEndpoint{*IPAddress::parse("8.8.4.4"), 6881},
                                   DHTEndpoint{*IPAddress::parse("2a00:1450::1"), 6882}));
    for (const std::size_t refused : {11U, 12U, 13U}) EXPECT_EQ(protocol.routingTable().find(idOf(refused)), nullptr);
    EXPECT_NE(protocol.routingTable().find(idOf(14)), nullptr);
    introduce({nodeAt("10.0.0.1", 1, 11), nodeAt("255.255.255.255", 1, 12)}, "192.168.1.1");
    EXPECT_NE(protocol.routingTable().find(idOf(11)), nullptr);  // a neighbour may name a neighbour
    EXPECT_EQ(protocol.routingTable().find(idOf(12)), nullptr);
}

TEST_F(DHTProtocolTest, anAnswerCountsOnceAndOnlyFromWhereTheQueryWentTo) {
    introduce(nodesFrom(1, 1));
    protocol.startLookup(infoHash, now);
    const Dictionary values{{"values", BEncodeValue::List{compactPeer("8.8.4.4", 6881)}}};
    DHTEndpoint otherPort = sent[0].to;
    ++otherPort.port;
    for (const DHTEndpoint& elsewhere : {stranger, otherPort}) answer(sent[0], 1, values, elsewhere);
    Sent unknown = sent[0];
    unknown.message = Dictionary{{"t", "abc"}};
    answer(unknown, 1, values);
    receive({{"t", sent[0].text("t")}, {"y", "r"}, {"r", values}}, sent[0].to);  // without an id
    EXPECT_THAT(found, IsEmpty());
    answer(sent[0], 1, values);
    answer(sent[0], 1, {{"values", BEncodeValue::List{compactPeer("8.8.4.4", 1)}}});
    EXPECT_THAT(found, SizeIs(1));
}

TEST_F(DHTProtocolTest, nodesThatAnsweredKeepTheirPlaceAndTheirName) {
    introduce({});
    for (std::size_t i = 1; i < RoutingTable::maxNodes; ++i) {
        protocol.sendFindNode({*IPAddress::parse("8.8.8.8"), static_cast<std::uint16_t>(i)}, infoHash, now);
        answer(sent.back(), i, {});
    }
    protocol.sendFindNode(stranger, infoHash, now);
    answer(sent.back(), 1, {{"nodes", CompactNodes::encodeCompactNodes(nodesFrom(500, 8))}});
    EXPECT_EQ(protocol.routingTable().find(idOf(1))->port, 1);
    EXPECT_EQ(protocol.routingTable().find(idOf(500)), nullptr);
    EXPECT_FALSE(protocol.needsBootstrap(now + 15min));
    now += 15min + 1s;
    EXPECT_TRUE(protocol.needsBootstrap(now));
    protocol.sendFindNode(stranger, infoHash, now);
    answer(sent.back(), 1, {});
    EXPECT_EQ(protocol.routingTable().find(idOf(1))->port, stranger.port);
}

TEST_F(DHTProtocolTest, answersPingAndFindNodeAloneAndAtABoundedRate) {
    introduce({nodeAt("10.0.0.1", 1, 1)}, "10.0.0.9");
    introduce(nodesFrom(2, 20));
    const Dictionary arguments{{"id", ByteView(idOf(9))},
                               {"target", ByteView(infoHash)},
                               {"info_hash", ByteView(infoHash)},
                               {"token", "x"},
                               {"port", 1}};
    const auto ask = [&](const BEncodeValue& method, const DHTEndpoint& from, const Dictionary& with) {
        sent.clear();
        receive({{"t", "tx"}, {"y", "q"}, {"q", method}, {"a", with}}, from);
    };
    ask("find_node", stranger, arguments);
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].text("t") + sent[0].text("y"), "txr");
    EXPECT_EQ(*nodeIDFrom(*sent[0].message["r"]->dataAt("id")), protocol.nodeID());
    const auto named = CompactNodes::parseCompactNodes(*sent[0].message["r"]->dataAt("nodes"));
    ASSERT_THAT(named, SizeIs(8));
    EXPECT_EQ(named[0].id, idOf(2));  // 1 is nobody else's business
    for (const char* method : {"get_peers", "announce_peer", "vote", ""}) {
        ask(method, stranger, arguments);
        EXPECT_THAT(sent, IsEmpty()) << method;
    }
    ask("ping", {stranger.host, 0}, arguments);
    ask("ping", {*IPAddress::parse("224.0.0.1"), 1}, arguments);
    ask("ping", stranger, {});
    ask(7, stranger, arguments);
    EXPECT_THAT(sent, IsEmpty());

    std::size_t replies = 0;
    for (int i = 0; i < 1000; ++i, replies += sent.size()) ask("ping", stranger, {{"id", ByteView(idOf(9))}});
    EXPECT_EQ(replies, 199U);
    now += 500ms;
    replies = 0;
    for (int i = 0; i < 1000; ++i, replies += sent.size()) ask("ping", stranger, {{"id", ByteView(idOf(9))}});
    EXPECT_EQ(replies, 100U);
}

TEST_F(DHTProtocolTest, announcesToTheClosestThatGaveATokenThoughTheTableForgotThem) {
    introduce(nodesFrom(1, 12));
    protocol.startLookup(infoHash, now);
    for (std::size_t i = 0; i < sent.size(); ++i)
        answer(sent[i], i + 1, i == 0 ? Dictionary{} : Dictionary{{"token", "t" + std::to_string(i + 1)}});
    sent.clear();
    now += 1s;
    introduce({});
    for (std::size_t i = 1; i <= RoutingTable::maxNodes; ++i) {
        protocol.sendFindNode({*IPAddress::parse("8.8.9.9"), static_cast<std::uint16_t>(i)}, infoHash, now);
        answer(sent.back(), 10'000 + i, {});
    }
    ASSERT_EQ(protocol.routingTable().find(idOf(2)), nullptr);
    sent.clear();
    protocol.announce(infoHash, 6881, now);
    ASSERT_THAT(sent, SizeIs(8));
    EXPECT_EQ(asText(*sent[0].message["a"]->dataAt("token")), "t2");
    EXPECT_EQ(sent[0].message["a"]->intAt("port"), 6881);
    EXPECT_EQ(sent[0].message["a"]->intAt("implied_port"), 1);
    EXPECT_EQ(protocol.announcesOutstanding(infoHash), 8U);
    for (std::size_t i = 0; i < 5; ++i) answer(sent[i], i + 2, {});
    receive({{"t", sent[5].text("t")}, {"y", "e"}}, sent[5].to);
    advance(5s);
    EXPECT_EQ(protocol.announces().succeeded, 5U);
    EXPECT_EQ(protocol.announces().failed, 3U);
    sent.clear();
    protocol.announce(infoHash, 6881, now + DHTProtocol::tokenLifetime);
    EXPECT_THAT(sent, IsEmpty());
}

TEST_F(DHTProtocolTest, lookupsBeyondTheLimitWaitForTheirTurn) {
    introduce(nodesFrom(1, 40));
    for (std::size_t i = 0; i < 400; ++i) protocol.startLookup(idOf(i), now);
    EXPECT_EQ(sent.size(), DHTProtocol::maxActiveLookups * PeerLookup::lookupAlpha);
    std::set<std::string> transactions;
    for (const Sent& query : sent) transactions.insert(query.text("t"));
    EXPECT_EQ(transactions.size(), sent.size());
    protocol.cancelLookup(idOf(0), now);
    protocol.cancelLookup(idOf(399), now);
    advance(2s);
    for (std::size_t i = 0; i < sent.size(); ++i) answer(sent[i], 100'000, {});
    EXPECT_THAT(ends, SizeIs(399));  // the last had not begun
    for (std::size_t i = 0; i < 300; ++i) {
        protocol.startLookup(idOf(i), now);  // and what of it is still under way fills the table of transactions
        protocol.cancelLookup(idOf(i), now);
    }
    protocol.startLookup(infoHash, now);
    advance(60s);
    EXPECT_THAT(ends, SizeIs(700));
    EXPECT_GT(statistics.queried, 0U);
}

}  // namespace
}  // namespace skein
