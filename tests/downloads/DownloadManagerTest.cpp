#include "Core/discovery/DatagramConnection.h"
#include "Core/formats/MagnetParseError.h"
#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"
#include "downloads/DownloadManager.h"
#include "public/common/HTTPClient.h"
#include "public/common/NameResolver.h"
#include "public/common/WholeFile.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/ScriptedHTTPServer.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

/// A service that can be out of reach.
class FakeService final : public ResourceService {
public:
    std::string signedInUserID() const override { return "u1"; }
    asio::awaitable<void> flushFinalHeartbeat(TorrentTask& task, TorrentSession&) override {
        reported.push_back(task.infoHash);
        co_return;
    }
    asio::awaitable<bool> deleteResource(std::string infoHash) override {
        if (isReachable) deleted.push_back(std::move(infoHash));
        co_return isReachable;
    }

    bool isReachable = true;
    std::vector<std::string> reported;
    std::vector<std::string> deleted;
};

class FakeNotifier final : public CompletionNotifier {
public:
    void sendCompletionNotification(std::string name) override { names.push_back(std::move(name)); }
    std::vector<std::string> names;
};

class DownloadManagerTest : public testing::Test {
protected:
    using Task = DownloadManager::Task;

    DownloadManagerTest() {
        torrent.metaInfo->name = "t";
        torrentData = TorrentWriter::write(*torrent.metaInfo);
        infoHash = TorrentParser::parse(torrentData).infoHash;
        magnet = "magnet:?xt=urn:btih:" + toHex(infoHash);
        simulation.finish(listener.start(0));
        open();
    }
    ~DownloadManagerTest() override {
        simulation.finish(manager->stop());
        simulation.finish(listener.stop());
    }

    void open() {
        DownloadManager::Environment environment{simulation.executor(),
                                                 simulation.executor(),
                                                 simulation,
                                                 log,
                                                 random,
                                                 center,
                                                 ActorSettings(settings, simulation.executor()),
                                                 service,
                                                 notifier,
                                                 home.path(),
                                                 downloads.path()};
        environment.makers.torrent = [this](const SHA1Digest& hash, const std::vector<std::string>&) {
            const TrackerServices trackers{http, resolver, datagrams, simulation, random, log};
            const TorrentSession::Services services{
                simulation.executor(), simulation.executor(), simulation, log, trackers, listener};
            TorrentSession::Options options;
            options.savePath = downloads.path();
            options.discovery.usesLSD = false;
            options.discovery.namedPeers = peers;
            options.archive.emplace(home.path());
            return std::make_unique<TorrentSession>(hash, peerIDOf('m'), services, std::move(options));
        };
        environment.makers.http = [this](const std::string& url, const std::optional<std::string>& fileName) {
            const HTTPDownloadSession::Environment shared{
                simulation.executor(), simulation.executor(), simulation, random, log, http, home.path() / "resume"};
            return std::make_unique<HTTPDownloadSession>(shared, url, downloads.path(), fileName);
        };
        manager = std::make_unique<DownloadManager>(std::move(environment));
        simulation.finish(manager->start());
    }
    void restart() {
        simulation.finish(manager->stop());
        open();
    }
    std::unique_ptr<TestSession> startSeeder() {
        torrent.writeTo(seederFolder.path());
        TorrentSession::Options options;
        options.savePath = seederFolder.path();
        options.seedsOnly = true;
        auto seeder =
            std::make_unique<TestSession>(simulation, infoHash, 's', std::move(options), simulation.executor());
        seeder->start(torrentData);
        peers = {seeder->address()};
        return seeder;
    }
    void waitFor(const Task& task, TaskStatus status) {
        simulation.runUntil([&] { return task->status() == status; });
    }
    Task add() { return simulation.finish(manager->addTorrentFile(torrentData)); }

