#include "Core/formats/MagnetParseError.h"
#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"
#include "downloads/TaskListChanged.h"
#include "public/common/WholeFile.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/support/ManagerHost.h"
#include "tests/support/ScriptedHTTPServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <unistd.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

class DownloadManagerTest : public testing::Test {
protected:
    using Task = DownloadManager::Task;

    DownloadManagerTest() {
        torrent.metaInfo->name = "t";
        torrentData = TorrentWriter::write(*torrent.metaInfo);
        infoHash = TorrentParser::parse(torrentData).infoHash;
        magnet = "magnet:?xt=urn:btih:" + toHex(infoHash);
        host.open();
    }
    ~DownloadManagerTest() override {
        host.close();
        simulation.finish(web.stop());
    }

    Task restarted() {
        host.close();
        host.open();
        return manager->tasks().at(0);
    }
    /// Gives the sessions to come a peer that has it all.
    void startSeeder() {
        torrent.writeTo(seeder.downloads.path());
        waitFor(simulation.finish(seeder.open().addTorrentFile(torrentData)), TaskStatus::seeding);
        host.sessionOptions.discovery.namedPeers = {{"127.0.0.1", seeder.listener.port()}};
    }
    void waitFor(const Task& task, TaskStatus status) {
        simulation.runUntil([&] { return task->status() == status; });
    }
    void waitUntilWhole(const Task& task) {
        waitFor(task, TaskStatus::seeding);
        EXPECT_TRUE(torrent.isWholeIn(downloads.path()));
    }
    Task add() { return simulation.finish(manager->addTorrentFile(torrentData)); }
    /// Brings a seeder along when there is none.
    Task addWhole() {
        if (!seeder.manager) startSeeder();
        const Task task = add();
        waitUntilWhole(task);
        return task;
    }

    Simulation simulation;
    ManagerHost host{simulation};
    std::unique_ptr<DownloadManager>& manager = host.manager;
    const TemporaryFolder& downloads = host.downloads;
    ManagerHost seeder{simulation, 's'};
    TestTorrent torrent{50'000, {{"t/a", 399'990}, {"t/sub/b", 500'000}}};
    ScriptedHTTPServer::Script page = [](const SeenHTTPRequest& request) {
        return HTTPReply::text("a page", request.target == "/none" ? 404 : 200);
    };
    ScriptedHTTPServer web{simulation.executor(), [this](const SeenHTTPRequest& request) { return page(request); }};
    const std::string paper = web.url("/paper.pdf");
    Bytes torrentData;
    SHA1Digest infoHash{};
    std::string magnet;
};

TEST_F(DownloadManagerTest, downloadsFromAMagnetAndComesBackCompletedAfterARestart) {
    startSeeder();
    const Task task = manager->addMagnet(magnet);
    EXPECT_EQ(manager->addMagnet(magnet + "&dn=other&tr=udp://x.example:1"), task);
    EXPECT_THROW(manager->addMagnet("magnet:?dn=nothing"), MagnetParseException);
    waitUntilWhole(task);
    EXPECT_THAT(task->files(), SizeIs(2));
    EXPECT_THAT(host.notifier.names, ElementsAre("t"));
    seeder.close();
    EXPECT_EQ(restarted()->status(), TaskStatus::completed);
    simulation.advance(1s);
    EXPECT_EQ(simulation.sleepers(), 0U) << "a list that nothing happens to wakes nobody up";
}

TEST_F(DownloadManagerTest, readsALongListOfFilesFromTheSavedTorrentWhenSomebodyAsks) {
    TestTorrent::Files names;
    for (int i = 0; i < 1001; ++i) names.emplace_back("many/" + std::to_string(i), 1);
    TestTorrent many(16384, names);
    many.metaInfo->name = "many";
    many.writeTo(downloads.path());
    waitFor(simulation.finish(manager->addTorrentFile(TorrentWriter::write(*many.metaInfo))), TaskStatus::seeding);
    Task task = restarted();
    EXPECT_EQ(asText(readWholeFile(host.home.path() / "tasks.json", 1'000'000)).find("many/"), std::string::npos);
    const auto last = simulation.finish(manager->placesOf(task, 1000, 10));
    ASSERT_THAT(last, SizeIs(1));
    EXPECT_EQ(last[0].file.path, "many/1000");
    EXPECT_TRUE(last[0].place.isAvailable);
    task = restarted();
    simulation.finish(manager->removeTask(task, true));
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "many"));
}

