#include "Core/discovery/LocalIPv4Address.h"
#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"
#include "app/api/AccountRoutes.h"
#include "public/common/WholeFile.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/app/ServiceNode.h"

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>

#include <random>
#include <ranges>

namespace skein {
namespace {

using namespace std::chrono_literals;

/// Daemons that know each other from the resource service alone, which counts what they report.
class ServiceExchangeTest : public testing::Test {
protected:
    ServiceExchangeTest() {
        torrent.metaInfo->name = "t";
        torrentData = TorrentWriter::write(*torrent.metaInfo);
        infoHash = TorrentParser::parse(torrentData).infoHashHex;
        torrent.writeTo(seeder.downloads.path());
        seeder.signIn("alice");
        leecher.signIn("bob");
        seeder.open();
        leecher.open();
    }
    ~ServiceExchangeTest() override {
        leecher.close();
        seeder.close();
        simulation.finish(service.stop());
    }

    /// Lets time pass in steps that leave the sockets room.
    void pass(std::chrono::seconds time, const std::function<bool()>& until = nullptr) {
        for (auto passed = 0ms; passed < time && !(until && until()); passed += 100ms) {
            simulation.advance(100ms);
            const auto quietAt = std::chrono::steady_clock::now() + 1ms;
            while (std::chrono::steady_clock::now() < quietAt) simulation.settle();
        }
    }
    void waitFor(const DownloadManager::Task& task, TaskStatus status) {
        pass(600s, [&] { return task->status() == status; });
        ASSERT_EQ(task->status(), status);
    }
    void seed() { waitFor(seeder.add(torrentData), TaskStatus::seeding); }
    void waitUntilWhole(const DownloadManager::Task& task) {
        waitFor(task, TaskStatus::seeding);
        EXPECT_TRUE(torrent.isWholeIn(leecher.downloads.path()));
    }
    const ServiceLedger::Account& account(const std::string& user) { return service.ledger().account(user, infoHash); }
    std::int64_t size() const { return torrent.metaInfo->totalSize; }

