#include "app/api/HTTPServer.h"
#include "tests/app/api/RawClient.h"
#include "tests/support/RecordingLogger.h"

#include <gmock/gmock.h>

#include <list>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;

class HTTPServerTest : public testing::Test {
protected:
    HTTPServerTest() {
        server.bind("127.0.0.1", 0);
        server.accept();
    }
    ~HTTPServerTest() override { simulation.finish(server.stop()); }

    RawClient client() { return {simulation, server.port()}; }
    std::string answerTo(std::string_view request) {
        RawClient sender = client();
        sender.say(request);
        return sender.hearOut();
    }
    /// Whether the server leaves a client that said only this after `limit`, and not before.
    bool isCutAfter(std::string_view said, Clock::Duration limit) {
        RawClient slow = client();
        slow.say(said);
        const auto end = slow.beginToHearOut();
        const std::size_t before = simulation.sleepers();
        const int wholeHeads = said.find("\r\n\r\n") == std::string_view::npos ? 0 : 1;
        simulation.runUntil([&] { return heads == wholeHeads && simulation.sleepers() >= before; });
        // The server may not have begun to wait yet: what it waits for is then only longer.
        simulation.advance(limit - 1s);
        const bool wasEarly = Simulation::hasEnded(end);
        simulation.advanceUntil([&] { return Simulation::hasEnded(end); });
        return !wasEarly;
    }
    std::optional<HTTPServerResponse> guard(const HTTPServerRequest& request) {
        ++heads;
        if (request.header("x") != "no") return std::nullopt;
        return HTTPServerResponse{401, "text/plain", "no"};
    }
    static asio::awaitable<HTTPServerResponse> echo(HTTPServerRequest request) {
        co_return HTTPServerResponse{200, "text/plain", std::move(request.body)};
    }

    Simulation simulation;
    RecordingLogger log;
    int heads = 0;
    const HTTPServer::Callbacks callbacks{[this](const auto& request) { return guard(request); }, echo};
    HTTPServer server{asio::make_strand(simulation.executor()), simulation, log, callbacks};
};

TEST_F(HTTPServerTest, cutsOffWhoNeverFinishesARequest) {
    EXPECT_TRUE(isCutAfter("GET / HTTP/1.1\r\nHost:", HTTPServer::headPatience));
    EXPECT_TRUE(isCutAfter("POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nab", HTTPServer::patience));
}

TEST_F(HTTPServerTest, refusesWhatIsTooLargeOrNoRequestAndReadsNoBodyOfWhoIsRefused) {
    const std::string chunk = "4000\r\n" + std::string(0x4000, 'x') + "\r\n";
    const std::pair<std::string, const char*> wrong[] = {
        {"GET / HTTP/1.1\r\nA: " + std::string(20'000, 'a'), "HTTP/1.1 431"},
        {"POST / HTTP/1.1\r\nContent-Length: 65537\r\n\r\n", "HTTP/1.1 413"},
        {"POST / HTTP/1.1\r\nContent-Type: application/x-bittorrent\r\nContent-Length: 33554433\r\n\r\n",
         "HTTP/1.1 413"},
        {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk + chunk + chunk + chunk + chunk,
         "HTTP/1.1 413"},
        {"POST / HTTP/1.1\r\nX: no\r\nContent-Type: application/x-bittorrent\r\nContent-Length: 33554432\r\n\r\n",
         "HTTP/1.1 401"},
        {"GET /?q=" + std::string(10'000, 'q') + " HTTP/1.1\r\n\r\n", "HTTP/1.1 414"},
        {"GET /?q=" + std::string(20'000, 'q'), "HTTP/1.1 414"},
        {"GET /?folder=%FF HTTP/1.1\r\n\r\n", "HTTP/1.1 400"},
        {"nonsense\r\n\r\n", "HTTP/1.1 400"},
        {"GET no-path HTTP/1.1\r\n\r\n", "HTTP/1.1 400"},
    };
    for (const auto& [request, answer] : wrong) EXPECT_THAT(answerTo(request), StartsWith(answer));
    RawClient right = client();
    const std::string body(65'536, 'b');
    right.say("POST / HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 65536\r\n\r\n");
    EXPECT_EQ(right.hear(), "HTTP/1.1 100 Continue\r\n\r\n");
    right.say(body + "GET / HTTP/1.1\r\nConnection: close\r\n\r\n");
    EXPECT_THAT(right.hearOut(), HasSubstr("\r\n\r\n" + body + "HTTP/1.1 200"));
}

TEST_F(HTTPServerTest, holdsABoundedNumberOfConnections) {
    std::list<RawClient> clients;
    for (std::size_t i = 0; i < ConnectionRoom::maxProven; ++i) {
        clients.emplace_back(simulation, server.port()).say("GET / HTTP/1.1\r\n\r\n");
        EXPECT_THAT(clients.back().hear(), StartsWith("HTTP/1.1 200"));
    }
    EXPECT_THAT(answerTo("GET / HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 503"));
    clients.pop_front();
    simulation.runUntil(
        [&] { return answerTo("GET / HTTP/1.1\r\nConnection: close\r\n\r\n").starts_with("HTTP/1.1 200"); });
}

TEST_F(HTTPServerTest, letsTheOldestOfThoseWhoShowNothingGoForANewcomer) {
    RawClient known = client();
    known.say("GET / HTTP/1.1\r\n\r\n");
    EXPECT_THAT(known.hear(), StartsWith("HTTP/1.1 200"));
    std::list<RawClient> silent;
    const auto fillUp = [&](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) silent.emplace_back(simulation, server.port()).say("GET / HT");
    };
    fillUp(1);
    const auto oldest = silent.front().beginToHearOut();
    fillUp(2 * ConnectionRoom::maxUnproven);
    EXPECT_THAT(answerTo("GET / HTTP/1.1\r\nConnection: close\r\n\r\n"), StartsWith("HTTP/1.1 200"));
    EXPECT_TRUE(Simulation::hasEnded(oldest));
    silent.back().say("TP/1.1\r\nConnection: close\r\n\r\n");
    EXPECT_THAT(silent.back().hearOut(), StartsWith("HTTP/1.1 200"));
    known.say("POST / HTTP/1.1\r\nConnection: close\r\nContent-Length: 1\r\n\r\n!");
    EXPECT_THAT(known.hearOut(), testing::EndsWith("!"));
}

TEST_F(HTTPServerTest, holdsABoundedAmountOfUnfinishedBodies) {
    const std::string largest =
        "POST / HTTP/1.1\r\nContent-Type: application/x-bittorrent\r\nContent-Length: 33554432\r\n\r\n";
    std::list<RawClient> senders;
    for (std::uint64_t bytes = 0; bytes < HTTPServer::maxBodiesBytes; bytes += HTTPServer::maxTorrentBytes)
        senders.emplace_back(simulation, server.port()).say(largest);
    simulation.runUntil([&] { return heads == static_cast<int>(senders.size()); });
    EXPECT_THAT(answerTo(largest), StartsWith("HTTP/1.1 503"));
    EXPECT_THAT(answerTo("POST / HTTP/1.1\r\nConnection: close\r\nContent-Length: 1\r\n\r\n!"),
                StartsWith("HTTP/1.1 200"));
    senders.pop_front();
    RawClient next = client();
    next.say(
        "POST / HTTP/1.1\r\nContent-Type: application/x-bittorrent\r\nTransfer-Encoding: chunked\r\n"
        "Connection: close\r\n\r\n0\r\n\r\n");
    EXPECT_THAT(next.hearOut(), StartsWith("HTTP/1.1 200"));
}

}  // namespace
}  // namespace skein
