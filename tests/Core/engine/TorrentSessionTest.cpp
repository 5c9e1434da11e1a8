#include "tests/Core/engine/SwarmFixture.h"
#include "tests/support/LoopbackTracker.h"

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::AllOf, testing::Contains, testing::ElementsAre, testing::Field, testing::HasSubstr;

class TorrentSessionTest : public SwarmFixture {
protected:
    asio::awaitable<void> keepAlive(ScriptedPeer& peer) {
        for (;;) {
            co_await simulation.sleep(1min);
            co_await peer.send(Bytes(4));
        }
    }
};

TEST_F(TorrentSessionTest, downloadsFromASeederWhoThenRests) {
    const auto seeder = startSeeder();
    EXPECT_THAT(seeder->states, ElementsAre(Kind::completed, Kind::seeding));
    auto getter = startGetter(seeder->address());
    waitUntilWhole(*getter);
    EXPECT_THAT(getter->states, ElementsAre(Kind::downloading, Kind::completed, Kind::seeding));
    EXPECT_EQ(TestTorrent::contentOf(getterFolder.path() / "t.torrent"), torrentData);
    EXPECT_TRUE(getter->hasLogged("[Session] No more pieces to request from "));
    EXPECT_EQ(simulation.finish(getter->session().getCompletionBitmap()), std::vector<bool>(18, true));
    getter->stop();
    simulation.runUntil([&] { return seeder->hasLogged("[Session] Peer disconnected: "); });
    simulation.advance(2s);
    EXPECT_EQ(seeder->progress.uploadedBytes, torrent.metaInfo->totalSize);
    EXPECT_EQ(simulation.sleepers(), 0U) << "a seeding torrent that nobody talks to wakes nobody up";
}

TEST_F(TorrentSessionTest, answersPeersWhileItsFilesAreStillVerified) {
    const auto seeder = make('s', {.seedsOnly = true});
    Bytes data = torrentData;
    simulation.start(seeder->session().start(std::move(data)));
    simulation.runUntil([&] { return seeder->hasLogged("[Session] TCP listener started on port "); });
    EXPECT_FALSE(seeder->hasLogged("verifyExistingPieces done"));
    auto getter = startGetter(seeder->address());
    waitUntilWhole(*getter);  // over that connection: no time passes in which it could be dialled again
}

