#include "Core/wire/RelayError.h"
#include "Core/wire/RelayInbox.h"
#include "Core/wire/RelayPeerWireTransport.h"
#include "public/common/Within.h"
#include "tests/Core/wire/ConnectionFixture.h"
#include "tests/support/RelayPairing.h"
#include "tests/support/ScriptedWebSocketServer.h"

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

    std::unique_ptr<RelayTransport> relayTo(const std::string& url, std::string role = "leecher",
                                            std::string user = "me") {
        const RelayTransport::Request request{url, hash, std::move(role), std::move(user), "t&", "d 1", mode};
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
    std::string read(std::size_t count) { return std::string(asText(simulation.finish(relay->receive(count)))); }

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
    const RelayTransport::Environment environment{strand, simulation, resolver, ""};
    std::optional<std::string> mode;
    std::optional<WebSocketMessage> word = WebSocketMessage::text("ready");
    std::function<asio::awaitable<void>(ServerWebSocket&)> script = [this](ServerWebSocket& socket) {
        return pair(socket);
    };
    ScriptedWebSocketServer server{simulation.executor(),
                                   [this](ServerWebSocket& socket) -> asio::awaitable<void> { return script(socket); }};
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
    for (const std::string scheme : {"https", "HTTPS", "http", "ftp"}) {
        relay = relayTo(scheme + "://" + peer.address().description());
        auto pairing = simulation.begin(relay->connect());
        simulation.finish(peer.accept());
        const bool isSecure = scheme == "https" || scheme == "HTTPS";
        EXPECT_EQ(simulation.finish(peer.read(1))[0], isSecure ? 22 : 'G') << "22 opens a TLS handshake";
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
    EXPECT_EQ(failure(serviceURL), "Relay rejected: no credit, 无余额");
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
    EXPECT_EQ(read(3), "one");
    EXPECT_EQ(read(3), "two");

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

TEST_F(RelayTransportTest, sendsOneBinaryMessageACallAndSaysGoodbyeWhenCancelled) {
    connect();
    simulation.start(relay->send(Bytes(300'000, 1)));
    simulation.start(relay->send(asBytes("two")));
    simulation.runUntil([this] { return sent.size() == 2; });
    EXPECT_EQ(sent[0].data, Bytes(300'000, 1));
    EXPECT_EQ(sent[1].view(), "two");
    EXPECT_FALSE(sent[0].isText || sent[1].isText);

    give(WebSocketMessage::binary(asBytes("read, unread")));
    EXPECT_EQ(read(4), "read");
    auto large = simulation.begin(relay->receive(100));
    auto small = simulation.begin(relay->receive(1));
    simulation.settle();
    relay->cancel();
    EXPECT_EQ(simulation.failureOf(std::move(large)), closed);
    EXPECT_EQ(simulation.failureOf(std::move(small)), closed);
    EXPECT_EQ(simulation.failureOf(relay->receive(1)), closed) << "though there were bytes";
    relay->cancel();
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
    for (const bool isPaired : {false, true}) {
        if (!isPaired) word.reset();
        if (isPaired) word = WebSocketMessage::text("ready");
        for (int turns = 0; turns < 20; ++turns) {
            if (isPaired) {
                connect();
            } else {
                relay = relayTo(serviceURL);
            }
            auto reading = simulation.begin(relay->receive(10));
            auto task = simulation.begin(isPaired ? relay->send(Bytes(std::size_t{16} << 20U)) : relay->connect());
            int polled = 0;
            simulation.runUntil([&] { return ++polled > turns; });
            leave();
            EXPECT_EQ(simulation.failureOf(std::move(reading)), closed);
            EXPECT_EQ(simulation.failureOf(std::move(task)), closed);
        }
    }
}

class RelayedPeersTest : public RelayTransportTest {
protected:
    RelayedPeersTest() {
        script = [this](ServerWebSocket& socket) { return pairing.serve(socket); };
        makeConnection(transportOf("leecher"), anywhere);
    }
    ~RelayedPeersTest() override {
        simulation.finish(seeder->stop());
        hangUp();
        leave();
    }
    std::unique_ptr<RelayPeerWireTransport> transportOf(const std::string& role) {
        return std::make_unique<RelayPeerWireTransport>(relayTo(serviceURL, role, "the " + role), true);
    }

    const PeerAddress anywhere{"10.0.0.1", 1};
    RelayPairing pairing;
    const std::unique_ptr<PeerConnection> seeder =
        connectionOver(transportOf("seeder"), anywhere, PeerDirection::incoming);
};

TEST_F(RelayedPeersTest, shakeHandsAndExchangeABlockWhichTheServiceCounts) {
    simulation.start(seeder->accept(45s));
    simulation.finish(connection->connect(45s));
    simulation.runUntil([this] { return seeder->isConnected(); });
    EXPECT_EQ(connection->transportKind(), PeerTransport::relay);
    seeder->begin();
    connection->begin();
    seeder->sendUnchoke();
    simulation.runUntil([this] { return !connection->peerChoking(); });
    const BlockRequest wanted{3, 16384, 16384};
    connection->sendRequests(std::span(&wanted, 1));
    simulation.runUntil([&] { return !received.empty(); });
    EXPECT_EQ(received, Bytes(16384, 3));

    // 68 bytes of handshake each way; a request one way, an unchoke and a piece the other.
    const std::map<RelayPairing::Route, std::int64_t> expected{{{hash, "the leecher", "the seeder"}, 68 + 17},
                                                               {{hash, "the seeder", "the leecher"}, 68 + 5 + 16397}};
    simulation.runUntil([&] { return pairing.carried() == expected; });
    seeder->disconnect();
    EXPECT_EQ(endOfConversation(), "Peer connection closed");
}

TEST_F(RelayedPeersTest, hearWhyTheServiceWillNotHaveIt) {
    pairing.refuseAll("maintenance");
    EXPECT_EQ(simulation.failureOf(connection->connect(45s)), "Relay rejected: maintenance");
    EXPECT_FALSE(connection->hasReachedPeer());
}

TEST_F(RelayedPeersTest, writeMuchInMessagesThatEverybodyTakes) {
    script = [this](ServerWebSocket& socket) { return pair(socket); };
    connect();
    RelayPeerWireTransport transport(std::move(relay), false);
    simulation.finish(transport.start());
    constexpr std::size_t largest = RelayPeerWireTransport::largestMessage;
    const Bytes much(largest * 2 + 1, 5);
    simulation.finish(transport.send(much));
    simulation.runUntil([this] { return sent.size() == 3; });
    EXPECT_EQ(sent[0].data.size(), largest);
    EXPECT_EQ(sent[2].data.size(), 1U);

    auto reading = simulation.begin(transport.receive(1));
    simulation.settle();
    transport.cancel();
    EXPECT_EQ(simulation.failureOf(std::move(reading)), "Peer connection closed");
    EXPECT_EQ(simulation.failureOf(transport.send(much)), "Peer connection closed");
}

}  // namespace
}  // namespace skein