TEST_F(DownloadManagerTest, pausesAndResumesFromTheSavedTorrent) {
    const Task task = add();
    EXPECT_EQ(add(), task);
    simulation.runUntil([&] { return task->statusMessage() == "Downloading t"; });
    simulation.finish(manager->pauseTask(task));
    EXPECT_EQ(task->status(), TaskStatus::paused);
    EXPECT_EQ(task->stallReason()->cause, StallCause::paused);
    EXPECT_FALSE(task->isControlOperationInProgress());
    const Task again = restarted();
    EXPECT_EQ(again->status(), TaskStatus::paused);
    EXPECT_EQ(again->folder(), downloads.path());
    startSeeder();
    simulation.finish(manager->resumeTask(again));
    EXPECT_FALSE(simulation.finish(manager->placesOf(again, 0, 1000)).at(0).place.isAvailable);
    waitUntilWhole(again);
    const auto places = simulation.finish(manager->placesOf(again, 0, 1000));
    EXPECT_THAT(places, SizeIs(again->files().size()));
    EXPECT_EQ(places.at(0).place.url, downloads.path() / again->files().begin()->path);
    EXPECT_TRUE(places.at(0).place.isAvailable);

    // What was sent is remembered with the task.
    const Task source = seeder.manager->tasks().at(0);
    simulation.advance(5s);  // the next report
    EXPECT_GE(source->uploadedBytes(), source->totalSize());
    EXPECT_GE(source->ratio(), 1.0);
    const std::int64_t sent = source->uploadedBytes();
    seeder.close();
    seeder.open();
    EXPECT_EQ(seeder.manager->tasks().at(0)->uploadedBytes(), sent);
}

TEST_F(DownloadManagerTest, verifiesDownloadsAgainAndSaysWhatItIsMissing) {
    const Task task = addWhole();
    std::filesystem::resize_file(downloads.path() / "t/a", 0);
    std::vector<double> shares;
    const auto subscription = host.center.subscribe<TaskChanged>(simulation.executor(), [&](const TaskChanged&) {
        if (!task->isVerifying() || !task->verifyProgress()) return;
        shares.push_back(*task->verifyProgress());
        EXPECT_EQ(task->statusMessage(), "Verifying files...");
    });
    simulation.finish(manager->recheckTask(task));
    EXPECT_FALSE(task->isVerifying());
    EXPECT_EQ(task->verifyProgress(), std::nullopt);
    EXPECT_FALSE(shares.empty());
    EXPECT_TRUE(std::is_sorted(shares.begin(), shares.end()));
    waitUntilWhole(task);
    simulation.finish(manager->redownloadTask(task));
    waitUntilWhole(task);
    simulation.finish(manager->pauseTask(task));
    TorrentArchive(host.home.path()).forget(infoHash);
    simulation.finish(manager->resumeTask(task));
    EXPECT_EQ(task->status(), TaskStatus::error);
    EXPECT_EQ(task->errorMessage(), "Cannot resume: magnet link missing");
    simulation.finish(manager->redownloadTask(task));
    EXPECT_EQ(task->errorMessage(), "Cannot redownload: magnet link missing");
    EXPECT_TRUE(torrent.isWholeIn(downloads.path())) << "what cannot come back is not deleted";
}