TEST_F(TorrentSessionTest, goesOnFromWhatIsThereAndServesWhileItDownloads) {
    torrent.writeTo(getterFolder.path());
    std::filesystem::resize_file(getterFolder.path() / "t/sub/b", 100'000);
    std::filesystem::remove(getterFolder.path() / "t/c");  // no piece matches in it
    const auto first = startGetter({"127.0.0.1", 1});
    EXPECT_TRUE(first->hasStatus("Downloading t"));
    EXPECT_GT(first->progress.fraction, 0.4);
    TemporaryFolder otherFolder;
    Options options{.savePath = otherFolder.path()};
    options.discovery.namedPeers = {first->address()};
    const auto second = start('o', std::move(options));
    simulation.runUntil([&] {
        simulation.advance(1s);
        return second->progress.completedBytes == first->progress.completedBytes;
    });
    const auto seeder = startSeeder();
    simulation.finish(second->session().connectToPeer(seeder->address()));
    waitFor(*second, Kind::seeding);
    waitFor(*first, Kind::seeding);  // which was dialled by the second, and asks it for what it misses
    EXPECT_TRUE(hasAllFiles());
}

TEST_F(TorrentSessionTest, dropsAPeerThatSentTwoBadPiecesAndCompletesWithAnother) {
    ScriptedPeer liar(simulation.executor());
    const auto getter = startGetter(liar.address());
    simulation.finish(liar.accept());
    simulation.start(seed(liar, 1000, 1));
    simulation.runUntil([&] { return getter->hasLogged("pieces with a bad hash, dropping peer"); });
    complete(*getter);
}

TEST_F(TorrentSessionTest, isNotMisledByNonsenseBetweenGoodBlocks) {
    ScriptedPeer odd(simulation.executor());
    const auto getter = startGetter(odd.address());
    simulation.finish(odd.accept());
    simulation.finish(odd.shakeHands(infoHash, peerIDOf('x')));
    Bytes nonsense;
    wire::appendMessage(nonsense, MessageID::bitfield, Bytes(1, 0x80));
    wire::appendMessage(nonsense, MessageID::bitfield, Bytes(500, 0xFF));
    wire::appendHave(nonsense, 0xFFFFFFFF);
    wire::appendHave(nonsense, 1'000'000);
    wire::appendMessage(nonsense, MessageID::piece, Bytes(9 + 16384));                           // nobody asked
    wire::appendMessage(nonsense, MessageID::piece, Bytes{0, 0, 0, 0, 0xFF, 0xFF, 0xC0, 0, 1});  // past the end
    wire::appendBlockMessage(nonsense, MessageID::request, {0, 0, 16384});                       // while choked
    wire::appendMessage(nonsense, MessageID::extended, Bytes{0, 'x'});
    wire::appendMessage(nonsense, MessageID::unchoke);
    simulation.finish(odd.send(std::move(nonsense)));
    simulation.start(serveBlocks(odd, blocks()));
    waitUntilWhole(*getter);
}

TEST_F(TorrentSessionTest, givesAPieceThatStallsToSomeoneElse) {
    ScriptedPeer silent(simulation.executor());
    const auto getter = startGetter(silent.address());
    simulation.finish(silent.accept());
    simulation.finish(seed(silent, 0));
    simulation.runUntil([&] { return silent.available() > 17; });
    complete(*getter, 1s);
}

TEST_F(TorrentSessionTest, findsItsPeersThroughTrackersAndTellsThemHowItGoes) {
    LoopbackTracker tracker(simulation.executor());
    Options options;
    options.discovery.extraTrackers = {tracker.httpURL(), tracker.udpURL(), "wss://no.such/"};
    const auto getter = make('g', options);
    options.seedsOnly = true;
    const auto seeder = start('s', std::move(options));
    simulation.runUntil([&] { return tracker.announces().size() == 2; });
    getter->start(torrentData);
    waitFor(*getter, Kind::seeding);
    simulation.runUntil(
        [&] { return tracker.announces().size() == 6 && getter->trackers[0].status == TrackerRuntimeStatus::working; });
    getter->stop();
    const auto ofGetter = [&](const std::string& event, std::int64_t left) {
        return Contains(AllOf(Field(&LoopbackTracker::Seen::event, event), Field(&LoopbackTracker::Seen::left, left)));
    };
    EXPECT_THAT(tracker.announces(), ofGetter("started", torrent.metaInfo->totalSize));
    EXPECT_THAT(tracker.announces(), ofGetter("completed", 0));
    EXPECT_THAT(tracker.announces(), ofGetter("stopped", 0));
    ASSERT_EQ(getter->trackers.size(), 3U);
    EXPECT_EQ(getter->trackers[2].lastError, "Invalid tracker URL");
    seeder->stop();
    simulation.finish(tracker.stop());
}

TEST_F(TorrentSessionTest, letsAPeerGoThatIsOfNoUseForFiveMinutesWhenAnotherWaits) {
    ScriptedPeer idle(simulation.executor());
    LoopbackTracker tracker(simulation.executor());
    tracker.addPeer(infoHash, idle.address());
    Options options{.maxConnections = 1};
    options.discovery.extraTrackers = {tracker.udpURL()};
    const auto getter = start('g', std::move(options));
    simulation.finish(idle.accept());
    simulation.finish(idle.shakeHands(infoHash, peerIDOf('i')));
    simulation.start(keepAlive(idle));
    simulation.runUntil([&] { return getter->hasLogged("[Direct] ✓ "); });
    Options seeding{.seedsOnly = true};
    seeding.discovery.namedPeers = {getter->address()};
    const auto seeder = start('s', std::move(seeding));
    for (int minute = 0; minute < 4; ++minute) {
        simulation.advance(1min);
        simulation.runUntilStill([&] { return seeder->countLogged("[Direct] ✗ "); });
    }
    EXPECT_EQ(getter->progress.completedBytes, 0) << "who came first stays for five minutes";
    waitUntilWhole(*getter, 1s);
    EXPECT_TRUE(getter->hasLogged("Peer disconnected: " + idle.address().description()));
    seeder->stop();
    getter->stop();
    simulation.finish(tracker.stop());
}

TEST_F(TorrentSessionTest, letsAPeerGoThatAnswersNothingForAMinuteOrThatIsInTheWayOfTheUsersOwn) {
    for (const bool isNamed : {false, true}) {
        ScriptedPeer silent(simulation.executor());
        LoopbackTracker tracker(simulation.executor());
        tracker.addPeer(infoHash, silent.address());
        TemporaryFolder folder;
        Options options{.savePath = folder.path(), .maxConnections = 1};
        options.discovery.extraTrackers = {tracker.udpURL()};
        const auto getter = start('g', std::move(options));
        simulation.finish(silent.accept());
        simulation.finish(seed(silent, 0));
        simulation.runUntil([&] { return getter->hasLogged("[Direct] ✓ "); });
        simulation.start(keepAlive(silent));
        Options seeding{.seedsOnly = true};
        if (!isNamed) seeding.discovery.namedPeers = {getter->address()};
        const auto seeder = start('s', std::move(seeding));
        if (isNamed) simulation.finish(getter->session().connectToPeer(seeder->address()));
        const Clock::TimePoint began = simulation.now();
        waitFor(*getter, Kind::seeding, isNamed ? 0s : 1s);
        EXPECT_TRUE(torrent.isWholeIn(folder.path()));
        EXPECT_EQ(simulation.now() - began >= 50s, !isNamed);
        EXPECT_LT(simulation.now() - began, 90s);
        seeder->stop();
        getter->stop();
        simulation.finish(tracker.stop());
    }
}

TEST_F(TorrentSessionTest, asksATrackerInsideTheUsersNetworkOnlyWhereTheUserNamedIt) {
    LoopbackTracker tracker(simulation.executor());
    torrent.metaInfo->announceList = {{tracker.httpURL()}};
    useTorrent(TorrentWriter::write(*torrent.metaInfo));
    const auto getter = start('g', {});
    simulation.runUntil([&] { return getter->trackers.size() == 1 && getter->trackers[0].lastError; });
    EXPECT_THAT(*getter->trackers[0].lastError, HasSubstr("The address is not public"));
    getter->stop();
    EXPECT_TRUE(tracker.announces().empty());
    Options options;
    options.discovery.extraTrackers = {tracker.httpURL()};
    const auto other = start('o', std::move(options));
    simulation.runUntil([&] { return tracker.announces().size() == 1; });
    other->stop();
    simulation.finish(tracker.stop());
}

TEST_F(TorrentSessionTest, goesByWhatIsSetWhileItRuns) {
    LoopbackTracker first(simulation.executor());
    LoopbackTracker second(simulation.executor());
    ScriptedPeer asking(simulation.executor());
    Options options{.seedsOnly = true};
    options.discovery.fallbackTrackers = {first.httpURL()};
    options.discovery.namedPeers = {asking.address()};
    SessionTuning tuning = options.tuning();
    const auto seeder = start('s', std::move(options));
    simulation.finish(asking.accept());
    simulation.finish(asking.shakeHands(infoHash, peerIDOf('a')));
    simulation.finish(asking.sendMessage(MessageID::interested, {}));
    simulation.finish(asking.readUntil(MessageID::unchoke));
    simulation.runUntil(
        [&] { return !seeder->trackers.empty() && seeder->trackers[0].status == TrackerRuntimeStatus::working; });

    tuning.uploadMode = UploadMode::disabled;
    tuning.fallbackTrackers = {second.httpURL()};
    simulation.finish(seeder->session().retune(tuning));
    simulation.finish(asking.readUntil(MessageID::choke));
    Bytes request;
    wire::appendBlockMessage(request, MessageID::request, {0, 0, 16384});
    simulation.finish(asking.send(std::move(request)));
    simulation.runUntil([&] { return second.announces().size() == 1 && first.announces().size() == 2; });
    EXPECT_EQ(first.announces()[1].event, "stopped");

    tuning.uploadMode = UploadMode::free;
    simulation.finish(seeder->session().retune(tuning));
    simulation.finish(asking.readUntil(MessageID::unchoke));
    simulation.advance(2s);
    EXPECT_EQ(seeder->progress.uploadedBytes, 0) << "what was asked for while nobody was served";
    EXPECT_EQ(second.announces().size(), 1U);
    seeder->stop();
    simulation.finish(first.stop());
    simulation.finish(second.stop());
}

TEST_F(TorrentSessionTest, isCompleteOnlyWithWhatItWroteInItsFiles) {
    ScriptedPeer seeder(simulation.executor());
    const auto getter = startGetter(seeder.address());
    simulation.finish(seeder.accept());
    simulation.finish(seed(seeder, 40));
    simulation.runUntil([&] { return getter->hasLogged("✓ Piece 0 done"); });
    std::fstream(getterFolder.path() / "t/a", std::ios::in | std::ios::out | std::ios::binary).seekp(7) << "not ours";
    simulation.start(serveBlocks(seeder, blocks()));
    waitUntilWhole(*getter);
    EXPECT_TRUE(getter->hasLogged("hashing"));
    EXPECT_EQ(std::ranges::count(getter->states, Kind::completed), 1);
    getter->stop();
}

TEST_F(TorrentSessionTest, pausesRechecksAndResumes) {
    const auto seeder = startSeeder();
    const auto getter = startGetter(seeder->address());
    waitFor(*getter, Kind::seeding);
    simulation.finish(getter->session().pause());
    EXPECT_EQ(getter->state(), Kind::paused);
    std::filesystem::resize_file(getterFolder.path() / "t/a", 0);
    simulation.finish(getter->session().recheckFiles());
    EXPECT_TRUE(getter->hasStatus("Verification complete — 8 pieces missing"));
    waitFor(*getter, Kind::seeding);
    simulation.finish(getter->session().recheckWithTorrentData(torrentData));
    EXPECT_TRUE(getter->hasStatus("Verification complete — files intact, seeding started"));
    simulation.finish(getter->session().recheckWithTorrentData(toBytes("de")));
    EXPECT_EQ(getter->statuses.back(), "Failed to parse torrent file");
    EXPECT_TRUE(hasAllFiles());
}

TEST_F(TorrentSessionTest, refusesWhatIsNotItsTorrentAndWhatCannotBeStored) {
    const auto messageFor = [&](const Bytes& data) {
        const auto session = make('g', {});
        session->start(data);
        EXPECT_EQ(session->state(), Kind::error);
        return session->statuses.back();
    };
    EXPECT_THAT(messageFor(toBytes("d4:info")), HasSubstr("Failed to parse torrent: Unexpected end of data"));
    TestTorrent other(50'000, {{"u", 1}});
    EXPECT_THAT(messageFor(TorrentWriter::write(*other.metaInfo)), HasSubstr("Info hash mismatch: expected "));
    TestTorrent hostile(50'000, {{"../u", 1}});
    hostile.metaInfo->name = "..";
    useTorrent(TorrentWriter::write(*hostile.metaInfo));
    EXPECT_FALSE(messageFor(torrentData).empty());
}

}  // namespace
}  // namespace skein
