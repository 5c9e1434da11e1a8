#include "public/common/HTTPBodyBuffer.h"
#include "public/common/HTTPClient.h"
#include "public/common/HTTPStream.h"
#include "public/common/ThreadPools.h"
#include "public/common/Within.h"
#include "tests/support/ScriptedHTTPServer.h"
#include "tests/support/Simulation.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr, testing::StartsWith;

class HTTPClientTest : public testing::Test {
protected:
    ~HTTPClientTest() override {
        client.stop();
        simulation.finish(server.stop());
    }

    HTTPResponse fetch(HTTPRequest request) { return simulation.finish(client.fetch(std::move(request))); }
    HTTPResponse get(const std::string& url) { return fetch({.url = url}); }
    auto open(std::string url) { return simulation.finish(client.open({.url = std::move(url)})); }
    std::string failureOf(HTTPRequest request) { return simulation.failureOf(client.fetch(std::move(request))); }
    void waitForNobody() {
        simulation.runUntil([this] { return server.openConnections() == 0; });
    }

    Simulation simulation;
    HTTPReply reply = HTTPReply::text("hello");
    ScriptedHTTPServer::Script script = [this](const SeenHTTPRequest&) { return reply; };
    ScriptedHTTPServer server{simulation.executor(), [this](const SeenHTTPRequest& seen) { return script(seen); }};
    HTTPClient client;
};

TEST_F(HTTPClientTest, bringsStatusHeadersAndBodyOverOneConnection) {
    reply = HTTPReply::text("hello", 404);
    reply.headers = {{"X-Name", " value "}, {"Set-Cookie", "a=b"}};
    const HTTPResponse response = get(server.url("/a/../b?q=%20~#fragment"));
    EXPECT_EQ(response.status, 404);
    EXPECT_EQ(response.header("x-name"), "value");
    EXPECT_EQ(response.remoteAddress, IPAddress::parse("127.0.0.1"));
    EXPECT_EQ(asText(response.body), "hello");
    EXPECT_EQ(server.requests()[0].target, "/a/../b?q=%20~");
    get(server.url("/again"));
    EXPECT_EQ(server.acceptedConnections(), 1);
    const auto& headers = server.requests().back().headers;
    EXPECT_EQ(headers.at("user-agent"), "skein/" SKEIN_VERSION);
    EXPECT_EQ(headers.count("cookie"), 0U);
}

