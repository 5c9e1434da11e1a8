#include "Core/discovery/CompactNodes.h"
#include "Core/discovery/DHTProtocol.h"
#include "Core/formats/BEncoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre, testing::IsEmpty, testing::SizeIs;
using Dictionary = BEncodeValue::Dictionary;
using Nodes = std::vector<DHTNodeInfo>;

/// The larger the number, the farther from the id of zeros.
NodeID idOf(std::size_t number) {
    NodeID id{};
    writeBigEndian(id.data() + 12, std::uint64_t{number});
    return id;
}

DHTEndpoint at(const char* host, std::uint16_t port) { return {*IPAddress::parse(host), port}; }

DHTNodeInfo nodeAt(const char* host, std::uint16_t port, std::size_t number) {
    return {idOf(number), *IPAddress::parse(host), port, DHTNodeInfo::neverSeen, std::nullopt};
}

Nodes nodesFrom(std::uint16_t first, std::uint16_t count) {
    Nodes nodes;
    for (std::uint16_t i = first; i < first + count; ++i) nodes.push_back(nodeAt("8.8.8.8", i, i));
    return nodes;
}

Dictionary naming(const Nodes& nodes) { return {{"nodes", CompactNodes::encodeCompactNodes(nodes)}}; }

BEncodeValue compactPeer(const char* host, std::uint16_t port) {
    const IPAddress address = *IPAddress::parse(host);
    Bytes peer(address.bytes().begin(), address.bytes().end());
    appendBigEndian(peer, port);
    return peer;
}

TEST(RoutingTableTest, aFullTableReplacesTheNodeSeenLongestAgo) {
    RoutingTable table(idOf(0));
    for (std::size_t i = 0; i <= RoutingTable::maxNodes; ++i) table.addNode(nodeAt("1.1.1.1", 1, i));  // 0 is itself
    table.setToken(toBytes("token"), idOf(7));
    for (std::size_t i = 1; i <= RoutingTable::maxNodes; ++i) {
        DHTNodeInfo again = nodeAt("2.2.2.2", 2, i);
        again.lastSeen = DHTNodeInfo::TimePoint(i == 7 || i == 9 ? 1s : 5s);
        table.addNode(again);
    }
    EXPECT_EQ(table.find(idOf(7))->endpoint(), at("2.2.2.2", 2));
    EXPECT_EQ(table.find(idOf(7))->lastToken, toBytes("token"));
    table.addNode(nodeAt("3.3.3.3", 3, 1000));
    EXPECT_EQ(table.nodes().size(), RoutingTable::maxNodes);
    EXPECT_EQ(table.nodes()[6].id, idOf(1000));  // where the first of the two was
    EXPECT_EQ(table.closestNodes(idOf(5), 3)[2].id, idOf(6));
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
        return true;
    }
    bool canReach(const IPAddress&) const override { return true; }
    void foundPeer(const NodeID&, const DHTEndpoint& peer) override { found.push_back(peer); }
    void lookupFinished(const PeerLookup& lookup, LookupEnd end, DHTProtocol::Duration) override {
        ends.emplace_back(textOf(end));
        statistics = lookup.statistics();
    }
    void announceSettled() override {}

    void receive(const Dictionary& message, const DHTEndpoint& from) {
        protocol.receive(BEncoder::encode(message), from, now);
    }
    /// Answers a query as the node that it went to, or as the one at `from`.
    void answer(const Sent& query, std::size_t id, Dictionary values, std::optional<DHTEndpoint> from = {}) {
        values.emplace_back("id", ByteView(idOf(id)));
        receive({{"t", query.text("t")}, {"y", "r"}, {"r", values}}, from.value_or(query.to));
    }
    /// Asks the node at `from`, which answers.
    void hear(const DHTEndpoint& from, std::size_t id, const Nodes& nodes = {}) {
        protocol.sendFindNode(from, idOf(0), now);
        const Sent query = sent.back();
        sent.pop_back();
        answer(query, id, naming(nodes));
    }
    void advance(DHTProtocol::Duration duration) {
        for (const auto target = now + duration; now < target;) {
            now = std::min(target, protocol.deadline().value_or(target));
            protocol.expire(now);
        }
    }
    const DHTNodeInfo* known(std::size_t id) const { return protocol.routingTable().find(idOf(id)); }

    const NodeID infoHash = idOf(0);
    const DHTEndpoint stranger = at("7.7.7.7", 7);
    DHTProtocol::TimePoint now{1h};
    std::vector<Sent> sent;
    std::vector<DHTEndpoint> found;
    std::vector<std::string> ends;
    PeerLookup::Statistics statistics;
    SecureRandom random;
    DHTProtocol protocol{random, *this};
};

