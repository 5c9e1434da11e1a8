#include "public/common/ThreadPools.h"
#include "tests/Core/engine/PieceManagerFixture.h"

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>
#include <gmock/gmock.h>

#include <thread>

namespace skein {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using enum PieceCondition;
using Mode = PieceManager::Mode;

class PieceVerificationTest : public PieceManagerFixture {
protected:
    void damage(const std::string& file, std::streamoff at) const {
        std::fstream stream(folder.path() / file, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekg(at);
        const int byte = stream.get();
        stream.seekp(at).put(static_cast<char>(byte ^ 1));
    }
};

TEST_F(PieceVerificationTest, tellsGoodFromBadFromMissingAndNoticesLaterAdditions) {
    torrent = TestTorrent(1000, {{"t/a", 2500}, {"t/b", 2500}, {"t/c", 10}});
    torrent.writeTo(folder.path());
    damage("t/a", 1500);
    fs::resize_file(folder.path() / "t/b", 1000);
    setUp(torrent, Mode::readOnly);
    EXPECT_THAT(manager->verifiedConditions(), ElementsAre(good, bad, good, missing, missing, good));
    EXPECT_EQ(manager->completedBytes(), 2010);
    EXPECT_EQ(manager->downloadedBytes(), 2010);
    EXPECT_EQ(fs::file_size(folder.path() / "t/b"), 1000U);
    torrent.writeTo(folder.path());
    simulation.finish(manager->verifyExistingPieces());
    EXPECT_TRUE(manager->isComplete());
    EXPECT_EQ(manager->completedBytes(), 5010);
}

TEST_F(PieceVerificationTest, doesNotReadHoles) {
    // 100 GiB, of which the first 50 pieces and the last are zeros.
    torrent = TestTorrent(1 << 20U, {{"t", 0}});
    Bytes& hashes = torrent.metaInfo->pieces;
    torrent.metaInfo->files.edit()[0].size = torrent.metaInfo->totalSize = (std::int64_t{100} << 30U) - 5;
    hashes.resize(100 * 1024 * sha1Length);
    const SHA1Digest zeros = sha1(Bytes(1 << 20U));
    for (std::ptrdiff_t piece = 0; piece < 50; ++piece) std::ranges::copy(zeros, hashes.begin() + piece * 20);
    const SHA1Digest last = sha1(Bytes((1 << 20U) - 5));
    std::ranges::copy(last, hashes.end() - 20);
    std::ofstream(folder.path() / "t").flush();
    fs::resize_file(folder.path() / "t", static_cast<std::uintmax_t>(torrent.metaInfo->totalSize));
    setUp(torrent);
    EXPECT_EQ(calls.reads, 0);
    EXPECT_EQ(manager->completedPieces(), 51);
    EXPECT_EQ(manager->verifiedConditions()[49], good);
    EXPECT_EQ(manager->verifiedConditions()[50], missing);
    EXPECT_EQ(manager->pieceState(102399), PieceManager::State::completed);
}

TEST_F(PieceVerificationTest, reportsProgressAndStopsSoonWhenCancelled) {
    torrent = TestTorrent(1 << 20U, {{"t", 100 << 20U}}, 3);
    torrent.writeTo(folder.path());
    make(Mode::readOnly);
    std::vector<int> progress;
    asio::cancellation_signal cancel;
    manager->setVerifyProgressCallback([&](int checked, int total) {
        EXPECT_EQ(total, 100);
        progress.push_back(checked);
        if (checked >= 20) cancel.emit(asio::cancellation_type::terminal);
    });
    std::exception_ptr failure;
    asio::co_spawn(simulation.executor(), manager->setup(),
                   asio::bind_cancellation_slot(cancel.slot(), [&](const std::exception_ptr& e) { failure = e; }));
    simulation.runUntil([&] { return failure != nullptr; });
    EXPECT_GE(manager->completedPieces(), 20);
    EXPECT_LE(manager->completedPieces(), 50);
    progress.clear();
    simulation.finish(manager->verifyExistingPieces());
    EXPECT_TRUE(manager->isComplete());
    EXPECT_TRUE(std::ranges::is_sorted(progress));
    EXPECT_GE(progress.size(), 5U);
    EXPECT_EQ(progress.back(), 100);
}

TEST_F(PieceVerificationTest, believesItsRecordOfFilesThatDidNotChangeAndHashesTheOthers) {
    torrent = TestTorrent(20'000, {{"t/a", 50'000}, {"t/b", 50'000}, {"t/c", 20'000}});
    torrent.writeTo(folder.path());
    setUp(torrent);
    const Bytes record = simulation.finish(manager->resumeRecord(manager->completedSet()));
    const fs::path hidden = folder.path() / "t/b";
    const auto modified = fs::last_write_time(hidden);
    damage("t/b", 12'000);  // in piece 3, which lies in "b" alone
    damage("t/b", 8'000);   // in piece 2, which lies in "a" too
    fs::last_write_time(hidden, modified);
    damage("t/a", 0);
    const auto missingAfter = [&](const Bytes& with) {
        make();
        simulation.finish(manager->setup(with));
        std::vector<int> missing;
        manager->missingSet().forEach([&](int piece) { missing.push_back(piece); });
        return missing;
    };
    EXPECT_EQ(missingAfter(record), (std::vector<int>{0, 2})) << "\"b\" looks as it did, and is not read";
    EXPECT_EQ(missingAfter({}), (std::vector<int>{0, 2, 3}));
    EXPECT_EQ(missingAfter(Bytes(record.begin(), record.end() - 30)), (std::vector<int>{0, 2, 3}));
    fs::copy_file(hidden, folder.path() / "copy");
    fs::rename(folder.path() / "copy", hidden);
    fs::last_write_time(hidden, modified);
    EXPECT_EQ(missingAfter(record), (std::vector<int>{0, 2, 3})) << "another file of the same size and date";
}

/// A peer that has everything; what was fetched is read again, as an upload would.
asio::awaitable<void> fetchAll(PieceManager& manager, const TestTorrent& torrent) {
    const PieceSet all = PieceSet::full(torrent.metaInfo->pieceCount());
    while (const std::optional<int> piece = manager.nextPiece(all)) {
        for (const BlockRequest& block : manager.blocksForPiece(*piece)) {
            const Bytes data = torrent.block(block);
            co_await manager.receiveBlock(*piece, block.begin, data);
        }
        const std::optional<Bytes> got = co_await manager.readBlock(*piece, 0, 16384);
        EXPECT_EQ(got, torrent.block({*piece, 0, 16384}));
    }
}

TEST_F(PieceVerificationTest, worksOnSeveralThreadsAndStopsCleanly) {
    torrent = TestTorrent(100'000, {{"t/a", 1'000'000}, {"t/b", 20'000'001}, {"t/c", 1'499'999}});
    ThreadPools pools;
    RealClock clock;
    // Stopped after a while in rounds 0 to 3, then downloaded to the end, then checked.
    for (int round = 0; round < 6; ++round) {
        TaskGroup tasks(pools.io());
        const auto start = [&](asio::awaitable<void> task) {
            return asio::co_spawn(pools.io(), tasks.call(std::move(task)), asio::use_future);
        };
        PieceManager::Environment environment{tasks.strand(), pools.disk(), clock, log, openFiles, calls};
        PieceManager parallel(torrent.metaInfo, folder.path(), environment, Mode::download);
        if (round == 5) damage("t/b", 12'345'678);
        start(parallel.setup()).get();
        EXPECT_TRUE(round < 5 || parallel.completedPieces() == 224);
        std::vector<std::future<void>> ends;
        for (int peer = 0; peer < 4 && round < 5; ++peer) ends.push_back(start(fetchAll(parallel, torrent)));
        if (round < 4) std::this_thread::sleep_for(std::chrono::microseconds(300 * round));
        for (std::size_t peer = 0; peer < ends.size() && round == 4; ++peer) ends[peer].get();
        asio::co_spawn(pools.io(), tasks.stop(), asio::use_future).get();
        EXPECT_TRUE(round != 4 || (parallel.isComplete() && torrent.isWholeIn(folder.path())));
        EXPECT_TRUE(round < 5 || parallel.missingSet().first() == (1'000'000 + 12'345'678) / 100'000);
    }
}

}  // namespace
}  // namespace skein
