#include "app/api/APIEvent.h"
#include "app/api/EventStreams.h"
#include "downloads/TaskListChanged.h"
#include "public/common/WebSocketClient.h"
#include "tests/app/api/LocalAPITest.h"
#include "tests/app/api/RawClient.h"

#include <gmock/gmock.h>

#include <deque>

namespace skein {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;
using testing::HasSubstr;
using testing::StartsWith;

/// One reader, and what it was told.
struct Reader {
    Reader(Simulation& time, NameResolver& resolver, const std::string& url)
        : simulation(time),
          client(simulation.executor(), simulation, resolver,
                 {.url = url, .headers = {{"Authorization", "Bearer secret"}}, .maxMessageBytes = 50'000'000}) {
        simulation.finish(client.open());
        receiving = simulation.begin(receive());
    }
    ~Reader() {
        simulation.finish(client.stop());
        simulation.runUntil([this] { return hasEnded(); });
    }

    bool hasEnded() const { return Simulation::hasEnded(receiving); }
    std::string next() {
        simulation.runUntil([this] { return !told.empty(); });
        std::string text = std::move(told.front());
        told.pop_front();
        return text;
    }

    asio::awaitable<void> receive() {
        for (;;) {
            const WebSocketMessage message = co_await client.receive();
            told.emplace_back(message.view());
        }
    }

    Simulation& simulation;
    std::deque<std::string> told;
    WebSocketClient client;
    std::future<void> receiving;
};

class EventStreamsTest : public LocalAPITest {
protected:
    std::unique_ptr<Reader> reader() {
        return std::make_unique<Reader>(simulation, host.resolver, "ws://" + address() + "/api/v1/events");
    }
    /// One whose upgrade was answered, and who says no more by itself.
    std::unique_ptr<RawClient> rawReader() {
        auto raw = std::make_unique<RawClient>(simulation, api.port());
        raw->say(upgrade());
        EXPECT_THAT(raw->hear(), StartsWith("HTTP/1.1 101"));
        return raw;
    }
    std::string upgrade() const {
        return "GET /api/v1/events?token=secret HTTP/1.1\r\nHost: " + address() +
               "\r\nConnection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n"
               "Sec-WebSocket-Version: 13\r\n\r\n";
    }
};

TEST_F(EventStreamsTest, tellsTheListAndThenWhatChangesAtMostFourTimesASecond) {
    const auto task = manager.addHTTPDownload("no link");
    const std::string infoHash = task->infoHash;
    const auto one = reader();
    EXPECT_EQ(json::parse(one->next()).at("tasks").at(0).at("errorMessage"), "Invalid URL");

    manager.setNotes(task, "1");
    const std::string changed = R"({"type":"changed","task":{"infoHash":")" + infoHash + R"(","notes":")";
    EXPECT_EQ(one->next(), changed + "1\"}}");
    const auto late = reader();
    EXPECT_THAT(late->next(), HasSubstr(R"("notes":"1")"));

    // What changes all the time is told at once, and then once an interval.
    simulation.advance(1s);
    for (int i = 0; i < 40; ++i) {
        manager.setNotes(task, std::to_string(100 + i));
        simulation.advance(50ms);
    }
    simulation.advance(1s);
    std::vector<std::string> told;
    while (told.empty() || told.back() != changed + "139\"}}") told.push_back(one->next());
    EXPECT_THAT(told.size(), testing::AllOf(testing::Ge(8U), testing::Le(10U)));
    EXPECT_TRUE(one->told.empty());
    EXPECT_EQ(late->next(), told.front());

    const auto other = manager.addHTTPDownload("nor this");
    EXPECT_THAT(one->next(), StartsWith(R"({"type":"added","task":{"infoHash":")" + other->infoHash));
    simulation.finish(manager.removeTask(other));
    EXPECT_EQ(one->next(), R"({"type":"removed","infoHash":")" + other->infoHash + "\"}");
    center.publish(DownloadCompleted{task->id, infoHash, "film"});
    center.publish(APIEvent{std::make_shared<const std::string>(R"({"type":"chat"})")});
    EXPECT_EQ(one->next(), R"({"type":"completed","infoHash":")" + infoHash + R"(","name":"film"})");
    EXPECT_EQ(one->next(), R"({"type":"chat"})");
}