TEST_F(DownloadManagerTest, downloadsFromTheWebAndKeepsWhatIsNoURLAsAnError) {
    const Task task = manager->addHTTPDownload(" " + paper + "\n");
    EXPECT_EQ(manager->addHTTPDownload(paper), task);
    const Task missing = manager->addHTTPDownload(web.url("/none"));
    const Task wrong = manager->addHTTPDownload("not a link");
    EXPECT_EQ(wrong->errorMessage(), "Invalid URL");
    waitFor(task, TaskStatus::completed);
    waitFor(missing, TaskStatus::error);
    EXPECT_THAT(missing->errorMessage().value_or(""), HasSubstr("HTTP 404"));
    EXPECT_EQ(TestTorrent::contentOf(downloads.path() / "paper.pdf"), toBytes("a page"));
    EXPECT_THAT(host.notifier.names, ElementsAre("paper.pdf"));
    simulation.finish(manager->resumeTask(task));
    EXPECT_EQ(task->status(), TaskStatus::completed) << "there is nothing to go on with";
    EXPECT_THAT(manager->tasks(), SizeIs(3));
    simulation.finish(manager->removeTask(task, true));
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "paper.pdf"));
}

TEST_F(DownloadManagerTest, aTaskKeepsItsNumberWhileItIsListed) {
    const Task first = manager->addHTTPDownload("no url");
    const Task second = manager->addHTTPDownload("nor this");
    EXPECT_EQ(second->number(), 2);
    simulation.finish(manager->removeTask(first));
    EXPECT_EQ(restarted()->number(), 2);
    EXPECT_EQ(manager->addHTTPDownload("nor that")->number(), 3);
}

TEST_F(DownloadManagerTest, removesItsFilesAndNoOthers) {
    const Task task = addWhole();
    replaceWholeFile(downloads.path() / "t/mine", toBytes("not of the torrent"));
    simulation.finish(manager->removeTask(task, true));
    EXPECT_THAT(manager->tasks(), SizeIs(0));
    EXPECT_TRUE(std::filesystem::exists(downloads.path() / "t/mine"));
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "t/sub"));
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "t.torrent"));
}

TEST_F(DownloadManagerTest, aTaskStaysInTheFolderInWhichItWasBegun) {
    addWhole();
    host.sessionOptions.discovery.namedPeers.clear();
    const TemporaryFolder elsewhere;
    std::filesystem::create_directory(elsewhere.path() / "t");
    replaceWholeFile(elsewhere.path() / "t/a", toBytes("of somebody"));
    host.downloadFolder = elsewhere.path();
    const Task task = restarted();
    simulation.finish(manager->recheckTask(task));
    waitFor(task, TaskStatus::seeding);
    simulation.finish(manager->removeTask(task, true));
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "t"));
    EXPECT_EQ(TestTorrent::contentOf(elsewhere.path() / "t/a"), toBytes("of somebody"));
}

TEST_F(DownloadManagerTest, whatAnotherProcessDownloadsIsNeitherWrittenNorDeleted) {
    std::filesystem::create_directory(downloads.path() / "t");
    replaceWholeFile(downloads.path() / "t/a", toBytes("of the other"));
    std::optional<TargetLock> other(std::in_place, downloads.path(), infoHash);
    const Task refused = add();
    waitFor(refused, TaskStatus::error);
    EXPECT_THAT(refused->errorMessage().value_or(""), HasSubstr("process " + std::to_string(::getpid())));
    simulation.finish(manager->removeTask(refused, true));
    EXPECT_EQ(TestTorrent::contentOf(downloads.path() / "t/a"), toBytes("of the other"));
    const Task again = add();
    waitFor(again, TaskStatus::error);
    other.reset();
    simulation.finish(manager->removeTask(again, true));
    EXPECT_TRUE(std::filesystem::exists(downloads.path() / "t/a")) << "it has never run";
    const Task task = add();
    waitFor(task, TaskStatus::error);
    EXPECT_THAT(task->errorMessage().value_or(""), HasSubstr("t/a exists and is not part of this download"));
    simulation.finish(manager->removeTask(task, true));
    EXPECT_EQ(TestTorrent::contentOf(downloads.path() / "t/a"), toBytes("of the other")) << "it has only run";
    std::filesystem::remove(downloads.path() / "t/a");
    const Task last = add();
    simulation.runUntil([&] { return last->statusMessage() == "Downloading t"; });
    EXPECT_THROW(TargetLock(downloads.path(), infoHash), TargetTaken);
    simulation.finish(manager->removeTask(last, true));
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "t"));
}

