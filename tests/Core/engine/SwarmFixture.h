#pragma once

#include "Core/engine/TorrentFile.h"
#include "Core/engine/TorrentSession.h"
#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/SeedTo.h"
#include "tests/support/TestSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <utility>

namespace skein {

/// Sessions about one torrent of 18 pieces: seeders whose folder has its files, and getters whose folder has not.
class SwarmFixture : public testing::Test {
protected:
    using Kind = TorrentSession::State::Kind;
    using Options = TorrentSession::Options;

    SwarmFixture() {
        torrent.metaInfo->name = "t";
        torrent.writeTo(seederFolder.path());
        useTorrent(TorrentWriter::write(*torrent.metaInfo));
    }

    void useTorrent(Bytes data) {
        torrentData = std::move(data);
        infoData = TorrentFile::infoDataOf(torrentData);
        infoHash = sha1(infoData);
    }
    /// In the folder of its kind, unless its options name another.
    std::unique_ptr<TestSession> make(char id, Options options, const std::optional<PeerAddress>& bootstrapNode = {}) {
        if (options.savePath.empty()) options.savePath = (options.seedsOnly ? seederFolder : getterFolder).path();
        return std::make_unique<TestSession>(simulation, infoHash, id, std::move(options), simulation.executor(),
                                             bootstrapNode);
    }
    std::unique_ptr<TestSession> start(char id, Options options, const std::optional<PeerAddress>& bootstrapNode = {}) {
        auto session = make(id, std::move(options), bootstrapNode);
        session->start(torrentData);
        return session;
    }
    std::unique_ptr<TestSession> startSeeder(const std::optional<PeerAddress>& bootstrapNode = {}) {
        return start('s', {.seedsOnly = true}, bootstrapNode);
    }
    std::unique_ptr<TestSession> startGetter(const PeerAddress& from, Options options = {}) {
        options.discovery.namedPeers = {from};
        return start('g', std::move(options));
    }
    /// Time passes by `step` while it has not come to that.
    void waitFor(TestSession& session, Kind kind, Clock::Duration step = Clock::Duration::zero()) {
        simulation.runUntil([&] {
            if (step > Clock::Duration::zero()) simulation.advance(step);
            return session.state() == kind;
        });
    }
    void waitUntilWhole(TestSession& getter, Clock::Duration step = Clock::Duration::zero()) {
        waitFor(getter, Kind::seeding, step);
        EXPECT_TRUE(hasAllFiles());
    }
    /// From a seeder that it is told of.
    void complete(TestSession& getter, Clock::Duration step = Clock::Duration::zero()) {
        const auto seeder = startSeeder();
        simulation.finish(getter.session().connectToPeer(seeder->address()));
        waitUntilWhole(getter, step);
    }
    bool hasAllFiles() const { return torrent.isWholeIn(getterFolder.path()); }

    auto blocks(std::uint8_t damage = 0) const {
        return [this, damage](const BlockRequest& asked) {
            Bytes block = torrent.block(asked);
            block[0] ^= damage;
            return block;
        };
    }
    /// Serves the torrent, the first byte of each block changed by `damage`, to whom `peer` is connected.
    template <class Peer>
    asio::awaitable<void> seed(Peer& peer, int maxBlocks = 1000, std::uint8_t damage = 0) {
        return seedTo(peer, 3, blocks(damage), maxBlocks);
    }

    Simulation simulation;
    TemporaryFolder seederFolder;
    TemporaryFolder getterFolder;
    TestTorrent torrent{50'000, {{"t/a", 399'990}, {"t/empty", 0}, {"t/sub/b", 500'000}, {"t/c", 1}}};
    Bytes torrentData;
    Bytes infoData;
    SHA1Digest infoHash{};
};

}  // namespace skein
