#include "Core/wire/UTPPeerWireTransport.h"
#include "Core/wire/UTPStream.h"
#include "tests/Core/wire/ConnectionFixture.h"
#include "tests/support/ScriptedUDPServer.h"
#include "tests/support/SeedTo.h"
#include "tests/support/UTPAcceptor.h"

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using Type = UTPPacketType;

/// A stream opened by a peer whose opening number is 500, and what it answers.
class UTPStreamTest : public testing::Test {
protected:
    UTPStreamTest() {
        stream.open(now);
        const auto answer = give(Type::state, 500, 1);
        EXPECT_THAT(std::pair(answer->connectionID, answer->acknowledgementNumber), testing::Pair(8, 500));
    }
    std::optional<UTPPacketHeader> give(Type type, std::uint16_t sequence, std::uint16_t acknowledged,
                                        ByteView payload = {}, std::uint16_t connection = 7) {
        UTPPacket packet{{.type = type,
                          .connectionID = connection,
                          .windowSize = 10'000,
                          .sequenceNumber = sequence,
                          .acknowledgementNumber = acknowledged},
                         {{2, extension}, {99, extension}},
                         payload};
        const Bytes datagram = packet.encode();
        const auto answer = stream.take(UTPPacket::decode(datagram), now);
        return answer ? std::optional(UTPPacket::decode(*answer).header) : std::nullopt;
    }
    std::string read() {
        Bytes bytes(100);
        bytes.resize(stream.read(bytes));
        return std::string(asText(bytes));
    }

    const Bytes extension{1, 2, 3, 4};
    Clock::TimePoint now{1h};
    UTPStream stream{7};
};

TEST_F(UTPStreamTest, deliversInOrderOnceAndAnswersAllDataWithHowFarItIs) {
    EXPECT_EQ(give(Type::data, 501, 1, toBytes("one"))->acknowledgementNumber, 501);
    EXPECT_EQ(give(Type::data, 503, 1, toBytes("three"))->acknowledgementNumber, 501);
    EXPECT_EQ(give(Type::data, 501, 1, toBytes("one"))->windowSize, UTPStream::maxBuffered - 3);
    EXPECT_EQ(give(Type::data, 502, 1, toBytes("two"), 8), std::nullopt) << "of another connection";
    EXPECT_EQ(give(Type::reset, 502, 1, {}, 9), std::nullopt);
    EXPECT_EQ(give(Type::data, 502, 1, toBytes("two"))->acknowledgementNumber, 502);
    EXPECT_EQ(give(Type::fin, 503, 1)->acknowledgementNumber, 503);
    EXPECT_EQ(give(Type::data, 504, 1, toBytes("late")), std::nullopt);
    EXPECT_EQ(read(), "onetwo");
    EXPECT_TRUE(stream.isFinished());
}

TEST_F(UTPStreamTest, isNotMisledByASecondPacketThatOvertookTheFirst) {
    stream.expectStart(toBytes("start"));
    EXPECT_EQ(give(Type::data, 501, 1, toBytes("two"))->acknowledgementNumber, 499);
    EXPECT_EQ(give(Type::data, 500, 1, toBytes("start, "))->acknowledgementNumber, 500);
    EXPECT_EQ(give(Type::data, 501, 1, toBytes("two"))->acknowledgementNumber, 501);
    EXPECT_EQ(read(), "start, two");
}

TEST_F(UTPStreamTest, sendsSixTimesByTheMeasuredRoundTripAndGivesTheNumberBack) {
    const Bytes chunk = toBytes("chunk");
    EXPECT_EQ(UTPPacket::decode(stream.sendPayload(chunk, now)).header.sequenceNumber, 2);
    now += 100ms;
    give(Type::state, 501, 1);
    EXPECT_TRUE(stream.isAwaitingAck());
    give(Type::state, 501, 2);
    EXPECT_FALSE(stream.isAwaitingAck());
    std::vector<std::int64_t> waits;
    Bytes last = stream.sendPayload(chunk, now);
    for (std::optional<Bytes> again = last; again; again = stream.retry(now)) {
        waits.push_back((stream.deadline() - now) / 1ms);
        now = stream.deadline();
        last = *again;
    }
    EXPECT_THAT(waits, ElementsAre(200, 400, 800, 1600, 3000, 3000));
    EXPECT_EQ(UTPPacket::decode(last).header.sequenceNumber, 3);
    EXPECT_EQ(asText(UTPPacket::decode(last).payload), "chunk");
    EXPECT_EQ(UTPPacket::decode(stream.sendPayload(chunk, now)).header.sequenceNumber, 3);
}

TEST_F(UTPStreamTest, goesRoundTheNumbersBothWays) {
    for (std::uint32_t i = 0; i < 70'000; ++i) {
        const auto theirs = static_cast<std::uint16_t>(501 + i);
        const auto ours = static_cast<std::uint16_t>(2 + i);
        ASSERT_EQ(give(Type::data, theirs, 1, toBytes("x"))->acknowledgementNumber, theirs);
        stream.sendPayload(toBytes("y"), now);
        ASSERT_EQ(stream.pendingSequence(), ours);
        give(Type::state, theirs, ours);
        ASSERT_FALSE(stream.isAwaitingAck());
        ASSERT_EQ(read(), "x");
    }
}

