#include "Core/discovery/PeerHistoryCodec.h"
#include "Core/discovery/PeerHistoryStore.h"
#include "public/common/ThreadPools.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre, testing::SizeIs;

constexpr auto day = std::chrono::hours(24);
const std::string torrent(40, 'a');
const Clock::WallTime now{std::chrono::seconds(1'767'225'600)};

std::string hostOf(int number) { return "10.0." + std::to_string(number / 250) + "." + std::to_string(number % 250); }

PeerHistoryEntry success(std::string host, Clock::WallTime when) { return {host, 1, PeerSource::lsd, 1, 0, when}; }
PeerHistoryEntry failure(std::string host, Clock::WallTime when) { return {host, 1, PeerSource::pex, 0, 1, {}, when}; }
std::vector<std::string> hosts(const PeerHistory::Entries& entries) {
    std::vector<std::string> list;
    for (const auto& entry : entries) list.push_back(entry.host);
    return list;
}

TEST(PeerHistoryTest, ranksTheLatestSuccessFirstAndWhatOnlyFailedLast) {
    PeerHistory history;
    history.add(torrent, failure("10.0.0.1", now - 1h));
    history.add(torrent, success("10.0.0.2", now - 2 * day));
    history.add(torrent, success("10.0.0.3", now - day));
    history.add(torrent, failure("10.0.0.3", now));
    history.add(torrent, failure("10.0.0.4", now - 2h));
    history.add("other", success("10.0.0.2", now));
    history.add("other", success("1.2.3.4", now));
    EXPECT_THAT(hosts(history.peers(torrent, 20)), ElementsAre("10.0.0.3", "10.0.0.2", "10.0.0.4", "10.0.0.1"));
    EXPECT_THAT(hosts(history.lanPeers(3)), ElementsAre("10.0.0.2", "10.0.0.3", "10.0.0.4"));
    const PeerHistoryEntry best{"10.0.0.3", 1, PeerSource::pex, 1, 1, now - day, now};
    EXPECT_THAT(history.peers(torrent, 1), ElementsAre(best));
}

TEST(PeerHistoryTest, prunesWhatIsStaleOrTooMuch) {
    PeerHistory history;
    history.add("gone", success("1.2.3.4", now - 31 * day));
    history.add(torrent, success("1.2.3.4", now - 29 * day));
    for (int i = 0; i < 10; ++i) history.add(torrent, failure(hostOf(i), now - i * 1min));
    history.prune(now);
    EXPECT_THAT(history.peers("gone", 20), ElementsAre());
    EXPECT_THAT(hosts(history.peers(torrent, 20)),
                ElementsAre("1.2.3.4", hostOf(4), hostOf(3), hostOf(2), hostOf(1), hostOf(0)));
    for (int i = 0; i < 100; ++i) history.add(torrent, success(hostOf(i), now + 1h - i * 1s));
    history.prune(now);
    EXPECT_EQ(history.size(), PeerHistory::maxPeersPerTorrent);
    EXPECT_EQ(history.peers(torrent, 1).front().lastSuccessAt, now) << "a date to come would stay for ever";
}

TEST(PeerHistoryTest, isStoredAsJSONWithinItsLimitAndWithoutWhatIsDamaged) {
    PeerHistory history;
    history.add(torrent, {"2001:db8::1", 6881, PeerSource::dht, 3, 0, now + 250ms});
    history.add(torrent, failure("10.0.0.1", now));
    const std::string text = encodePeerHistory(history, 10'000);
    EXPECT_THAT(text, testing::StartsWith("{\"" + torrent + R"(":[{"host":"2001:db8::1","port":6881,"source":"dht",)" +
                                          R"("successCount":3,"failureCount":0,"lastSuccessAt":788918400.25},{)"));
    EXPECT_EQ(decodePeerHistory(text).torrents(), history.torrents());

    for (const char* damaged : {"", "null", "[]", "{", "{\"a\":1}", "{\"a\":[1,{}]}",
                                R"({"a":[{"host":"h","port":0,"source":"pex","successCount":1,"failureCount":0}]})",
                                R"({"a":[{"host":"h","port":1,"source":"pex","successCount":-1,"failureCount":0}]})"})
        EXPECT_TRUE(decodePeerHistory(damaged).empty()) << damaged;
    const std::string far = std::string(text).replace(text.find("788918400.25"), 1, "9E100,\"a\":7");
    EXPECT_EQ(decodePeerHistory(far).peers(torrent, 1).front().lastSuccessAt, std::nullopt);

    for (int i = 0; i < 1000; ++i) history.add(std::to_string(i % 50), success(hostOf(i), now - i * 1min));
    const std::string cut = encodePeerHistory(history, 50'000);
    EXPECT_THAT(cut.size(), testing::AllOf(testing::Le(50'000U), testing::Gt(49'000U)));
    EXPECT_EQ(decodePeerHistory(cut).torrents(), history.torrents());
    EXPECT_EQ(hosts(history.peers("0", 1)).front(), hostOf(0));
    EXPECT_THAT(hosts(history.peers(torrent, 20)), ElementsAre("2001:db8::1"));
}

class PeerHistoryStoreTest : public testing::Test {
protected:
    ~PeerHistoryStoreTest() override { simulation.finish(store.stop()); }
    PeerHistory stored() { return decodePeerHistory(settings.text(PeerHistoryStore::key).value_or("")); }
    void fail(int number) { store.recordFailure(torrent, {hostOf(number), 6881}, PeerSource::lsd); }

    Simulation simulation;
    RecordingLogger log;
    TemporaryFolder folder;
    const std::filesystem::path file = folder.path() / "settings.db";
    SettingsStore settings{file, log};
    PeerHistoryStore store{simulation.executor(), {settings, simulation.executor()}, simulation, log};
};

TEST_F(PeerHistoryStoreTest, writesASecondAfterTheFirstRecordThenSeldomAndWhenItStops) {
    store.recordSuccess(torrent, {"8.8.8.8", 6881}, PeerSource::dht);
    EXPECT_THAT(hosts(simulation.finish(store.peers(torrent))), ElementsAre("8.8.8.8"));
    simulation.advance(999ms);
    EXPECT_TRUE(stored().empty());
    simulation.advance(1ms);
    EXPECT_EQ(stored().size(), 1U);
    for (int i = 0; i < 90; ++i) {
        fail(1);
        simulation.advance(100ms);
    }
    EXPECT_EQ(stored().size(), 1U);
    simulation.advance(1s);
    EXPECT_EQ(stored().peers(torrent, 20).back().failureCount, 90);
    EXPECT_EQ(simulation.sleepers(), 0U);
    fail(2);
    simulation.finish(store.stop());
    EXPECT_EQ(stored().size(), 3U);
}

TEST_F(PeerHistoryStoreTest, recordsWhatMayBeDialledAgain) {
    const PeerAddress loopback{"127.0.0.1", 1};
    store.recordSuccess(torrent, loopback, PeerSource::pex);
    store.recordSuccess(torrent, {"name.example", 1}, PeerSource::pex, true);
    store.recordSuccess(torrent, {"10.0.0.1", 0}, PeerSource::pex, true);
    EXPECT_THAT(simulation.finish(store.peers(torrent)), ElementsAre());
    store.recordSuccess(torrent, loopback, PeerSource::pex, true);
    store.recordSuccess(torrent, loopback, PeerSource::history, true);
    store.recordFailure(torrent, {"fe80::1%eth0", 1}, PeerSource::lsd);
    const auto peers = simulation.finish(store.peers(torrent));
    EXPECT_THAT(hosts(peers), ElementsAre("127.0.0.1", "fe80::1%eth0"));
    EXPECT_EQ(peers[0], (PeerHistoryEntry{"127.0.0.1", 1, PeerSource::pex, 2, 0, simulation.wallNow()}));
    EXPECT_THAT(hosts(simulation.finish(store.lanPeers())), ElementsAre("fe80::1%eth0"));
}

TEST_F(PeerHistoryStoreTest, anUndecodableValueIsAnEmptyHistoryAndAFailedWriteIsTriedAgain) {
    settings.set(PeerHistoryStore::key, "[not a history");
    EXPECT_THAT(simulation.finish(store.peers(torrent)), ElementsAre());
    fail(1);
    std::filesystem::rename(file, folder.path() / "aside");
    std::filesystem::create_directory(file);
    simulation.advance(1s);
    EXPECT_THAT(log.lines(), testing::Contains(testing::StartsWith("[PeerHistory] save failed: ")));
    fail(1);
    std::filesystem::remove(file);
    simulation.advance(10s);
    EXPECT_EQ(stored().peers(torrent, 1).front().failureCount, 2);
}

TEST_F(PeerHistoryStoreTest, storesThatShareTheSettingsLoseNothingOfEachOther) {
    ThreadPools pools;
    SettingsStore again(file, log);
    RealClock clock;
    PeerHistoryStore first(pools.io(), {settings, pools.disk()}, clock, log);
    PeerHistoryStore second(pools.io(), {again, pools.disk()}, clock, log);
    for (int i = 0; i < 40; ++i) {
        first.recordSuccess(torrent, {hostOf(i), 1}, PeerSource::dht);
        second.recordSuccess(torrent, {hostOf(i + 20), 1}, PeerSource::dht);
    }
    auto end = asio::co_spawn(pools.io(), first.stop(), asio::use_future);
    simulation.finish(second.stop());
    end.get();
    const auto all = stored().peers(torrent, 99);
    EXPECT_THAT(all, SizeIs(60));
    EXPECT_EQ(std::count_if(all.begin(), all.end(), [](const auto& one) { return one.successCount == 2; }), 20);
    EXPECT_THAT(simulation.finish(store.peers(torrent)), SizeIs(20));
}

}  // namespace
}  // namespace skein
