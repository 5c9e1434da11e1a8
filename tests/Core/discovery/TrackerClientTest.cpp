#include "Core/discovery/TrackerClient.h"
#include "Core/discovery/TrackerRuntimeInfo.h"
#include "public/common/HTTPClient.h"
#include "public/common/ThreadPools.h"
#include "tests/support/LoopbackTracker.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/ScriptedHTTPServer.h"
#include "tests/support/ScriptedUDPServer.h"
#include "tests/support/Simulation.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::_, testing::Contains, testing::ElementsAre, testing::EndsWith, testing::FieldsAre, testing::IsEmpty,
    testing::SizeIs, testing::StartsWith, testing::UnorderedElementsAre, testing::UnorderedElementsAreArray;

/// Knows "tracker.example", which has an address that no socket may connect to and one that it may.
class FakeResolver final : public NameResolver {
public:
    asio::awaitable<std::vector<IPAddress>> resolve(std::string host) override {
        std::vector<IPAddress> addresses;
        if (const auto literal = IPAddress::parse(host)) addresses.push_back(*literal);
        if (host == "tracker.example")
            addresses = {*IPAddress::parse("255.255.255.255"), *IPAddress::parse("127.0.0.1")};
        if (host == "silent.example") co_await clock.sleep(1h);
        if (addresses.empty()) throw boost::system::system_error(asio::error::host_not_found);
        co_return addresses;
    }
    explicit FakeResolver(Clock& given) : clock(given) {}
    Clock& clock;
};

class TrackerClientTest : public testing::Test {
protected:
    TrackerClientTest() {
        what.infoHash.fill(0x20);
        what.origin = AddressOrigin::userNamed;  // all of them are on loopback
    }
    ~TrackerClientTest() override {
        simulation.finish(client.stop());
        http.stop();
        simulation.finish(tracker.stop());
        simulation.finish(udp.stop());
        simulation.finish(web.stop());
    }

    TrackerAnnounceOutcome announce(const std::string& url) {
        return simulation.finish(client.announceOneDetailed(url, what));
    }

    Simulation simulation;
    RecordingLogger log;
    HTTPClient http;
    FakeResolver resolver{simulation};
    SystemDatagrams datagrams;
    SecureRandom random;
    LoopbackTracker tracker{simulation.executor()};
    /// What the UDP tracker says to the connect request and to the announce: its datagrams from the ninth byte on, each
    /// after its action and the request's transaction plus a number.
    struct UDPAnswer {
        std::uint32_t action;
        Bytes rest;
        std::uint32_t offBy = 0;
    };
    std::vector<std::vector<UDPAnswer>> udpAnswers;
    std::vector<Bytes> answersTo(const ByteView request) const {
        std::vector<Bytes> answers;
        const std::size_t step = request.size() == 16 ? 0 : 1;
        if (step >= udpAnswers.size()) return answers;
        for (const auto& [action, rest, offBy] : udpAnswers[step]) {
            Bytes& datagram = answers.emplace_back();
            appendBigEndian(datagram, action);
            appendBigEndian(datagram, readBigEndian<std::uint32_t>(request.subspan(12)) + offBy);
            append(datagram, rest);
        }
        return answers;
    }
    ScriptedUDPServer udp{simulation.executor(), [this](const auto& seen) { return answersTo(seen.datagram); }};
    HTTPReply webAnswer = HTTPReply::text("de");
    ScriptedHTTPServer web{simulation.executor(), [this](const SeenHTTPRequest&) { return webAnswer; }};
    TrackerAnnounce what;
    const TrackerServices services{http, resolver, datagrams, simulation, random, log};
    TrackerClient client{simulation.executor(), services, Bytes(20, 'p'), 7001};
};

TEST_F(TrackerClientTest, exchangesPeersOverHTTPAndUDPInBothFamilies) {
    const PeerAddress four{"1.2.3.4", 80};
    const PeerAddress six{"2001:db8::1", 81};
    LoopbackTracker ipv6(simulation.executor(), {.address = "::1"});
    for (LoopbackTracker* each : {&tracker, &ipv6}) {
        each->addPeer(what.infoHash, four, true);
        each->addPeer(what.infoHash, six);
    }
    what.event = TrackerEvent::started;
    what.left = 5;
    const std::pair<std::string, std::vector<PeerAddress>> expected[] = {
        {tracker.httpURL(), {four, six}}, {tracker.udpURL(), {four}}, {ipv6.udpURL(), {six}}};
    for (const auto& [url, peers] : expected)
        EXPECT_THAT(announce(url), FieldsAre(url, UnorderedElementsAreArray(peers), 1800, 1, 2, true, std::nullopt));
    const auto seen = FieldsAre(_, PeerAddress{"127.0.0.1", 7001}, 0, 0, 5, "started");
    EXPECT_THAT(tracker.announces(), ElementsAre(seen, seen));
    EXPECT_THAT(simulation.finish(client.announceOne(tracker.httpURL(), what)), SizeIs(2));
    tracker.options().failureReason = "not registered";
    EXPECT_EQ(announce(tracker.httpURL()).error, "Tracker error: not registered");
    EXPECT_THAT(simulation.finish(client.announceOne(tracker.httpURL(), what)), IsEmpty());
    simulation.finish(ipv6.stop());
}