TEST_F(UTPStreamTest, takesNoMoreThanItHasRoomForAndTellsWhenThereIsRoomAgain) {
    const Bytes payload(1000);
    std::uint16_t sequence = 501;
    while (give(Type::data, sequence, 1, payload)->windowSize >= payload.size()) ++sequence;
    EXPECT_EQ(give(Type::data, sequence, 1, payload)->acknowledgementNumber, sequence);
    ++sequence;
    EXPECT_EQ(give(Type::data, sequence, 1, payload)->acknowledgementNumber, sequence - 1);
    EXPECT_EQ(stream.windowUpdate(now), std::nullopt);
    Bytes taken(UTPStream::maxBuffered);
    EXPECT_EQ(stream.read(taken), std::size_t{sequence - 501U} * 1000);
    const std::optional<Bytes> update = stream.windowUpdate(now);
    ASSERT_TRUE(update);
    EXPECT_EQ(UTPPacket::decode(*update).header.windowSize, UTPStream::maxBuffered);
    EXPECT_EQ(give(Type::data, sequence, 1, payload)->acknowledgementNumber, sequence);
}

class UTPTransportTest : public ConnectionFixture {
protected:
    ~UTPTransportTest() override { finish(); }
    void finish() {
        hangUp();
        if (acceptor) simulation.finish(acceptor->stop());
        simulation.settle();
    }
    void listen(UTPAcceptor::Path path) {
        finish();
        acceptor.emplace(simulation.executor(), simulation, path);
    }
    std::unique_ptr<UTPPeerWireTransport> makeTransport(const PeerAddress& address) {
        return std::make_unique<UTPPeerWireTransport>(simulation, log, resolver, address, 5s);
    }

    std::optional<UTPAcceptor> acceptor;
};

TEST_F(UTPTransportTest, carriesAConversationOverABadPathByEitherConvention) {
    Bytes content(400'000);
    for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<std::uint8_t>((i * 2654435761U) >> 13U);
    const auto blockOf = [&](const BlockRequest& asked) {
        const auto begin = content.begin() + asked.begin;
        return Bytes(begin, begin + asked.length);
    };
    std::vector<BlockRequest> wanted;
    for (int begin = 0; begin < 400'000; begin += 800) wanted.push_back({0, begin, 800});
    for (const bool hasStateNumber : {true, false}) {
        listen({0.05, 0.05, 0.05, 2ms, hasStateNumber, 65'500});
        makeConnection(makeTransport(acceptor->address()), acceptor->address());
        simulation.start(seedTo(*acceptor, 1, blockOf));
        simulation.start(connection->connect(60s));
        simulation.advanceUntil([&] { return connection->isConnected(); });
        connection->begin();
        connection->sendRequests(wanted);
        simulation.advanceUntil([&] { return received.size() >= content.size(); });
        EXPECT_EQ(received, content);
    }
}

TEST_F(UTPTransportTest, cutsWhatItSendsAndTakesItsLeave) {
    listen({});
    const auto transport = makeTransport(acceptor->address());
    simulation.finish(transport->start());
    simulation.finish(transport->send(Bytes(3000)));
    transport->cancel();
    simulation.advanceUntil([&] { return acceptor->seen.back().type == UTPAcceptor::fin; });
    std::vector<std::size_t> sizes;
    for (const UTPAcceptor::Packet& packet : acceptor->seen) sizes.push_back(packet.size);
    EXPECT_THAT(sizes, ElementsAre(0, 0, 1180, 1180, 640, 0)) << "opened, acknowledged, sent, ended";
}

TEST_F(UTPTransportTest, failsToOpenWithAPeerThatRefusesOrIsSilent) {
    for (const bool refuses : {true, false}) {
        ScriptedUDPServer server(simulation.executor(), [=](const ScriptedUDPServer::Seen& seen) {
            Bytes reset = seen.datagram;
            reset[0] = 0x31;
            return refuses ? std::vector<Bytes>{reset} : std::vector<Bytes>{};
        });
        const auto transport = makeTransport({"127.0.0.1", server.port()});
        auto open = simulation.begin(transport->start());
        simulation.advanceUntil([&] { return simulation.hasEnded(open); });
        EXPECT_THAT(
            simulation.failureOf(std::move(open)),
            testing::StartsWith(refuses ? "unexpected uTP open response: ST_RESET cid=" : "Peer connection timed out"));
        EXPECT_EQ(server.seen().size(), refuses ? 1U : 3U) << "the SYN is sent at 0, 1 and 3 of 5 s";
        simulation.finish(server.stop());
    }
}

}  // namespace
}  // namespace skein