TEST_F(DownloadManagerTest, aWebFileIsDeletedByItsNameOnceItHasIt) {
    const auto whole = std::exchange(
        page, [](const SeenHTTPRequest&) { return HTTPReply{.body = toBytes("a page"), .stallAfter = 3}; });
    const Task task = manager->addHTTPDownload(paper);
    simulation.runUntil([&] { return !task->files().empty(); });
    replaceWholeFile(downloads.path() / "paper.pdf", toBytes("mine"));
    simulation.finish(manager->removeTask(task, true));
    EXPECT_EQ(TestTorrent::contentOf(downloads.path() / "paper.pdf"), toBytes("mine"));
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "paper.pdf.part"));
    page = whole;
    const Task again = manager->addHTTPDownload(paper);
    waitFor(again, TaskStatus::completed);
    simulation.finish(manager->redownloadTask(again));
    waitFor(again, TaskStatus::completed);
    EXPECT_EQ(again->name(), "paper (1).pdf");
}

TEST_F(DownloadManagerTest, aWholeWebFileIsNotFetchedAgain) {
    const auto whole = std::exchange(page, [](const SeenHTTPRequest&) { return HTTPReply::text("none", 404); });
    const Task task = manager->addHTTPDownload(paper);
    waitFor(task, TaskStatus::error);
    page = whole;
    simulation.finish(manager->resumeTask(task));  // at once, while the session that failed still stops
    waitFor(task, TaskStatus::completed);
    const TemporaryFolder asKilled;
    std::filesystem::copy(host.home.path(), asKilled.path(), std::filesystem::copy_options::recursive);
    simulation.finish(manager->pauseTask(task));
    EXPECT_EQ(task->status(), TaskStatus::completed);
    simulation.finish(manager->stop());

    host.homeFolder = asKilled.path();
    host.open();
    const Task again = manager->tasks()[0];
    ASSERT_EQ(again->status(), TaskStatus::paused) << "killed before the list was saved";
    simulation.finish(manager->resumeTask(again));
    waitFor(again, TaskStatus::completed);
    EXPECT_THAT(web.requests(), SizeIs(2));
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "paper (1).pdf"));
    simulation.advance(1s);
    EXPECT_FALSE(std::filesystem::exists(
        ResumeData::fileFor(asKilled.path() / "resume", *again->downloadURL, downloads.path())));
}

TEST_F(DownloadManagerTest, aPauseEndsACheckAndACommandSaysWhenItIsNotCarriedOut) {
    const Task task = addWhole();
    simulation.begin(manager->recheckTask(task));
    simulation.runUntil([&] { return task->isVerifying(); });
    EXPECT_FALSE(simulation.finish(manager->resumeTask(task)));
    EXPECT_TRUE(simulation.finish(manager->pauseTask(task)));
    simulation.settle();
    EXPECT_EQ(task->status(), TaskStatus::paused);
    EXPECT_FALSE(task->isVerifying());
    simulation.begin(manager->recheckTask(task));
    simulation.runUntil([&] { return task->isVerifying(); });
    EXPECT_TRUE(simulation.finish(manager->removeTask(task)));
}