TEST_F(TrackerClientTest, announceAllMergesWhatEachTrackerOfEachTierFound) {
    tracker.addPeer(what.infoHash, {"1.2.3.4", 80});
    udpAnswers = {{{0, Bytes(8)}}, {{1, Bytes(12)}}};
    append(udpAnswers[1][0].rest, Bytes{1, 2, 3, 4, 0, 80, 5, 6, 7, 8, 0, 80});
    const auto peers = simulation.finish(
        client.announceAll({{tracker.httpURL(), "wss://tracker.example/"}, {tracker.udpURL()}, {udp.url()}}, what));
    EXPECT_THAT(peers, UnorderedElementsAre(PeerAddress{"1.2.3.4", 80}, PeerAddress{"5.6.7.8", 80}));
    EXPECT_THAT(log.lines(), Contains("[Tracker] wss://tracker.example/ → FAILED: Invalid tracker URL"));
    EXPECT_THAT(simulation.finish(client.announceAll({}, what)), IsEmpty());
}

TEST_F(TrackerClientTest, aUDPTrackerThatIsSilentAtEitherStepTimesOutAfterFifteenSeconds) {
    for (const std::size_t answered : {0U, 1U}) {
        udpAnswers.assign(answered, {{0, Bytes(8)}});
        const std::size_t before = udp.seen().size();
        auto outcome = simulation.begin(client.announceOneDetailed(udp.url(), what));
        simulation.runUntil([&] { return udp.seen().size() == before + answered + 1; });
        simulation.advance(14s);
        EXPECT_FALSE(simulation.hasEnded(outcome));
        simulation.advance(1s);
        EXPECT_EQ(simulation.finish(std::move(outcome)).error, "Tracker request timed out");
    }
    udpAnswers = {{{0, Bytes(7)}}};
    EXPECT_EQ(announce(udp.url()).error, "Invalid tracker response");
    udpAnswers = {{{0, Bytes(8)}}, {{1, Bytes(11)}}};
    EXPECT_EQ(announce(udp.url()).error, "Invalid tracker response");
    EXPECT_NE(udp.seen()[0].remotePort, udp.seen()[1].remotePort);  // a fresh socket each time
}

TEST_F(TrackerClientTest, onlyWhatAnswersTheRequestIsTheUDPTrackersAnswer) {
    const Bytes peer{0, 0, 0, 60, 0, 0, 0, 0, 0, 0, 0, 0, 6, 6, 6, 6, 0, 80};
    const std::vector<UDPAnswer> strays{{1, peer, 1}, {2, peer}, {3, toBytes("not yours"), 7}};
    udpAnswers = {strays, strays};
    udpAnswers[0].push_back({0, Bytes(8)});
    auto waiting = simulation.begin(client.announceOneDetailed(udp.url(), what));
    simulation.runUntil([&] { return udp.seen().size() == 2; });
    simulation.advance(14s);
    EXPECT_FALSE(simulation.hasEnded(waiting));
    simulation.advance(1s);
    EXPECT_EQ(simulation.finish(std::move(waiting)).error, "Tracker request timed out");
    udpAnswers[0].insert(udpAnswers[0].begin(), {{0, Bytes(8), 1}, {1, peer}});
    udpAnswers[1] = {{0, peer}, {1, peer, 1}, {1, peer}};
    EXPECT_THAT(announce(udp.url()).peers, ElementsAre(PeerAddress{"6.6.6.6", 80}));
}

TEST_F(TrackerClientTest, anErrorReplyIsTheTrackersErrorAtEitherStep) {
    const UDPAnswer refusal{3, toBytes("no such torrent\x1b here")};
    udpAnswers = {{refusal}};
    EXPECT_EQ(announce(udp.url()).error, "Tracker error: no such torrent? here");
    udpAnswers = {{{0, Bytes(8)}}, {refusal}};
    const auto outcome = announce(udp.url());
    EXPECT_EQ(outcome.error, "Tracker error: no such torrent? here");
    EXPECT_THAT(outcome.peers, IsEmpty());
    EXPECT_EQ(outcome.interval, std::nullopt);
    EXPECT_THAT(log.lines(), Contains("[Tracker] " + udp.url() + " → FAILED: Tracker error: no such torrent? here"));
}