TEST_F(DHTProtocolTest, aLookupEndsWhenNobodyIsLeftToAsk) {
    protocol.startLookup(infoHash, now);
    EXPECT_THAT(ends, ElementsAre("exhausted"));
    hear(stranger, 1000, nodesFrom(1, 2));
    protocol.startLookup(infoHash, now);
    ASSERT_THAT(sent, SizeIs(3));
    receive({{"t", sent[0].text("t")}, {"y", "e"}, {"e", BEncodeValue::List{201, "no"}}}, sent[0].to);
    answer(sent[1], 2, {});
    advance(4s);
    EXPECT_THAT(ends, SizeIs(1));
    advance(1s);
    EXPECT_THAT(ends, ElementsAre("exhausted", "exhausted"));
    EXPECT_EQ(statistics.responses + statistics.timeouts, 2U);
    EXPECT_EQ(protocol.deadline(), std::nullopt);
}

TEST_F(DHTProtocolTest, aLookupAsksFourAtATimeAndEightyInAll) {
    hear(stranger, 5000, nodesFrom(1000, 20));
    protocol.startLookup(infoHash, now);
    for (std::uint16_t i = 0; ends.empty(); ++i) {
        ASSERT_EQ(sent.size(), std::min(i + 4, 80));
        // All know of one that is far, and make up ids for one that is near.
        answer(sent[i], 2000 + i,
               naming({nodeAt("8.8.8.8", 1, 6000), nodeAt("8.8.1.1", 1, 900 - 2 * i),
                       nodeAt("8.8.1.1", std::uint16_t(i + 2), 901 - 2 * i)}));
    }
    EXPECT_THAT(ends, ElementsAre("query budget exhausted"));
    std::set<DHTEndpoint> asked;
    for (const Sent& query : sent) asked.insert(query.to);
    EXPECT_EQ(asked.size(), 80U);
}

