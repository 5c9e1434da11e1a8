#include "Core/engine/TorrentSession.h"
#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/support/LoopbackTracker.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/TestSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::SizeIs;
using Kind = TorrentSession::State::Kind;

class TorrentSessionTest : public testing::Test {
protected:
    TorrentSessionTest() {
        torrent.metaInfo->name = "t";
        torrentData = TorrentWriter::write(*torrent.metaInfo);
        infoHash = TorrentParser::parse(torrentData).infoHash;
        torrent.writeTo(seederFolder.path());
    }

    TorrentSession::Options optionsFor(const TemporaryFolder& folder) const {
        TorrentSession::Options options;
        options.savePath = folder.path();
        return options;
    }
    std::unique_ptr<TestSession> start(char id, TorrentSession::Options options, const Bytes& data) {
        auto session =
            std::make_unique<TestSession>(simulation, infoHash, id, std::move(options), simulation.executor());
        session->start(data);
        return session;
    }
    std::unique_ptr<TestSession> startSeeder(const std::vector<std::string>& trackers = {}) {
        TorrentSession::Options options = optionsFor(seederFolder);
        options.seedsOnly = true;
        options.discovery.extraTrackers = trackers;
        return start('s', std::move(options), torrentData);
    }
    std::unique_ptr<TestSession> startGetter(const TemporaryFolder& folder, const PeerAddress& peer, char id = 'g') {
        TorrentSession::Options options = optionsFor(folder);
        options.discovery.namedPeers = {peer};
        return start(id, std::move(options), torrentData);
    }
    std::unique_ptr<TestSession> startGetter(const PeerAddress& peer) { return startGetter(getterFolder, peer); }
    /// A seeder that `session` knows of.
    std::unique_ptr<TestSession> addSeederTo(TestSession& session) {
        auto seeder = startSeeder();
        simulation.finish(session.session().connectToPeer(seeder->address()));
        return seeder;
    }
    void waitFor(TestSession& session, Kind kind) {
        simulation.runUntil([&] { return session.state() == kind; });
    }
    /// Answers every request with the right block, its first byte changed by `damage`.
    asio::awaitable<void> serve(ScriptedPeer& peer, std::uint8_t damage = 0) {
        for (;;) {
            const Bytes body = co_await peer.readUntil(MessageID::request);
            const BlockRequest request = ScriptedPeer::requestIn(body);
            Bytes data = torrent.block(request);
            data[0] ^= damage;
            co_await peer.sendPiece(request, std::move(data));
        }
    }
    /// A seeder that sends damaged blocks until the other side has had enough.
    asio::awaitable<void> serveGarbage(ScriptedPeer& peer) {
        co_await openAsSeeder(peer);
        co_await serve(peer, 1);
    }
    asio::awaitable<void> openAsSeeder(ScriptedPeer& peer) {
        co_await peer.accept();
        co_await peer.shakeHands(infoHash, peerIDOf('x'));
        Bytes everything(3, 0xFF);
        co_await peer.sendMessage(MessageID::bitfield, std::move(everything));
        Bytes nothing;
        co_await peer.sendMessage(MessageID::unchoke, std::move(nothing));
    }
    /// Everything that no peer should send, in one go; then it serves properly.
    asio::awaitable<void> serveAmidNonsense(ScriptedPeer& peer) {
        co_await peer.accept();
        co_await peer.shakeHands(infoHash, peerIDOf('x'));
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
        co_await peer.send(std::move(nonsense));
        co_await serve(peer);
    }