TEST_F(TrackerClientTest, aUDPHostIsLookedUpAndItsAddressesTriedInTurn) {
    const auto portOf = [](const std::string& url) { return url.substr(url.rfind(':')); };
    EXPECT_EQ(announce("udp://tracker.example" + portOf(tracker.udpURL())).error, std::nullopt);
    EXPECT_EQ(announce("udp://nobody.example:1/").error, "Host not found (authoritative)");
    for (const char* url : {"udp://127.0.0.1/announce", "udp://:80/", "udp:/", "UDP://127.0.0.1:1/", "http://", ""})
        EXPECT_EQ(announce(url).error, "Invalid tracker URL") << url;
    auto silent = simulation.begin(client.announceOneDetailed("udp://silent.example:80/", what));
    simulation.advance(15s);
    EXPECT_EQ(simulation.finish(std::move(silent)).error, "Tracker request timed out");
}

TEST_F(TrackerClientTest, aTrackerOfATorrentIsNotAskedWithinTheUsersNetwork) {
    const std::string refusal =
        "The address is not public, and was not named by the user (--tracker, --allow-local-peers)";
    const std::string port = tracker.udpURL().substr(tracker.udpURL().rfind(':'));
    what.origin = AddressOrigin::fromOutside;
    EXPECT_EQ(announce(tracker.udpURL()).error, refusal);
    EXPECT_EQ(announce("udp://tracker.example" + port).error, refusal) << "what counts is where the name leads";
    EXPECT_EQ(announce(tracker.httpURL()).error, "The host is not asked: " + refusal);
    webAnswer = HTTPReply::redirect(tracker.httpURL());
    EXPECT_EQ(announce(web.url()).error, "The host is not asked: " + refusal);
    EXPECT_THAT(tracker.announces(), IsEmpty());
    EXPECT_EQ(web.acceptedConnections(), 0);
}

TEST_F(TrackerClientTest, aHostileHTTPTrackerCostsItsOwnAnnounceAndNoMore) {
    webAnswer = HTTPReply::text("garbage", 500);
    EXPECT_EQ(announce(web.url()).error, "Invalid tracker response");
    webAnswer = HTTPReply::text("d8:intervali60ee", 500);  // the body decides, not the status
    EXPECT_EQ(announce(web.url()).interval, 60);
    webAnswer.body = Bytes(10'000, 'd');
    webAnswer.repeats = 10'000;
    EXPECT_THAT(*announce(web.url()).error, StartsWith("The response is too large"));
    EXPECT_EQ(announce("http://ho<st>/").error, "Invalid tracker URL");
    EXPECT_THAT(web.requests()[0].target, EndsWith("&compact=1&ipv6=1"));
}

TEST_F(TrackerClientTest, stoppingEndsAnnouncesThatStillWait) {
    webAnswer.stallAfter = 0;
    auto waiting = simulation.begin(client.announceAll({{web.url(), udp.url(), "udp://silent.example:80"}}, what));
    simulation.runUntil([&] { return !web.requests().empty() && !udp.seen().empty(); });
    simulation.finish(client.stop());
    EXPECT_NE(simulation.failureOf(std::move(waiting)), "none");
    EXPECT_THROW(announce(web.url()), boost::system::system_error);
}

TEST_F(TrackerClientTest, manyAnnouncesRunAtOnceOnManyThreads) {
    ThreadPools pools;
    RealClock clock;
    TrackerClient busy(pools.io(), {http, resolver, datagrams, clock, random, log}, Bytes(20, 'p'));
    TrackerClient::Tiers tiers(1);
    for (int i = 0; i < 40; ++i) tiers[0].push_back(i % 2 == 0 ? tracker.httpURL() : tracker.udpURL());
    for (std::uint8_t i = 1; i <= 50; ++i) tracker.addPeer(what.infoHash, {"1.2.3." + std::to_string(i), 80});
    auto pending = asio::co_spawn(pools.io(), busy.announceAll(tiers, what), asio::use_future);
    EXPECT_EQ(simulation.finish(std::move(pending)).size(), 50U);
    asio::co_spawn(pools.io(), busy.stop(), asio::use_future).get();
    http.stop();
}

TEST_F(TrackerClientTest, asksNoMoreTrackersOverUDPAtOnceThanThereArePlaces) {
    const TrackerServices few{http, resolver, datagrams, simulation, random, log, Gate(simulation.executor(), 3)};
    TrackerClient crowd(simulation.executor(), few, Bytes(20, 'p'), 1);
    TrackerClient::Tiers trackers{{}};
    for (int i = 0; i < 5; ++i) trackers[0].push_back(udp.url("/" + std::to_string(i)));
    auto all = simulation.begin(crowd.announceAll(trackers, what));
    simulation.runUntil([&] { return udp.seen().size() == 3; });
    simulation.advance(14s);
    EXPECT_EQ(udp.seen().size(), 3U);
    simulation.advance(1s);
    simulation.runUntil([&] { return udp.seen().size() == 5; });
    simulation.advance(15s);
    EXPECT_THAT(simulation.finish(std::move(all)), IsEmpty());
    simulation.finish(crowd.stop());
}

}  // namespace
}  // namespace skein