TEST_F(DHTProtocolTest, aLookupEndsAfterThirtyFiveSeconds) {
    hear(stranger, 1000, nodesFrom(1, 32));
    protocol.startLookup(infoHash, now);
    advance(34'999ms);
    EXPECT_THAT(ends, IsEmpty());
    advance(1ms);
    EXPECT_THAT(ends, ElementsAre("timeout"));
    EXPECT_EQ(statistics.timeouts, 28U);
    EXPECT_EQ(known(1), nullptr);  // it never answered anybody
}

TEST_F(DHTProtocolTest, eachPeerIsHandedOutOnceAndOnlyWhatItsNodeMaySpeakFor) {
    hear(stranger, 1000, nodesFrom(1, 2));
    protocol.startLookup(infoHash, now);
    BEncodeValue::List values{compactPeer("8.8.4.4", 1), compactPeer("2a00:1450::1", 2), "short", 7};
    for (const char* host : {"127.0.0.1", "192.168.0.1", "224.0.0.1", "255.255.255.255", "0.0.0.0", "fe80::1", "::1"})
        values.emplace_back(compactPeer(host, 6881));
    values.emplace_back(compactPeer("8.8.4.4", 0));
    Dictionary all = naming({nodeAt("10.0.0.1", 1, 11), nodeAt("239.1.1.1", 1, 12), nodeAt("8.8.4.4", 0, 13)});
    all.emplace_back("values", values);
    answer(sent[0], 1, all);
    answer(sent[1], 2, all);
    EXPECT_THAT(found, ElementsAre(at("8.8.4.4", 1), at("2a00:1450::1", 2)));
    for (const std::size_t refused : {11U, 12U, 13U}) EXPECT_EQ(known(refused), nullptr);
    hear(at("192.168.1.1", 1), 1001, {nodeAt("10.0.0.1", 1, 11), nodeAt("255.255.255.255", 1, 12)});
    EXPECT_NE(known(11), nullptr);  // a neighbour may name a neighbour
    EXPECT_EQ(known(12), nullptr);
}

TEST_F(DHTProtocolTest, anAnswerCountsOnceAndOnlyFromWhereTheQueryWentTo) {
    hear(stranger, 1000, nodesFrom(1, 1));
    protocol.startLookup(infoHash, now);
    const Sent query = sent[0];
    const Dictionary values{{"values", BEncodeValue::List{compactPeer("8.8.4.4", 6881)}}};
    answer(query, 1, values, stranger);
    answer(query, 1, values, DHTEndpoint{query.to.host, 2});
    answer({query.to, Dictionary{{"t", "abc"}}}, 1, values);
    receive({{"t", query.text("t")}, {"y", "e"}}, stranger);
    receive({{"t", query.text("t")}, {"y", "r"}, {"r", values}}, query.to);  // without an id
    EXPECT_THAT(found, IsEmpty());
    answer(query, 1, values);
    answer(query, 1, {{"values", BEncodeValue::List{compactPeer("8.8.4.4", 1)}}});
    EXPECT_THAT(found, SizeIs(1));
}

TEST_F(DHTProtocolTest, nodesThatAnsweredKeepTheirPlaceAndTheirName) {
    for (std::uint16_t i = 1; i <= RoutingTable::maxNodes; ++i) hear(at("8.8.8.8", i), i);
    hear(stranger, 1, nodesFrom(500, 8));
    EXPECT_EQ(known(1)->endpoint(), at("8.8.8.8", 1));
    EXPECT_EQ(known(500), nullptr);
    EXPECT_FALSE(protocol.needsBootstrap(now + 15min));
    now += 15min + 1s;
    EXPECT_TRUE(protocol.needsBootstrap(now));
    hear(stranger, 1);
    EXPECT_EQ(known(1)->endpoint(), stranger);
}

TEST_F(DHTProtocolTest, answersPingAndFindNodeAloneAndAtABoundedRate) {
    hear(at("10.0.0.9", 1), 1000, {nodeAt("10.0.0.1", 1, 1)});
    hear(at("9.9.9.9", 1), 1001, nodesFrom(2, 20));
    const Dictionary known{
        {"id", ByteView(idOf(9))}, {"target", ByteView(infoHash)}, {"info_hash", ByteView(infoHash)}};
    const auto repliesTo = [&](const BEncodeValue& method, const DHTEndpoint& from, const Dictionary& arguments) {
        sent.clear();
        for (int i = 0; i < 1000; ++i) receive({{"t", "tx"}, {"y", "q"}, {"q", method}, {"a", arguments}}, from);
        return sent.size();
    };
    for (const char* method : {"get_peers", "announce_peer", "vote", ""})
        EXPECT_EQ(repliesTo(method, stranger, known), 0U) << method;
    EXPECT_EQ(repliesTo(7, stranger, known), 0U);
    EXPECT_EQ(repliesTo("ping", at("8.8.8.8", 0), known), 0U);
    EXPECT_EQ(repliesTo("ping", stranger, {}), 0U);
    EXPECT_EQ(repliesTo("find_node", stranger, known), 200U);
    EXPECT_EQ(sent[0].text("t") + sent[0].text("y"), "txr");
    EXPECT_EQ(asText(*sent[0].message["r"]->dataAt("id")), asText(protocol.nodeID()));
    const Nodes named = CompactNodes::parseCompactNodes(*sent[0].message["r"]->dataAt("nodes"));
    ASSERT_THAT(named, SizeIs(8));
    EXPECT_EQ(named[0].id, idOf(2));  // 1 is nobody else's business
    now += 500ms;
    EXPECT_EQ(repliesTo("ping", stranger, known), 100U);
}

TEST_F(DHTProtocolTest, announcesToTheClosestThatGaveATokenThoughTheTableForgotThem) {
    hear(stranger, 1000, nodesFrom(1, 12));
    protocol.startLookup(infoHash, now);
    for (std::size_t i = 0; i < sent.size(); ++i)
        answer(sent[i], i + 1, i == 0 ? Dictionary{} : Dictionary{{"token", "t" + std::to_string(i + 1)}});
    now += 1s;
    for (std::uint16_t i = 1; i <= RoutingTable::maxNodes; ++i) hear(at("8.8.9.9", i), 10'000 + i);
    ASSERT_EQ(known(2), nullptr);
    sent.clear();
    protocol.announce(infoHash, 6881, now);
    ASSERT_THAT(sent, SizeIs(8));
    const BEncodeValue& arguments = *sent[0].message["a"];
    EXPECT_EQ(arguments.stringAt("token"), "t2");
    EXPECT_EQ(arguments.intAt("port").value() + arguments.intAt("implied_port").value(), 6882);
    for (std::size_t i = 0; i < 5; ++i) answer(sent[i], i + 2, {});
    receive({{"t", sent[5].text("t")}, {"y", "e"}}, sent[5].to);
    advance(5s);
    EXPECT_EQ(protocol.announces().succeeded, 5U);
    EXPECT_EQ(protocol.announces().failed, 3U);
    protocol.announce(infoHash, 6881, now + DHTProtocol::tokenLifetime);
    EXPECT_THAT(sent, SizeIs(8));
}

TEST_F(DHTProtocolTest, lookupsBeyondTheLimitWaitForTheirTurn) {
    hear(stranger, 1000, nodesFrom(1, 32));
    for (std::size_t i = 0; i < 400; ++i) protocol.startLookup(idOf(i), now);
    EXPECT_EQ(sent.size(), DHTProtocol::maxActiveLookups * PeerLookup::lookupAlpha);
    protocol.cancelLookup(idOf(399), now);
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