    Simulation simulation;
    TemporaryFolder seederFolder;
    TemporaryFolder getterFolder;
    TestTorrent torrent{50'000, {{"t/a", 399'990}, {"t/empty", 0}, {"t/sub/b", 500'000}, {"t/c", 1}}};
    Bytes torrentData;
    SHA1Digest infoHash{};
};

TEST_F(TorrentSessionTest, downloadsFromASeederWhoThenRests) {
    const auto seeder = startSeeder();
    EXPECT_THAT(seeder->states, ElementsAre(Kind::completed, Kind::seeding));
    EXPECT_TRUE(seeder->hasStatus("Files already exist, download complete"));
    auto getter = startGetter(seeder->address());
    waitFor(*getter, Kind::seeding);
    EXPECT_THAT(getter->states, ElementsAre(Kind::downloading, Kind::completed, Kind::seeding));
    EXPECT_TRUE(torrent.isWholeIn(getterFolder.path()));
    EXPECT_EQ(TestTorrent::contentOf(getterFolder.path() / "t.torrent"), torrentData);
    EXPECT_TRUE(getter->hasLogged("[Session] ✓ Piece 17 done ("));
    EXPECT_TRUE(getter->hasLogged("[Session] ✅ Download completed!"));
    EXPECT_EQ(simulation.finish(getter->session().getCompletionBitmap()), std::vector<bool>(18, true));
    getter->stop();
    simulation.runUntil([&] { return seeder->hasLogged("[Session] Peer disconnected: "); });
    simulation.advance(2s);
    EXPECT_EQ(seeder->progress.uploadedBytes, torrent.metaInfo->totalSize);
    EXPECT_EQ(simulation.sleepers(), 0U) << "a seeding torrent that nobody talks to wakes nobody up";
}

TEST_F(TorrentSessionTest, goesOnFromWhatIsThereAndServesWhileItDownloads) {
    torrent.writeTo(getterFolder.path());
    std::filesystem::resize_file(getterFolder.path() / "t/sub/b", 100'000);
    const auto first = startGetter({"127.0.0.1", 1});
    EXPECT_TRUE(first->hasStatus("Downloading t"));
    EXPECT_GT(first->progress.fraction, 0.4);
    TemporaryFolder otherFolder;
    const auto second = startGetter(otherFolder, first->address(), 'o');
    simulation.runUntil([&] {
        simulation.advance(1s);
        return second->progress.completedBytes == first->progress.completedBytes;
    });
    const auto seeder = addSeederTo(*second);
    waitFor(*second, Kind::seeding);
    waitFor(*first, Kind::seeding);  // which was dialled by the second, and asks it for what it misses
    EXPECT_TRUE(torrent.isWholeIn(getterFolder.path()));
}

TEST_F(TorrentSessionTest, dropsAPeerThatSentTwoBadPiecesAndCompletesWithAnother) {
    ScriptedPeer liar(simulation.executor());
    simulation.start(serveGarbage(liar));
    const auto getter = startGetter(liar.address());
    simulation.runUntil([&] { return getter->hasLogged("pieces with a bad hash, dropping peer"); });
    EXPECT_TRUE(getter->hasLogged(" hash mismatch, re-downloading"));
    const auto seeder = addSeederTo(*getter);
    waitFor(*getter, Kind::seeding);
    EXPECT_TRUE(torrent.isWholeIn(getterFolder.path()));
}

TEST_F(TorrentSessionTest, isNotMisledByNonsenseBetweenGoodBlocks) {
    ScriptedPeer odd(simulation.executor());
    simulation.start(serveAmidNonsense(odd));
    const auto getter = startGetter(odd.address());
    waitFor(*getter, Kind::seeding);
    EXPECT_TRUE(torrent.isWholeIn(getterFolder.path()));
}

TEST_F(TorrentSessionTest, givesAPieceThatStallsToSomeoneElse) {
    ScriptedPeer silent(simulation.executor());
    simulation.start(openAsSeeder(silent));
    const auto getter = startGetter(silent.address());
    simulation.runUntil([&] { return silent.isOpen() && silent.available() > 17; });
    const auto seeder = addSeederTo(*getter);
    simulation.runUntil([&] {
        simulation.advance(1s);
        return getter->state() == Kind::seeding;
    });
    EXPECT_TRUE(torrent.isWholeIn(getterFolder.path()));
}

TEST_F(TorrentSessionTest, findsItsPeersThroughTrackersAndTellsThemHowItGoes) {
    LoopbackTracker tracker(simulation.executor());
    TorrentSession::Options options = optionsFor(getterFolder);
    options.discovery.extraTrackers = {tracker.httpURL(), tracker.udpURL(), "wss://no.such/"};
    const auto seeder = startSeeder(options.discovery.extraTrackers);
    simulation.runUntil([&] { return tracker.announces().size() == 2; });
    const auto getter = start('g', options, torrentData);
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
    ASSERT_THAT(getter->trackers, SizeIs(3));
    EXPECT_EQ(getter->trackers[2].lastError, "Invalid tracker URL");
    seeder->stop();
    simulation.finish(tracker.stop());
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
    EXPECT_TRUE(torrent.isWholeIn(getterFolder.path()));
}

TEST_F(TorrentSessionTest, refusesWhatIsNotItsTorrentAndWhatCannotBeStored) {
    const auto messageFor = [&](const Bytes& data) {
        const auto session = start('g', optionsFor(getterFolder), data);
        EXPECT_EQ(session->state(), Kind::error);
        return session->statuses.back();
    };
    EXPECT_EQ(messageFor(toBytes("le")), "Torrent file is not a dictionary");
    EXPECT_EQ(messageFor(toBytes("de")), "Torrent file has no 'info' key");
    EXPECT_THAT(messageFor(toBytes("d4:info")), HasSubstr("Failed to parse torrent: Unexpected end of data"));
    TestTorrent other(50'000, {{"u", 1}});
    EXPECT_THAT(messageFor(TorrentWriter::write(*other.metaInfo)), HasSubstr("Info hash mismatch: expected "));
    TestTorrent hostile(50'000, {{"../u", 1}});
    hostile.metaInfo->name = "..";
    const Bytes data = TorrentWriter::write(*hostile.metaInfo);
    infoHash = TorrentParser::parse(data).infoHash;
    EXPECT_FALSE(messageFor(data).empty());
}

}  // namespace
}  // namespace skein
