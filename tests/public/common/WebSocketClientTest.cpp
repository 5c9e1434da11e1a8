#include "public/common/WebSocketClient.h"
#include "public/common/Within.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/ScriptedWebSocketServer.h"
#include "tests/support/Simulation.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>

#include <cstdlib>

namespace skein {
namespace {

using namespace std::chrono_literals;
using asio::ip::tcp;
using testing::FieldsAre, testing::StartsWith;

const std::string certificate = SKEIN_TEST_CERTIFICATE;
// The program reads its trusted certificates once; here it is to trust the one of the test's server.
[[maybe_unused]] const int trusted = setenv("SSL_CERT_FILE", certificate.c_str(), 1);

class WebSocketClientTest : public testing::Test {
protected:
    ~WebSocketClientTest() override {
        if (client) simulation.finish(client->stop());
        simulation.finish(server.stop());
    }

    /// In place of the last one.
    void make(WebSocketRequest request) {
        if (client) simulation.finish(client->stop());
        client.emplace(simulation.executor(), simulation, resolver, std::move(request));
    }
    std::string failureToOpen(WebSocketRequest request) {
        make(std::move(request));
        return simulation.failureOf(client->open());
    }
    void open(WebSocketRequest request) { ASSERT_EQ(failureToOpen(std::move(request)), "none"); }

    asio::awaitable<void> echo(ServerWebSocket& socket) {
        seen = {socket.target(), socket.header("X-User-Id"), socket.header("Host")};
        co_await socket.accept();
        for (;;) {
            WebSocketMessage message = co_await socket.receive();
            co_await socket.send(std::move(message));
        }
    }

    Simulation simulation;
    SystemNameResolver resolver;
    std::vector<std::string> seen;
    ScriptedWebSocketServer server{simulation.executor(), [this](ServerWebSocket& socket) { return echo(socket); }};
    ScriptedPeer silent{simulation.executor()};
    std::optional<WebSocketClient> client;
};

TEST_F(WebSocketClientTest, carriesTextAndBytesBothWaysInOrder) {
    open({.url = server.url("/a/b?c=d%20e"), .headers = {{"X-User-Id", "u1"}}});
    EXPECT_THAT(seen, testing::ElementsAre("/a/b?c=d%20e", "u1", "127.0.0.1:" + std::to_string(server.port())));

    // Sends that are begun at once go out in the order begun.
    const Bytes large(300'000, 7);
    simulation.start(client->send(WebSocketMessage::text("one")));
    simulation.start(client->send(WebSocketMessage::binary(large)));
    simulation.start(client->send(WebSocketMessage::text("")));
    EXPECT_THAT(simulation.finish(client->receive()), FieldsAre(true, toBytes("one")));
    EXPECT_THAT(simulation.finish(client->receive()), FieldsAre(false, large));
    EXPECT_THAT(simulation.finish(client->receive()), FieldsAre(true, Bytes()));

    auto waiting = simulation.begin(client->receive());
    simulation.finish(client->stop());
    simulation.runUntil([this] { return server.openConnections() == 0; });
    EXPECT_THROW(simulation.finish(std::move(waiting)), boost::system::system_error);
}

TEST_F(WebSocketClientTest, refusesWhatIsNoWebSocketAndMessagesThatAreTooLarge) {
    for (const std::string url : {"http://127.0.0.1/", "ws:///x", "", "127.0.0.1:1", "ws://127.0.0.1:99999/"})
        EXPECT_EQ(failureToOpen({.url = url}), "Invalid websocket URL: " + url);

    open({.url = server.url(), .maxMessageBytes = 1000});
    simulation.finish(client->send(WebSocketMessage::binary(Bytes(1001))));
    EXPECT_THAT(simulation.failureOf(client->receive()), StartsWith("Connection closed: "));
}

TEST_F(WebSocketClientTest, givesUpOnASilentServerAndWhenItsCallerDoes) {
    make({.url = "ws://" + silent.address().description() + "/", .openTimeout = 15s});
    auto opening = simulation.begin(client->open());
    simulation.settle();
    simulation.advance(15s);
    EXPECT_EQ(simulation.failureOf(std::move(opening)), "Timed out");

    open({.url = server.url()});
    auto message = simulation.begin(within(simulation, 5s, client->receive()));
    simulation.settle();
    simulation.advance(5s);
    EXPECT_EQ(simulation.failureOf(std::move(message)), "Timed out");
    EXPECT_THAT(simulation.failureOf(client->receive()), StartsWith("Connection closed: "));
}

/// Serves one `wss` connection: answers one message with itself.
asio::awaitable<void> echoSecurely(tcp::acceptor& acceptor) {
    asio::ssl::context context(asio::ssl::context::tls_server);
    context.use_certificate_chain_file(certificate);
    context.use_private_key_file(certificate, asio::ssl::context::pem);
    boost::beast::websocket::stream<asio::ssl::stream<tcp::socket>> socket(acceptor.get_executor(), context);
    co_await acceptor.async_accept(boost::beast::get_lowest_layer(socket), asio::use_awaitable);
    co_await socket.next_layer().async_handshake(asio::ssl::stream_base::server, asio::use_awaitable);
    co_await socket.async_accept(asio::use_awaitable);
    boost::beast::flat_buffer buffer;
    co_await socket.async_read(buffer, asio::use_awaitable);
    co_await socket.async_write(buffer.data(), asio::use_awaitable);
    co_await socket.async_read(buffer, asio::use_awaitable);
}

TEST_F(WebSocketClientTest, trustsOnlyACertificateThatNamesTheHost) {
    tcp::acceptor acceptor(simulation.executor(), tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
    const std::string port = std::to_string(acceptor.local_endpoint().port());
    simulation.start(echoSecurely(acceptor));
    open({.url = "wss://127.0.0.1:" + port + "/"});
    simulation.finish(client->send(WebSocketMessage::text("hidden")));
    EXPECT_EQ(simulation.finish(client->receive()).view(), "hidden");

    simulation.start(echoSecurely(acceptor));
    EXPECT_THAT(failureToOpen({.url = "wss://localhost:" + port + "/"}), StartsWith("Insecure connection refused: "));
}

}  // namespace
}  // namespace skein
