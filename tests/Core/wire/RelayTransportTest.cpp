#include "Core/wire/RelayError.h"
#include "Core/wire/RelayInbox.h"
#include "Core/wire/RelayPeerWireTransport.h"
#include "public/common/Within.h"
#include "tests/Core/wire/ConnectionFixture.h"
#include "tests/support/ScriptedWebSocketServer.h"

#include <boost/system/system_error.hpp>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

const std::string closed = "Relay connection closed";

std::string urlOf(std::uint16_t port) { return "http://127.0.0.1:" + std::to_string(port); }

class RelayTransportTest : public ConnectionFixture {
protected:
    ~RelayTransportTest() override {
        hangUp();
        leave();
        simulation.finish(server.stop());
    }

    std::unique_ptr<RelayTransport> relayTo(const std::string& url) {
        const RelayTransport::Request request{url, hash, "leecher", "me", "t&", "d 1", mode};
        return std::make_unique<RelayTransport>(environment, request);
    }
    void connect(const std::string& path = {}) {
        relay = relayTo(serviceURL + path);
        simulation.finish(relay->connect());
        simulation.runUntil([this] { return other != nullptr; });
    }
    void leave() {
        relay.reset();
        simulation.runUntil([this] { return server.openConnections() == 0; });
    }
    void give(WebSocketMessage message) { simulation.finish(other->send(std::move(message))); }

    /// The service: says `word`, if any, then notes what it is sent and how that ends.
    asio::awaitable<void> pair(ServerWebSocket& socket) {
        seen = {socket.target(), socket.header("X-User-Id"), socket.header("X-User-Token"),
                socket.header("X-Device-Id")};
        co_await socket.accept();
        WebSocketMessage first = word.value_or(WebSocketMessage());
        if (word) co_await socket.send(std::move(first));
        other = &socket;
        try {
            for (;;) {
                WebSocketMessage message = co_await socket.receive();
                sent.push_back(std::move(message));
            }
        } catch (const boost::system::system_error& error) {
            goodbye = error.code().message();
        }
        other = nullptr;
    }

    SystemNameResolver resolver;
    const std::string hash = std::string(40, 'a');
    const RelayTransport::Environment environment{strand, simulation, resolver};
    std::optional<std::string> mode;
    std::optional<WebSocketMessage> word = WebSocketMessage::text("ready");
    std::function<asio::awaitable<void>(ServerWebSocket&)> script = [this](ServerWebSocket& socket) {
        return pair(socket);
    };
    ScriptedWebSocketServer server{simulation.executor(), [this](ServerWebSocket& socket) { return script(socket); }};
    const std::string serviceURL = urlOf(server.port());
    ServerWebSocket* other = nullptr;
    std::vector<std::string> seen;
    std::vector<WebSocketMessage> sent;  ///< by us
    std::string goodbye;
    std::unique_ptr<RelayTransport> relay;
};

TEST_F(RelayTransportTest, asksTheServiceForAPartnerAsTheUserOfThisDevice) {
    connect();
    EXPECT_THAT(seen, ElementsAre("/api/relay/ws?info_hash=" + hash + "&role=leecher", "me", "t&", "d 1"));
    leave();
    mode = "a&b +é";
    connect("/base/?ignored=1");
    EXPECT_EQ(seen.at(0), "/base/api/relay/ws?info_hash=" + hash + "&role=leecher&mode=a%26b%20%2B%C3%A9");

    for (const char* const bad : {"", "no url", "127.0.0.1:80", "http://", "http://host:99999", "http://host:1x/"}) {
        const auto isExpected = testing::ThrowsMessage<RelayException>(testing::StrEq("Invalid relay server URL"));
        EXPECT_THAT([&] { relayTo(bad); }, isExpected) << bad;
    }
}

TEST_F(RelayTransportTest, speaksTLSExactlyWhenTheServiceDoes) {
    for (const auto& [scheme, first] : {std::pair("https", 22), {"HTTPS", 22}, {"http", 'G'}, {"ftp", 'G'}}) {
        relay = relayTo(scheme + ("://" + peer.address().description()));
        auto pairing = simulation.begin(relay->connect());
        simulation.finish(peer.accept());
        EXPECT_EQ(simulation.finish(peer.read(1))[0], first) << "22 opens a TLS handshake";
        relay.reset();
        EXPECT_EQ(simulation.failureOf(std::move(pairing)), closed);
    }
}