TEST_F(HTTPClientTest, sendsMethodHeadersAndBody) {
    HTTPRequest request{.method = "POST", .url = server.url()};
    request.headers = {{"Content-Type", "application/json"}, {"X-Empty", ""}};
    request.body = Bytes(100'000, 'x');
    fetch(request);
    const SeenHTTPRequest seen = server.requests()[0];
    EXPECT_EQ(seen.method, "POST");
    EXPECT_EQ(seen.body, request.body);
    EXPECT_EQ(seen.headers.at("content-type"), "application/json");
    EXPECT_EQ(seen.headers.at("x-empty"), "");
    EXPECT_TRUE(fetch({.method = "HEAD", .url = server.url()}).body.empty());
    fetch({.method = "POST", .url = server.url()});
    EXPECT_EQ(server.requests()[2].headers.count("content-type"), 0U);
}

TEST_F(HTTPClientTest, aPostWhoseAnswerIsLostIsNotSentAgain) {
    get(server.url());  // whose connection would be used again
    reply.raw = Bytes();
    reply.closes = true;
    EXPECT_THAT(failureOf({.method = "POST", .url = server.url()}), StartsWith("The transfer failed"));
    EXPECT_EQ(server.requests().size(), 2U);
}

TEST_F(HTTPClientTest, refusesRequestsThatAreNone) {
    for (const char* url : {"", "no url", "ftp://127.0.0.1/", "file:///etc/passwd", "http://", "http://a/ b",
                            "http://127.0.0.1/\r\nX: y", "udp://127.0.0.1:1"})
        EXPECT_THAT(failureOf({.url = url}), StartsWith("Not a valid HTTP request")) << url;
    const std::string failure = failureOf({.url = server.url(), .headers = {{"X", "a\r\nY: b"}}});
    EXPECT_THAT(failure, StartsWith("Not a valid HTTP request"));
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(HTTPClientTest, stopsABodyThatIsTooLargeAtTheLimit) {
    reply.body = Bytes(10'000, 'x');
    reply.repeats = 10'000;
    const HTTPRequest request{.url = server.url(), .maxBodyBytes = 50'000};
    EXPECT_THAT(failureOf(request), StartsWith("The response is too large: more than 50000 bytes"));
    waitForNobody();
    EXPECT_LT(server.sentBytes(), 20'000'000U);  // what the kernel's buffers took

    reply.repeats = 5;
    EXPECT_EQ(fetch(request).body.size(), 50'000U);
}

TEST_F(HTTPClientTest, whatIsNotHTTPIsAnError) {
    reply.closes = true;
    for (const std::string& raw :
         {std::string(), std::string(300, '\xFF'), std::string("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc")}) {
        reply.raw = toBytes(raw);
        EXPECT_THAT(failureOf({.url = server.url()}), StartsWith("The transfer failed"));
    }
    std::string endless = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < 10'000; ++i) endless += "X-Header-That-Is-Repeated: forever and a day\r\n";
    reply.raw = toBytes(endless);
    EXPECT_THAT(failureOf({.url = server.url()}), HasSubstr("too many headers"));
}

TEST_F(HTTPClientTest, aServerThatFallsSilentIsATimeout) {
    reply.stallAfter = 2;
    EXPECT_THAT(failureOf({.url = server.url(), .totalTimeout = 100ms}), StartsWith("The request timed out"));
    waitForNobody();
}

TEST_F(HTTPClientTest, sendsFromTheAddressItIsTold) {
    HTTPClient bound(HTTPClient::Options{.binding = LocalBinding("192.0.2.1")});  // nobody's
    EXPECT_THAT(simulation.failureOf(bound.fetch({.url = server.url()})), StartsWith("The host cannot be reached"));
}

TEST_F(HTTPClientTest, aURLFromOutsideLeadsToPublicAddressesAlone) {
    const std::string port = server.url().substr(server.url().rfind(':'));
    get(server.url());  // whose connection would be used again
    for (const char* host : {"127.0.0.1", "localhost", "2130706433", "[::ffff:127.0.0.1]", "0.0.0.0"}) {
        const std::string failure = failureOf({.url = "http://" + (host + port), .origin = AddressOrigin::fromOutside});
        EXPECT_THAT(failure, StartsWith("The host is not asked: The address is not public")) << host;
    }
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(HTTPClientTest, followsFiveRedirectsAndNoSixth) {
    int redirects = 5;
    script = [&](const SeenHTTPRequest& seen) {
        const int number = std::stoi(seen.target.substr(1));
        return number == redirects ? HTTPReply::text("there") : HTTPReply::redirect("/" + std::to_string(number + 1));
    };
    const HTTPResponse response = get(server.url("/0"));
    EXPECT_EQ(asText(response.body), "there");
    EXPECT_EQ(response.url, server.url("/5"));
    redirects = -1;
    EXPECT_THAT(failureOf({.url = server.url("/0")}), StartsWith("Too many redirects"));
    EXPECT_EQ(server.requests().size(), 12U);
}

TEST_F(HTTPClientTest, aRedirectElsewhereTakesNeitherCredentialsNorBodyNorAnotherScheme) {
    ScriptedHTTPServer other(simulation.executor(), [](const SeenHTTPRequest&) { return HTTPReply::text("other"); });
    int status = 302;
    std::string target = other.url();
    script = [&](const SeenHTTPRequest& seen) {
        return seen.target == "/" ? HTTPReply::redirect(target, status) : HTTPReply::text("same");
    };
    HTTPRequest request{.url = server.url()};
    request.headers = {{"Authorization", "secret"}, {"X-Token", "secret"}, {"Range", "bytes=5-"}};
    EXPECT_EQ(asText(fetch(request).body), "other");
    const auto& headers = other.requests()[0].headers;
    EXPECT_EQ(headers.count("authorization") + headers.count("x-token"), 0U);
    EXPECT_EQ(headers.at("range"), "bytes=5-");

    request.method = "POST";
    request.body = toBytes("secret");
    EXPECT_EQ(asText(fetch(request).body), "other");  // 302: a GET without the body
    EXPECT_EQ(other.requests()[1].method, "GET");
    EXPECT_TRUE(other.requests()[1].body.empty());
    status = 307;
    EXPECT_THAT(failureOf(request), StartsWith("The redirect is not allowed"));
    target = "/same";
    EXPECT_EQ(asText(fetch(request).body), "same");
    EXPECT_EQ(server.requests().back().headers.at("authorization"), "secret");
    EXPECT_EQ(asText(server.requests().back().body), "secret");
    target = "file:///etc/passwd";
    EXPECT_THAT(failureOf(request), StartsWith("The redirect is not allowed"));
    simulation.finish(other.stop());
}

TEST_F(HTTPClientTest, noRedirectLeadsFromAPublicHostInside) {
    HTTPClient::Options options;
    options.scopeOf = [](const IPAddress& address) {
        return address.isIPv4() ? AddressScope::global : AddressScope::loopback;
    };
    HTTPClient outside(options);
    const auto failure = [&] { return simulation.failureOf(outside.fetch({.url = server.url()})); };
    ScriptedHTTPServer inner(simulation.executor(), script, "::1");
    script = [&](const SeenHTTPRequest&) { return HTTPReply::redirect(inner.url()); };
    EXPECT_THAT(failure(), StartsWith("The redirect is not allowed"));
    EXPECT_EQ(inner.acceptedConnections(), 0);

    // Asked for by itself it is fine, and its connection is kept.
    EXPECT_EQ(simulation.finish(outside.fetch({.url = inner.url()})).status, 200);
    EXPECT_THAT(failure(), StartsWith("The redirect is not allowed"));
    EXPECT_EQ(inner.requests().size(), 1U);

    EXPECT_EQ(get(server.url()).status, 200);  // from one loopback address to another
    simulation.finish(inner.stop());
}

TEST_F(HTTPClientTest, cancellingTheCallerEndsTheTransfer) {
    reply.stallAfter = 0;
    EXPECT_THROW(simulation.finish(within(simulation, 0s, client.fetch({.url = server.url()}))), TimeLimitExceeded);
    waitForNobody();

    auto pending = simulation.begin(within(simulation, 1s, client.fetch({.url = server.url()})));
    simulation.runUntil([&] { return server.openConnections() == 1 && !server.requests().empty(); });
    simulation.advance(1s);
    EXPECT_THROW(simulation.finish(std::move(pending)), TimeLimitExceeded);
    waitForNobody();
}

TEST_F(HTTPClientTest, aStreamTellsTheHeadFirstAndHoldsTheSenderBack) {
    reply.body.resize(100'400);  // a multiple of 251
    for (std::size_t i = 0; i < reply.body.size(); ++i) reply.body[i] = static_cast<std::uint8_t>(i % 251);
    reply.repeats = 300;
    script = [this](const SeenHTTPRequest& seen) { return seen.target == "/" ? HTTPReply::redirect("/file") : reply; };
    auto stream = open(server.url());
    EXPECT_EQ(stream->head().url, server.url("/file"));
    EXPECT_EQ(stream->head().header("content-length"), "30120000");
    simulation.runUntilStill([this] { return server.sentBytes(); });
    EXPECT_LT(server.sentBytes(), 20'000'000U);  // what is held, and what the kernel's buffers took
    std::size_t size = 0;
    for (;;) {
        std::vector<Bytes> chunks = simulation.finish(stream->read());
        if (chunks.empty()) break;
        std::size_t held = 0;
        for (const Bytes& chunk : chunks) {
            held += chunk.size();
            for (const std::uint8_t byte : chunk) ASSERT_EQ(byte, size++ % 251);
        }
        EXPECT_LE(held, HTTPBodyBuffer::maxHeldBytes);
        stream->recycle(std::move(chunks));
    }
    EXPECT_EQ(size, 30'120'000U);
}

TEST_F(HTTPClientTest, aStreamEndsWithItsOwnerItsReaderAndItsClient) {
    reply.body = Bytes(10, 'x');
    reply.stallAfter = 5;
    auto stream = open(server.url());
    EXPECT_EQ(simulation.finish(stream->read()).front().size(), 5U);
    EXPECT_THROW(simulation.finish(within(simulation, 0s, stream->read())), TimeLimitExceeded);
    waitForNobody();
    stream = open(server.url());
    stream.reset();
    waitForNobody();
    stream = open(server.url());
    client.stop();
    EXPECT_THROW(simulation.finish(stream->read()), boost::system::system_error);
}

TEST_F(HTTPClientTest, servesManyThreadsUntilItIsStopped) {
    ThreadPools pools;
    const auto begin = [&] {
        return asio::co_spawn(pools.io(), client.fetch({.url = server.url()}), asio::use_future);
    };
    std::vector<std::future<HTTPResponse>> pending(100);
    for (auto& future : pending) future = begin();
    for (auto& future : pending) EXPECT_EQ(simulation.finish(std::move(future)).status, 200);
    reply.stallAfter = 0;
    auto stalled = begin();
    simulation.runUntil([&] { return server.requests().size() == 101; });
    client.stop();  // before the pools go, on which it resumes its callers
    EXPECT_THROW(stalled.get(), boost::system::system_error);
    EXPECT_THROW(get(server.url()), boost::system::system_error);
}

}  // namespace
}  // namespace skein