TEST_F(EventStreamsTest, letsInOnlyWhoHasTheTokenAndAsksForUs) {
    const auto answerTo = [&](std::string request, const std::string& from, const std::string& to) {
        request.replace(request.find(from), from.size(), to);
        RawClient asking(simulation, api.port());
        asking.say(request);
        return asking.hear().substr(9, 3);
    };
    EXPECT_EQ(answerTo(upgrade(), "", ""), "101");
    EXPECT_EQ(answerTo(upgrade(), "secret", "secre"), "401");
    EXPECT_EQ(answerTo(upgrade(), "Connection:", "Origin: http://evil.example\r\nConnection:"), "403");
    EXPECT_EQ(answerTo(upgrade(), "Upgrade\r\n", "close\r\n"), "401") << "other calls take no token in the query";
    EXPECT_EQ(ask("GET", "/api/v1/events").status, 426);
    EXPECT_EQ(host.log.count("secret"), 0);

    std::vector<std::unique_ptr<Reader>> readers;
    simulation.runUntil([&] {  // until those above are gone
        readers.clear();
        try {
            while (readers.size() < EventStreams::maxStreams) readers.push_back(reader());
        } catch (const WebSocketException&) {}
        return readers.size() == EventStreams::maxStreams;
    });
    EXPECT_EQ(answerTo(upgrade(), "", ""), "503");
    EXPECT_EQ(ask("GET", "/api/v1/tasks").status, 200);
}

TEST_F(EventStreamsTest, dropsWhoTakesNothingAndKeepsWhoDoes) {
    const auto task = manager.addHTTPDownload("no link");
    const auto alive = reader();
    alive->next();
    const auto silent = rawReader();
    for (int second = 1; second <= 45; ++second) {
        manager.setNotes(task, std::to_string(second));  // so little that the system takes it for one that sleeps
        alive->next();
        simulation.advance(1s);
        EXPECT_TRUE(second > 25 || host.log.lines().empty());
    }
    const auto ended = HasSubstr("connection ended");
    EXPECT_THAT(host.log.lines(), testing::ElementsAre(ended));

    const auto deaf = rawReader();
    for (int second = 1; second <= 90; ++second) {
        // More than the system buffers for one that does not read, though it seems to answer pings.
        manager.setNotes(task, std::string(1'000'000, static_cast<char>('a' + second % 26)));
        alive->next();
        deaf->say(std::string_view("\x8A\x80mask", 6));
        simulation.advance(1s);
        EXPECT_TRUE(second > 25 || host.log.lines().size() == 1);
    }
    EXPECT_THAT(host.log.lines(), testing::ElementsAre(ended, ended));
    EXPECT_FALSE(alive->hasEnded());
}

TEST_F(EventStreamsTest, ignoresWhatAClientSaysAsLongAsItIsShort) {
    const auto task = manager.addHTTPDownload("no link");
    const auto one = reader();
    one->next();
    for (int i = 0; i < 100; ++i)
        simulation.finish(one->client.send(WebSocketMessage::text(std::string(ServerSocket::maxIncomingBytes, 'x'))));
    manager.setNotes(task, "1");
    one->next();
    EXPECT_FALSE(one->hasEnded());
    simulation.finish(one->client.send(WebSocketMessage::text(std::string(ServerSocket::maxIncomingBytes + 1, 'x'))));
    simulation.runUntil([&] { return one->hasEnded(); });
}

TEST_F(EventStreamsTest, endsAllStreamsAtOnceOnACleanStop) {
    const auto task = manager.addHTTPDownload("no link");
    manager.setNotes(task, std::string(20'000'000, 'x'));
    const auto one = reader();
    one->next();
    const auto stuck = rawReader();
    simulation.finish(api.stop());
    simulation.runUntil([&] { return one->hasEnded(); });
}

}  // namespace
}  // namespace skein