    Simulation simulation;
    SkeinTestService service{
        simulation.executor(),
        {.users = {{"alice", "secret of alice"}, {"bob", "secret of bob"}, {"carol", "secret of carol"}}}};
    TestTorrent torrent{65'536, {{"t/a", 1'500'000}, {"t/b", 1'700'000}}};
    Bytes torrentData;
    std::string infoHash;
    ServiceNode seeder{simulation, service, 's'};
    ServiceNode leecher{simulation, service, 'l'};
};

TEST_F(ServiceExchangeTest, findsAPeerThatServesAgainAfterARestartAndReportsTheSameAtBothEnds) {
    seed();
    seeder.close();
    seeder.open();
    waitFor(seeder.manager->tasks().at(0), TaskStatus::seeding);
    EXPECT_TRUE(seeder.hasLogged("[Manager] Rebuilding seeding session for t"));
    const auto task = leecher.add(torrentData);
    waitUntilWhole(task);
    EXPECT_EQ(task->dlBytesFromPlatformPeers(), size());
    pass(61s);
    EXPECT_EQ(account("bob").downloaded, size());
    EXPECT_EQ(account("bob").fromPlatform, size());
    EXPECT_EQ(account("alice").uploaded, size());
    EXPECT_EQ(account("bob").status, "seeding");
    EXPECT_EQ(task->uncommittedDlBytesFromPlatformPeers(), 0);
    EXPECT_EQ(task->dlBytesFromPlatformPeers(), size()) << "what was reported still counts";
    EXPECT_DOUBLE_EQ(leecher.manager->credit().rates().downloadCostRate, ServiceLedger::downloadCostRate);
}

TEST_F(ServiceExchangeTest, goesThroughTheRelayUntilADirectConnectionIsFastEnough) {
    // Dials to their listeners fail, as behind a NAT.
    service.ledger().peerOverlays = {{"alice", {{"port", 1}, {"speed_limit", 20'000}}}, {"bob", {{"port", 1}}}};
    seed();
    const auto task = leecher.add(torrentData);
    pass(120s, [&] { return task->dlBytesFromRelay() > 200'000; });
    ASSERT_GT(task->dlBytesFromRelay(), 200'000);
    EXPECT_EQ(task->dlBytesFromPlatformPeers(), 0);
    EXPECT_TRUE(leecher.hasLogged("[Relay] ✓ 127.0.0.1:1"));
    EXPECT_TRUE(seeder.hasLogged("[Relay][Seeder] ✓ 127.0.0.1:1"));
    service.ledger().peerOverlays.clear();
    waitUntilWhole(task);
    EXPECT_GT(task->dlBytesFromPlatformPeers(), 0);
    pass(61s);
    EXPECT_EQ(service.relays().sides(), 0U);
    EXPECT_TRUE(leecher.hasLogged("[Relay] retiring 1"));
    EXPECT_EQ(account("bob").downloaded, size());
    EXPECT_EQ(account("bob").fromPlatform, size()) << "of both links, which were to the same user";
}

TEST_F(ServiceExchangeTest, losesAndDoublesNothingWhileTheServiceFails) {
    std::mt19937 dice(7);
    const std::array faults{ServiceFault::serverError,     ServiceFault::hangUp,  ServiceFault::loseAnswer,
                            ServiceFault::duplicateAnswer, ServiceFault::garbage, ServiceFault::none};
    seeder.sessionOptions.uploadLimit = 11'000;
    seed();
    auto task = leecher.add(torrentData);
    for (int i = 0; i < 50; ++i) {
        service.fail(faults[dice() % faults.size()], "/api/resource/heartbeat");
        pass(6s);
        if (i == 20) simulation.finish(leecher.manager->pauseTask(task));
        if (i == 25) simulation.finish(leecher.manager->resumeTask(task));
        if (i == 35) {
            leecher.close();
            leecher.open();
            task = leecher.manager->tasks().at(0);
            simulation.finish(leecher.manager->resumeTask(task));
        }
    }
    service.fail(ServiceFault::none);
    EXPECT_LT(task->progress(), 1);
    waitUntilWhole(task);
    pass(61s);
    EXPECT_EQ(account("bob").downloaded, size());
    EXPECT_EQ(account("bob").fromPlatform, size());
    EXPECT_GE(account("alice").uploaded, size()) << "pieces in flight at the interruptions were sent twice";
    EXPECT_LT(account("alice").uploaded, size() + 40 * torrent.metaInfo->pieceLength);
    EXPECT_GT(service.ledger().repeatedEvents(), 0) << "no answer was ever lost: the test shows nothing";
    EXPECT_EQ(task->uncommittedDlBytesFromPlatformPeers(), 0);
}

TEST_F(ServiceExchangeTest, hasTheServiceForgetWhatIsRemovedEvenLater) {
    seed();
    service.fail(ServiceFault::hangUp, "/api/resource/delete");
    simulation.finish(seeder.manager->removeTask(seeder.manager->tasks().at(0)));
    const std::string pending = "svc.pendingDeletes.alice";
    EXPECT_EQ(seeder.settings.text(pending), infoHash);
    service.fail(ServiceFault::none);
    seeder.close();
    seeder.open();
    pass(10s, [&] { return !seeder.settings.text(pending); });
    EXPECT_EQ(seeder.settings.text(pending), std::nullopt);
    EXPECT_EQ(std::ranges::count(service.requests(), "/api/resource/delete", &SeenHTTPRequest::target), 2);
}

TEST_F(ServiceExchangeTest, registersWhatNoSessionCanServeUntilTheServiceHasUnderstood) {
    seeder.close();
    replaceWholeFile(seeder.homeFolder / "tasks.json",
                     toBytes(R"([{"infoHash":")" + infoHash +
                             R"(","name":"old","addedDate":1,"status":"completed","totalSize":5}])"));
    const std::string path = "/api/resource/register";
    const auto calls = [&] { return std::ranges::count(service.requests(), path, &SeenHTTPRequest::target); };
    service.fail(ServiceFault::serverError, path);
    seeder.open();
    pass(29s);
    EXPECT_EQ(calls(), 2) << "at once, and after 10 s";
    pass(22s);
    EXPECT_EQ(calls(), 3) << "after 20 s more";
    service.fail(ServiceFault::none);
    pass(25s);
    EXPECT_EQ(calls(), 4);
    EXPECT_TRUE(seeder.hasLogged("[Manager] register-only confirmed for old"));
    const auto told = std::ranges::find(service.requests() | std::views::reverse, path, &SeenHTTPRequest::target)->body;
    boost::json::array addresses;
    for (const std::string& address : getLocalIPv4Addresses(seeder.log)) addresses.emplace_back(address);
    EXPECT_EQ(boost::json::parse(asText(told)), (boost::json::value{{"info_hash", infoHash},
                                                                    {"status", "seeding"},
                                                                    {"upload_mode", "paid"},
                                                                    {"local_ip", addresses},
                                                                    {"port", seeder.listener.port()},
                                                                    {"total_bytes", 5}}));
    DownloadManager::Tuning tuning{.downloadsDirectory = seeder.downloadFolder};
    tuning.sessions.uploadMode = UploadMode::free;
    simulation.finish(seeder.manager->retune(std::move(tuning)));
    pass(600s);
    EXPECT_EQ(calls(), 5) << "the new upload mode, and nothing else";
}

TEST_F(ServiceExchangeTest, leavesNoByteWithTheWrongUser) {
    seeder.sessionOptions.uploadLimit = 50'000;
    seed();
    const auto task = leecher.add(torrentData);
    pass(40s, [&] { return task->downloadedBytes() > size() / 4; });
    service.fail(ServiceFault::hangUp, "/api/resource/heartbeat");  // bob's last report has to wait for bob
    leecher.signOut();
    EXPECT_EQ(task->status(), TaskStatus::paused);
    const std::int64_t bobs = task->downloadedBytes();
    service.fail(ServiceFault::none);
    leecher.signIn("carol");
    simulation.finish(leecher.manager->resumeTask(task));
    waitFor(task, TaskStatus::seeding);
    pass(61s);
    EXPECT_EQ(account("carol").downloaded, size() - bobs);
    EXPECT_EQ(task->ownerUserID(), "bob");
    leecher.signOut();
    leecher.signIn("bob");
    pass(2s);
    EXPECT_EQ(account("bob").downloaded, bobs);
    EXPECT_EQ(account("carol").downloaded, size() - bobs);
}

TEST_F(ServiceExchangeTest, theBalanceFollowsWhatChangesItWithoutAReport) {
    AccountRoutes routes(seeder.client(), seeder.account(), seeder.manager.get(), [] {});
    Router router;
    routes.addTo(router);
    const auto statusOf = [&](const std::string& path, const std::string& body) {
        HTTPServerRequest request;
        request.method = "POST";
        request.path = "/api/v1/wallet/" + path;
        request.headers["content-type"] = "application/json";
        request.body = body;
        return simulation.finish(router.answer(std::move(request))).status;
    };
    const auto waitForBalance = [&](double balance) {
        simulation.runUntil([&] { return seeder.manager->credit().displayedWalletBalance() == balance; });
    };
    double& wallet = service.ledger().wallets["alice"];
    waitForBalance(10);
    EXPECT_EQ(statusOf("transfer", R"({"toUser": "bob", "amount": 2.5})"), 200);
    waitForBalance(7.5);
    service.fail(ServiceFault::loseAnswer, "/api/wallet/transfer", 1);
    EXPECT_EQ(statusOf("transfer", R"({"toUser": "bob", "amount": 1})"), 502);
    waitForBalance(6.5);

    wallet = 9;
    EXPECT_EQ(statusOf("settle", ""), 200);
    waitForBalance(9);
    wallet = 8;
    service.fail(ServiceFault::loseAnswer, "/api/wallet/settle", 1);
    EXPECT_EQ(statusOf("settle", ""), 502);
    waitForBalance(8);

    wallet = 12;
    simulation.advance(24h);
    waitForBalance(12);
}

}  // namespace
}  // namespace skein
