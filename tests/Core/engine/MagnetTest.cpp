#include "Core/engine/ParsedTorrent.h"
#include "Core/formats/MagnetParser.h"
#include "Core/wire/ExtendedMessage.h"
#include "tests/Core/engine/SwarmFixture.h"
#include "tests/support/LoopbackDHT.h"
#include "tests/support/LoopbackTracker.h"
#include "tests/support/ScriptedHTTPServer.h"

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre, testing::HasSubstr;

/// A peer without files that knows something of metadata.
enum class MetadataPeer : std::uint8_t { lies, staysSilent, rejects };

class MagnetTest : public SwarmFixture {
protected:
    std::unique_ptr<TestSession> startMagnet(Options options, const std::optional<PeerAddress>& bootstrapNode = {}) {
        magnet.infoHash = infoHash;
        magnet.infoHashHex = toHex(infoHash);
        auto getter = make('g', std::move(options), bootstrapNode);
        getter->startMagnet(magnet);
        return getter;
    }

    asio::awaitable<void> play(ScriptedPeer& peer, MetadataPeer role) {
        co_await peer.accept();
        co_await peer.shakeHands(infoHash, peerIDOf(role == MetadataPeer::lies ? 'l' : 'm'));
        Bytes body{0};
        append(body, ExtendedHandshake{3, 4, static_cast<std::int64_t>(infoData.size()), 100}.encode());
        co_await peer.sendMessage(MessageID::extended, std::move(body));
        for (;;) {
            const Bytes message = co_await peer.readUntil(MessageID::extended);
            if (message[0] != 3) continue;
            ++metadataRequests;
            if (role == MetadataPeer::staysSilent) continue;
            const auto request = MetadataMessage::decode(ByteView(message).subspan(1));
            Bytes answer{1};
            append(answer, role == MetadataPeer::rejects
                               ? MetadataMessage::encodeReject(*request->piece)
                               : MetadataMessage::encodeData(*request->piece, 1, Bytes(infoData.size(), 'L')));
            co_await peer.sendMessage(MessageID::extended, std::move(answer));
        }
    }

    /// Another torrent, with the info dictionary of this one where a search of the bytes would find it first.
    Bytes forgery() const {
        Bytes disguise = toBytes("4:info");
        append(disguise, infoData);
        TorrentMetaInfo other = *torrent.metaInfo;
        other.comment = std::string(asText(disguise));
        other.name = "f";
        return TorrentWriter::write(other);
    }

    MagnetLink magnet;
    int metadataRequests = 0;
};

TEST_F(MagnetTest, becomesATorrentOverTheConnectionsThatItHas) {
    // Keys that are not sorted: only the very same bytes have the info-hash.
    Bytes unsorted = TorrentFile::infoDataOf(torrentData);
    unsorted.pop_back();
    append(unsorted, toBytes("1:ai1ee"));
    useTorrent(TorrentWriter::wrap(unsorted, {}));
    const auto seeder = startSeeder();
    Options options;
    options.discovery.namedPeers = {seeder->address()};
    TemporaryFolder home;
    const TorrentArchive archive(home.path());
    options.archive = archive;
    magnet.trackers = {"udp://127.0.0.1:1/announce"};
    const auto getter = startMagnet(std::move(options));
    waitUntilWhole(*getter);
    EXPECT_THAT(getter->states, ElementsAre(Kind::fetchingMetadata, Kind::downloading, Kind::completed, Kind::seeding));
    EXPECT_EQ(seeder->countLogged("✓ Accepted peer"), 1);
    const Bytes saved = TestTorrent::contentOf(getterFolder.path() / "t.torrent");
    EXPECT_EQ(TorrentParser::parse(saved).infoHash, infoHash);
    EXPECT_THAT(TorrentParser::parse(saved).announceList, ElementsAre(ElementsAre("udp://127.0.0.1:1/announce")));
    EXPECT_EQ(archive.torrent(infoHash), saved);
    getter->stop();
    EXPECT_FALSE(archive.resumeRecord(infoHash).empty());
}

TEST_F(MagnetTest, getsTheMetadataInSpiteOfALiarASilentPeerAndOneThatRefuses) {
    std::vector<std::unique_ptr<ScriptedPeer>> peers;
    Options options;
    for (const auto role : {MetadataPeer::lies, MetadataPeer::staysSilent, MetadataPeer::rejects}) {
        peers.push_back(std::make_unique<ScriptedPeer>(simulation.executor()));
        options.discovery.namedPeers.push_back(peers.back()->address());
        simulation.start(play(*peers.back(), role));
    }
    const auto getter = startMagnet(std::move(options));
    simulation.runUntil([&] { return getter->hasLogged("Failed to parse metadata: ") && metadataRequests >= 3; });
    complete(*getter, 1s);
}