TEST_F(RelayTransportTest, tellsWhyThereWasNoPairing) {
    const auto failure = [this](const std::string& url) {
        relay = relayTo(url);
        std::string text = simulation.failureOf(relay->connect());
        EXPECT_EQ(simulation.failureOf(relay->receive(1)), closed);
        EXPECT_EQ(simulation.failureOf(relay->send(Bytes(1))), closed);
        return text;
    };
    word = WebSocketMessage::text("no credit, 无余额");
    makeConnection(std::make_unique<RelayPeerWireTransport>(relayTo(serviceURL), true), {"10.0.0.1", 1});
    EXPECT_EQ(simulation.failureOf(connection->connect(45s)), "Relay rejected: no credit, 无余额");
    EXPECT_FALSE(connection->hasReachedPeer());
    word = WebSocketMessage::text(std::string(100'000, 'x'));
    EXPECT_EQ(failure(serviceURL), "Relay rejected: " + std::string(512, 'x'));
    word = WebSocketMessage::binary(asBytes("ready"));
    EXPECT_EQ(failure(serviceURL), "Relay rejected: unexpected message type");
    script = [](ServerWebSocket& socket) { return socket.refuse(401); };
    EXPECT_EQ(failure(serviceURL), "Relay rejected: The server refused the websocket: HTTP 401");
    script = [](ServerWebSocket& socket) { return socket.accept(); };  // and leaves
    EXPECT_EQ(failure(serviceURL), closed);
    EXPECT_EQ(failure(urlOf(1)), closed);
}

TEST_F(RelayTransportTest, waits38SecondsForThePairingHoweverFarItCame) {
    word.reset();
    for (const std::uint16_t port : {server.port(), peer.address().port}) {
        relay = relayTo(urlOf(port));
        auto pairing = simulation.begin(relay->connect());
        simulation.runUntil([&] { return port != server.port() || other != nullptr; });
        simulation.settle();
        simulation.advance(37'999ms);
        EXPECT_FALSE(simulation.hasEnded(pairing));
        simulation.advance(1ms);
        EXPECT_EQ(simulation.failureOf(std::move(pairing)), "Relay pairing timeout");
    }
}

TEST_F(RelayTransportTest, readsAcrossMessagesOfEitherKindInTheOrderOfTheCalls) {
    connect();
    auto whole = simulation.begin(relay->receive(68));
    give(WebSocketMessage::binary(Bytes(20, 'a')));
    give(WebSocketMessage::binary({}));
    give(WebSocketMessage::binary(Bytes(47, 'b')));
    simulation.settle();
    EXPECT_FALSE(simulation.hasEnded(whole));
    give(WebSocketMessage::text("c"));
    EXPECT_EQ(simulation.finish(std::move(whole)), toBytes(std::string(20, 'a') + std::string(47, 'b') + "c"));

    give(WebSocketMessage::binary(asBytes("onetwoabcdefgh")));
    EXPECT_EQ(simulation.finish(relay->receive(3)), toBytes("one"));
    EXPECT_EQ(simulation.finish(relay->receive(3)), toBytes("two"));

    // Small reads wait behind a large one, though there are bytes, and are served when it gives up.
    auto large = simulation.begin(within(simulation, 5s, relay->receive(100)));
    auto four = simulation.begin(relay->receive(4));
    auto two = simulation.begin(relay->receive(2));
    simulation.settle();
    simulation.advance(4s);
    EXPECT_FALSE(simulation.hasEnded(four) || simulation.hasEnded(two));
    simulation.advance(1s);
    EXPECT_EQ(simulation.failureOf(std::move(large)), "Timed out");
    EXPECT_EQ(simulation.finish(std::move(four)), toBytes("abcd"));
    EXPECT_EQ(simulation.finish(std::move(two)), toBytes("ef"));
    Bytes some(10);
    EXPECT_EQ(simulation.finish(relay->receiveSome(some)), 2U);
    EXPECT_THAT(std::string(asText(some)), testing::StartsWith("gh"));
}

TEST_F(RelayTransportTest, sendsBinaryMessagesThatEverybodyTakesAndSaysGoodbyeWhenCancelled) {
    connect();
    RelayTransport& raw = *relay;
    RelayPeerWireTransport transport(std::move(relay), false);
    constexpr std::size_t largest = RelayPeerWireTransport::largestMessage;
    const Bytes much(largest * 2 + 1, 5);
    simulation.finish(transport.send(much));
    simulation.runUntil([this] { return sent.size() == 3; });
    EXPECT_EQ(sent[0].data, Bytes(largest, 5));
    EXPECT_EQ(sent[2].data, Bytes(1, 5));
    EXPECT_FALSE(sent[0].isText || sent[2].isText);

    give(WebSocketMessage::binary(asBytes("read, unread")));
    EXPECT_EQ(simulation.finish(transport.receive(4)), toBytes("read"));
    auto large = simulation.begin(raw.receive(100));
    auto small = simulation.begin(transport.receive(1));
    simulation.settle();
    transport.cancel();
    EXPECT_EQ(simulation.failureOf(std::move(large)), closed);
    EXPECT_EQ(simulation.failureOf(std::move(small)), "Peer connection closed");
    EXPECT_EQ(simulation.failureOf(raw.receive(1)), closed) << "though there were bytes";
    EXPECT_EQ(simulation.failureOf(transport.send(much)), "Peer connection closed");
    transport.cancel();
    simulation.runUntil([this] { return !goodbye.empty(); });
    EXPECT_THAT(goodbye, testing::HasSubstr("gracefully closed"));
}

TEST_F(RelayTransportTest, slowsTheServiceDownWhileNobodyReadsAndStillServesAnyRead) {
    constexpr int messages = 1024;
    constexpr std::size_t size = std::size_t{64} << 10U;
    connect();
    int given = 0;
    simulation.start([](ServerWebSocket& to, int& count) -> asio::awaitable<void> {
        for (; count < messages; ++count) {
            WebSocketMessage message{false, Bytes(size, static_cast<std::uint8_t>(count))};
            co_await to.send(std::move(message));
        }
    }(*other, given));
    simulation.runUntilStill([&] { return given; });
    EXPECT_GT(given * size, RelayInbox::comfortableBytes);
    EXPECT_LT(given, messages / 2) << "the system's own buffers hold some";

    const Bytes all = simulation.finish(relay->receive(messages * size));
    EXPECT_EQ(given, messages);
    bool isInOrder = true;
    for (std::size_t i = 0; i < all.size(); ++i) isInOrder = isInOrder && all[i] == static_cast<std::uint8_t>(i / size);
    EXPECT_TRUE(isInOrder);

    // What waits when the service breaks off fails too.
    auto reading = simulation.begin(relay->receive(1));
    simulation.settle();
    server.cutAll();
    EXPECT_EQ(simulation.failureOf(std::move(reading)), closed);
    EXPECT_EQ(simulation.failureOf(relay->receive(1)), closed);
}

TEST_F(RelayTransportTest, mayBeDroppedAtAnyTime) {
    for (int turns = 0; turns < 40; ++turns) {
        const bool isPaired = turns >= 20;
        word = isPaired ? std::optional(WebSocketMessage::text("ready")) : std::nullopt;
        relay = relayTo(serviceURL);
        if (isPaired) connect();
        auto reading = simulation.begin(relay->receive(10));
        auto task = simulation.begin(isPaired ? relay->send(Bytes(std::size_t{16} << 20U)) : relay->connect());
        int polled = 0;
        simulation.runUntil([&] { return ++polled > turns % 20; });
        leave();
        EXPECT_EQ(simulation.failureOf(std::move(reading)), closed);
        EXPECT_EQ(simulation.failureOf(std::move(task)), closed);
    }
}

}  // namespace
}  // namespace skein