    Simulation simulation;
    RecordingLogger log{LogLevel::info};
    SecureRandom random;
    SystemDatagrams datagrams;
    SystemNameResolver resolver;
    HTTPClient http;
    MsgCenter center;
    TemporaryFolder home;
    TemporaryFolder downloads;
    TemporaryFolder seederFolder;
    SettingsStore settings{home.path() / "settings.db", log};
    FakeService service;
    FakeNotifier notifier;
    PeerListener listener{simulation.executor(), simulation, log, "127.0.0.1"};
    TestTorrent torrent{50'000, {{"t/a", 399'990}, {"t/sub/b", 500'000}}};
    Bytes torrentData;
    SHA1Digest infoHash{};
    std::string magnet;
    std::vector<PeerAddress> peers;
    std::unique_ptr<DownloadManager> manager;
};

TEST_F(DownloadManagerTest, downloadsFromAMagnetAndComesBackCompletedAfterARestart) {
    const auto seeder = startSeeder();
    const Task task = manager->addMagnet(magnet);
    EXPECT_EQ(task->name(), "Fetching...");
    EXPECT_EQ(task->ownerUserID(), "u1");
    EXPECT_EQ(manager->addMagnet(magnet + "&dn=other&tr=udp://x.example:1"), task);
    EXPECT_THROW(manager->addMagnet("magnet:?dn=nothing"), MagnetParseException);
    waitFor(task, TaskStatus::seeding);
    EXPECT_TRUE(torrent.isWholeIn(downloads.path()));
    EXPECT_EQ(task->name(), "t");
    EXPECT_EQ(task->progress(), 1);
    EXPECT_THAT(task->files(), SizeIs(2));
    EXPECT_THAT(notifier.names, ElementsAre("t"));
    restart();
    ASSERT_THAT(manager->tasks(), SizeIs(1));
    EXPECT_EQ(manager->tasks()[0]->status(), TaskStatus::completed);
    simulation.advance(1s);
    EXPECT_EQ(simulation.sleepers(), 0U) << "a list that nothing happens to wakes nobody up";
}

TEST_F(DownloadManagerTest, pausesWithALastReportAndResumesFromTheSavedTorrent) {
    const Task task = add();
    EXPECT_EQ(add(), task);
    waitFor(task, TaskStatus::downloading);
    simulation.runUntil([&] { return task->statusMessage() == "Downloading t"; });
    simulation.finish(manager->pauseTask(task));
    EXPECT_EQ(task->status(), TaskStatus::paused);
    EXPECT_EQ(task->stallReason(), "Paused. Resume it.");
    EXPECT_FALSE(task->isControlOperationInProgress());
    EXPECT_THAT(service.reported, ElementsAre(task->infoHash));
    restart();
    const Task again = manager->tasks()[0];
    EXPECT_EQ(again->status(), TaskStatus::paused);
    const auto seeder = startSeeder();
    simulation.finish(manager->resumeTask(again));
    waitFor(again, TaskStatus::seeding);
    EXPECT_TRUE(torrent.isWholeIn(downloads.path()));
}

TEST_F(DownloadManagerTest, verifiesDownloadsAgainAndSaysWhatItIsMissing) {
    const auto seeder = startSeeder();
    const Task task = add();
    waitFor(task, TaskStatus::seeding);
    std::filesystem::resize_file(downloads.path() / "t/a", 0);
    simulation.finish(manager->recheckTask(task));
    EXPECT_FALSE(task->isVerifying());
    waitFor(task, TaskStatus::seeding);
    EXPECT_TRUE(torrent.isWholeIn(downloads.path()));
    simulation.finish(manager->redownloadTask(task));
    waitFor(task, TaskStatus::seeding);
    EXPECT_TRUE(torrent.isWholeIn(downloads.path()));
    simulation.finish(manager->pauseTask(task));
    TorrentArchive(home.path()).forget(infoHash);
    simulation.finish(manager->resumeTask(task));
    EXPECT_EQ(task->status(), TaskStatus::error);
    EXPECT_EQ(task->errorMessage(), "Cannot resume: magnet link missing");
    simulation.finish(manager->recheckTask(task));
    EXPECT_EQ(task->errorMessage(), "Cannot verify: magnet link missing");
    simulation.finish(manager->redownloadTask(task));
    EXPECT_EQ(task->errorMessage(), "Cannot redownload: magnet link missing");
}

TEST_F(DownloadManagerTest, downloadsFromTheWebAndKeepsWhatIsNoURLAsAnError) {
    ScriptedHTTPServer server(simulation.executor(), [](const SeenHTTPRequest& request) {
        return HTTPReply::text("a page", request.target == "/paper.pdf" ? 200 : 404);
    });
    const Task task = manager->addHTTPDownload(" " + server.url("/paper.pdf") + "\n");
    EXPECT_EQ(manager->addHTTPDownload(server.url("/paper.pdf")), task);
    const Task missing = manager->addHTTPDownload(server.url("/none"));
    const Task wrong = manager->addHTTPDownload("not a link");
    EXPECT_EQ(wrong->errorMessage(), "Invalid URL");
    waitFor(task, TaskStatus::completed);
    waitFor(missing, TaskStatus::error);
    EXPECT_THAT(missing->errorMessage().value_or(""), HasSubstr("HTTP 404"));
    EXPECT_EQ(TestTorrent::contentOf(downloads.path() / "paper.pdf"), toBytes("a page"));
    EXPECT_THAT(notifier.names, ElementsAre("paper.pdf"));
    simulation.finish(manager->resumeTask(task));
    EXPECT_EQ(task->status(), TaskStatus::completed) << "there is nothing to go on with";
    EXPECT_THAT(manager->tasks(), SizeIs(3));
    simulation.finish(manager->removeTask(task, true));
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "paper.pdf"));
    simulation.finish(server.stop());
}

TEST_F(DownloadManagerTest, removesFilesAndHasTheServiceForgetThemEvenLater) {
    const auto seeder = startSeeder();
    const Task task = add();
    waitFor(task, TaskStatus::seeding);
    replaceWholeFile(downloads.path() / "t/mine", toBytes("not of the torrent"));
    service.isReachable = false;
    simulation.finish(manager->removeTask(task, true));
    EXPECT_THAT(manager->tasks(), SizeIs(0));
    EXPECT_TRUE(std::filesystem::exists(downloads.path() / "t/mine"));
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "t/sub"));
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "t.torrent"));
    EXPECT_EQ(settings.text("svc.pendingDeletes.u1"), task->infoHash);
    service.isReachable = true;
    restart();
    simulation.settle();
    EXPECT_THAT(service.deleted, ElementsAre(task->infoHash));
    EXPECT_EQ(settings.text("svc.pendingDeletes.u1"), std::nullopt);
}

}  // namespace
}  // namespace skein