TEST_F(DownloadManagerTest, aRemovalIsDoneToItsEndAndSparesWhatIsAddedInItsPlace) {
    simulation.begin(manager->removeTask(addWhole(), true));
    simulation.runUntil([&] { return manager->tasks().empty(); });
    const Task next = addWhole();
    EXPECT_TRUE(TorrentArchive(host.home.path()).torrent(infoHash));
    const auto subscription =
        host.center.subscribe<TaskListChanged>(simulation.executor(), [&](const TaskListChanged&) {
            simulation.start(manager->stop());  // in the midst of it
        });
    simulation.begin(manager->removeTask(next, true));
    simulation.runUntil([&] { return manager->tasks().empty(); });
    simulation.finish(manager->stop());
    EXPECT_FALSE(std::filesystem::exists(downloads.path() / "t"));
}

TEST_F(DownloadManagerTest, aRemovalThatWasKilledIsDoneAtTheNextStart) {
    const auto removal = host.home.path() / "removals" / (toHex(infoHash) + ".removal");
    for (const bool deletesFiles : {true, false}) {
        const Task task = addWhole();
        const SavedTask saved = SavedTask::of(*task);
        EXPECT_TRUE(simulation.finish(manager->whenSaved()));
        host.close();
        PendingRemovals(host.home.path()).begin(infoHash, {saved, deletesFiles});
        if (deletesFiles) std::filesystem::remove(downloads.path() / "t/sub/b");  // killed behind this
        host.open();
        EXPECT_THAT(manager->tasks(), SizeIs(0));
        EXPECT_EQ(std::filesystem::exists(downloads.path() / "t"), !deletesFiles);
        EXPECT_FALSE(TorrentArchive(host.home.path()).torrent(infoHash));
        EXPECT_FALSE(std::filesystem::exists(removal));
    }
    // Of one that was added again in its place nothing is touched.
    const Task again = addWhole();
    SavedTask former = SavedTask::of(*again);
    former.addedDate -= 1s;
    PendingRemovals(host.home.path()).begin(infoHash, {former, true});
    EXPECT_EQ(restarted()->status(), TaskStatus::completed);
    EXPECT_TRUE(torrent.isWholeIn(downloads.path()));
    EXPECT_FALSE(std::filesystem::exists(removal));
    simulation.finish(manager->removeTask(manager->tasks().at(0), true));
    EXPECT_FALSE(std::filesystem::exists(removal));
}

TEST_F(DownloadManagerTest, commandsAndSessionsStopSideBySide) {
    page = [](const SeenHTTPRequest& request) {
        HTTPReply reply = HTTPReply::text("d8:intervali1800e5:peers0:e");
        if (request.target.find("event=stopped") != std::string::npos) reply.stallAfter = 0;
        return reply;
    };
    host.sessionOptions.discovery.allowsLocalPeers = true;  // the trackers are on loopback
    const std::string tail = "&tr=" + web.url("/announce");
    const Task first = manager->addMagnet(magnet + tail);
    const Task second = manager->addMagnet("magnet:?xt=urn:btih:" + std::string(40, 'a') + tail);
    const auto isAnnounced = [](const Task& task) {
        return !task->trackerDetails().empty() && task->trackerDetails()[0].lastAnnounceAt;
    };
    simulation.runUntil([&] { return isAnnounced(first) && isAnnounced(second); });
    simulation.begin(manager->pauseTask(first));
    simulation.runUntil([&] { return web.requests().size() == 3; });
    const auto begun = simulation.now();
    const auto stopped = simulation.begin(manager->stop());
    simulation.advanceUntil([&] { return Simulation::hasEnded(stopped); });
    EXPECT_GE(simulation.now() - begun, 3s) << "the trackers are told";
    EXPECT_LT(simulation.now() - begun, 4s);
}

TEST_F(DownloadManagerTest, aTorrentThatCannotBeKeptIsNotAdded) {
    replaceWholeFile(host.home.path() / "torrents", {});
    EXPECT_THROW(add(), std::system_error);
    EXPECT_THAT(manager->tasks(), SizeIs(0));
}

}  // namespace
}  // namespace skein