TEST_F(MagnetTest, takesTheTorrentFromTheCacheSiteThatHasIt) {
    ScriptedHTTPServer sites(simulation.executor(), [&](const SeenHTTPRequest& request) {
        HTTPReply reply;
        if (request.target.starts_with("/short")) reply.body = Bytes(50, 'x');
        if (request.target.starts_with("/wrong")) reply.body = Bytes(51, 'x');
        if (request.target.starts_with("/hangs")) reply.stallAfter = 0, reply.body = Bytes(100);
        if (request.target.starts_with("/forged")) reply.body = forgery();
        if (request.target.starts_with("/good")) reply.body = torrentData;
        return reply;
    });
    Options options;
    for (const char* const name : {"/short/{HASH}", "/wrong/{HASH}", "/forged/{HASH}", "/hangs/{HASH}"})
        options.cacheSites.push_back(sites.url(name));
    auto failing = startMagnet(options);
    const std::string forged = " → " + std::to_string(forgery().size()) + " bytes";
    simulation.runUntil([&] {
        return failing->hasLogged("51 bytes") && failing->hasLogged("50 bytes (invalid)") && failing->hasLogged(forged);
    });
    EXPECT_THAT(sites.requests()[0].target, HasSubstr(toUpperHex(infoHash)));
    EXPECT_FALSE(failing->hasStatus("Searching for peers (round 1)..."));
    simulation.advance(2s);
    EXPECT_TRUE(failing->hasStatus("Searching for peers (round 1)...")) << "a site that hangs holds nothing up";
    failing->stop();
    options.cacheSites.push_back(sites.url("/good/{HASH}.torrent"));
    const auto getter = startMagnet(options);
    waitFor(*getter, Kind::downloading);
    EXPECT_FALSE(getter->hasStatus("Fetching torrent via peer network..."));
    simulation.finish(sites.stop());
}

TEST_F(MagnetTest, usesNoSavedCopyThatIsAnotherTorrent) {
    TemporaryFolder home;
    const TorrentArchive archive(home.path());
    archive.keep(infoHash, torrentData);
    EXPECT_EQ(archive.torrent(infoHash), torrentData);
    archive.keep(infoHash, forgery());
    EXPECT_EQ(archive.torrent(infoHash), std::nullopt);
    EXPECT_THAT(ParsedTorrent::read(forgery(), infoHash).failure, HasSubstr("Info hash mismatch"));
}

TEST_F(MagnetTest, givesUpAfterItsRoundsAndCanBePausedBefore) {
    Options options;
    options.maxMagnetRounds = 2;
    const auto getter = startMagnet(options);
    simulation.runUntil([&] { return getter->hasStatus("Searching for peers (round 1)..."); });
    simulation.finish(getter->session().pause());
    simulation.settle();
    EXPECT_EQ(getter->state(), Kind::paused);
    simulation.finish(getter->session().resume());
    waitFor(*getter, Kind::error, 1s);
    EXPECT_TRUE(getter->hasStatus("No peers found in round 2"));
    EXPECT_EQ(getter->statuses.back(), "Unable to fetch torrent info. Please check your network and try again.");
    EXPECT_EQ(simulation.sleepers(), 0U);
}

TEST_F(MagnetTest, leavesPublicSourcesWhenTheTorrentTurnsOutToBePrivate) {
    torrent.metaInfo->isPrivate = true;
    useTorrent(TorrentWriter::write(*torrent.metaInfo));
    LoopbackTracker fallback(simulation.executor());
    ScriptedPeer stranger(simulation.executor());
    ScriptedPeer silent(simulation.executor());
    fallback.addPeer(infoHash, stranger.address());
    fallback.addPeer(infoHash, silent.address());
    Options options;
    options.discovery.fallbackTrackers = {fallback.httpURL()};
    const auto getter = startMagnet(std::move(options));
    simulation.finish(stranger.accept());
    simulation.finish(silent.accept());  // whose dial is still in flight
    simulation.finish(stranger.shakeHands(infoHash, peerIDOf('x')));
    complete(*getter);
    simulation.finish(stranger.waitForClose());
    simulation.finish(silent.waitForClose());
    simulation.runUntil([&] { return fallback.announces().back().event == "stopped"; });
    EXPECT_EQ(fallback.announces().front().left, 16384) << "the size was not known, but something was missing";
    getter->stop();
    simulation.finish(fallback.stop());
}

TEST_F(MagnetTest, keepsThePeersOfItsOwnTrackersWhenTheTorrentTurnsOutToBePrivate) {
    torrent.metaInfo->isPrivate = true;
    useTorrent(TorrentWriter::write(*torrent.metaInfo));
    LoopbackTracker own(simulation.executor());
    const auto seeder = startSeeder();
    own.addPeer(infoHash, seeder->address());
    magnet.trackers = {own.httpURL()};
    Options options;
    options.discovery.allowsLocalPeers = true;
    const auto getter = startMagnet(std::move(options));
    waitUntilWhole(*getter);
    EXPECT_EQ(seeder->countLogged("✓ Accepted peer"), 1) << "over the connection that brought the metadata";
    getter->stop();
    simulation.finish(own.stop());
}

TEST_F(MagnetTest, findsItsPeersThroughTheDHTAlone) {
    LoopbackDHT dht(simulation.executor(), {});
    const auto seeder = startSeeder(dht.bootstrapNode());
    simulation.runUntil([&] {
        simulation.advance(100ms);
        return dht.queries().contains("announce_peer");
    });
    Options options;
    options.discovery.allowsLocalPeers = true;
    const auto getter = startMagnet(std::move(options), dht.bootstrapNode());
    waitUntilWhole(*getter, 100ms);
    EXPECT_TRUE(getter->hasLogged("[Session] DHT found peer #1: " + seeder->address().description()));
    getter->stop();
    seeder->stop();
    simulation.finish(dht.stop());
}

}  // namespace
}  // namespace skein
