#include "public/common/ThreadPools.h"
#include "tests/Core/engine/PieceManagerFixture.h"

#include <boost/asio/use_future.hpp>
#include <gmock/gmock.h>

#include <thread>

namespace skein {
namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using enum PieceCondition;
using Mode = PieceManager::Mode;
using namespace std::chrono_literals;

/// A peer that has everything; what was fetched is read again, as an upload would.
asio::awaitable<void> fetchAll(PieceManager& manager, const TestTorrent& torrent) {
    const PieceSet all = PieceSet::full(torrent.metaInfo->pieceCount());
    while (const std::optional<int> piece = manager.nextPiece(all)) {
        for (const BlockRequest& block : manager.blocksForPiece(*piece)) {
            const ByteView data = torrent.piece(*piece);
            const auto begin = static_cast<std::size_t>(block.begin);
            const auto length = static_cast<std::size_t>(block.length);
            co_await manager.receiveBlock(*piece, block.begin, data.subspan(begin, length));
        }
        const std::optional<Bytes> got = co_await manager.readBlock(*piece, 0, 16384);
        EXPECT_TRUE(got && std::ranges::equal(*got, torrent.piece(*piece).first(16384)));
    }
}

class PieceVerificationTest : public PieceManagerFixture {
protected:
    void damage(const std::string& file, std::streamoff at) const {
        std::fstream stream(folder.path / file, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekg(at);
        const int byte = stream.get();
        stream.seekp(at).put(static_cast<char>(byte ^ 1));
    }
};

TEST_F(PieceVerificationTest, tellsGoodFromBadFromMissing) {
    const TestTorrent torrent(1000, {{"t/a", 2500}, {"t/b", 2500}, {"t/c", 10}});
    torrent.writeTo(folder.path);
    damage("t/a", 1500);
    fs::resize_file(folder.path / "t/b", 1000);
    setUp(torrent, Mode::readOnly);
    EXPECT_THAT(manager->verifiedConditions(), ElementsAre(good, bad, good, missing, missing, good));
    EXPECT_THAT(log.lines,
                ElementsAre("verifyExistingPieces start, pieces=6", "verifyExistingPieces done, completed=3"));
    EXPECT_EQ(manager->completedBytes(), 2010);
    EXPECT_EQ(manager->downloadedBytes(), 2010);
    EXPECT_EQ(fs::file_size(folder.path / "t/b"), 1000U);
}

TEST_F(PieceVerificationTest, resumesWithWhatIsThereAndNoticesLaterAdditions) {
    const TestTorrent torrent(1000, {{"t/a", 2500}, {"t/b", 2500}});
    torrent.writeTo(folder.path);
    fs::remove(folder.path / "t/a");
    setUp(torrent);
    EXPECT_THAT(manager->completionBitmap(), ElementsAre(false, false, false, true, true));
    EXPECT_EQ(receive(torrent, 1), ReceiveBlockResult::completed);
    torrent.writeTo(folder.path);
    simulation.finish(manager->verifyExistingPieces());
    EXPECT_THAT(manager->verifiedConditions(), Each(good));
    EXPECT_TRUE(manager->isComplete());
    EXPECT_EQ(manager->completedBytes(), 5000);
}

TEST_F(PieceVerificationTest, doesNotReadHoles) {
    constexpr std::int64_t gibibyte = 1 << 30U;
    // Of 100 GiB, all is zeros in the first 50 pieces' hashes.
    TestTorrent torrent(1 << 20U, {{"t", 0}});
    torrent.metaInfo->files[0].size = torrent.metaInfo->totalSize = 100 * gibibyte - 5;
    torrent.metaInfo->pieces.resize(100 * 1024 * sha1Length);
    const SHA1Digest zeros = sha1(Bytes(1 << 20U));
    for (std::ptrdiff_t piece = 0; piece < 50; ++piece)
        std::ranges::copy(zeros, torrent.metaInfo->pieces.begin() + piece * std::ptrdiff_t{sha1Length});
    const SHA1Digest last = sha1(Bytes((1 << 20U) - 5));
    std::ranges::copy(last, torrent.metaInfo->pieces.end() - std::ptrdiff_t{sha1Length});
    for (const bool knowsHoles : {true, false}) {
        calls.knowsHoles = knowsHoles;
        fs::remove_all(folder.path / "t");
        setUp(torrent);
        EXPECT_EQ(calls.reads, 0);
        EXPECT_EQ(manager->completedPieces(), 51);
        EXPECT_EQ(manager->verifiedConditions()[49], good);
        EXPECT_EQ(manager->verifiedConditions()[50], missing);
        EXPECT_EQ(manager->pieceState(102399), PieceManager::State::completed);
    }
}

TEST_F(PieceVerificationTest, countsZerosThatWereWrittenLikeAnyData) {
    const TestTorrent torrent(65536, {{"t", 3 * 65536}}, 0);
    torrent.writeTo(folder.path);
    fs::resize_file(folder.path / "t", 65536);
    fs::resize_file(folder.path / "t", 3 * 65536);
    setUp(torrent);
    EXPECT_TRUE(manager->isComplete());
    EXPECT_EQ(calls.reads, 1);
}

TEST_F(PieceVerificationTest, reportsProgressAndStopsSoonWhenCancelled) {
    const TestTorrent torrent(1 << 20U, {{"t", 100 << 20U}}, 3);
    torrent.writeTo(folder.path);
    make(torrent, Mode::readOnly);
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
    manager->setVerifyProgressCallback([&](int checked, int) { progress.push_back(checked); });
    progress.clear();
    simulation.finish(manager->verifyExistingPieces());
    EXPECT_TRUE(manager->isComplete());
    EXPECT_TRUE(std::ranges::is_sorted(progress));
    EXPECT_GE(progress.size(), 5U);
    EXPECT_EQ(progress.back(), 100);
}

TEST_F(PieceVerificationTest, usesAllThreadsOfTheDiskPool) {
    const TestTorrent torrent(300'000, {{"t/a", 20'000'000}, {"t/b", 30'000'001}, {"t/c", 5}});
    torrent.writeTo(folder.path);
    damage("t/b", 12'345'678);
    ThreadPools pools;
    RealClock clock;
    TaskGroup tasks(pools.io());
    PieceManager::Environment environment{tasks.strand(), pools.disk(), clock, log, openFiles, calls};
    PieceManager parallel(torrent.metaInfo, folder.path, environment, Mode::download);
    asio::co_spawn(pools.io(), tasks.call(parallel.setup()), asio::use_future).get();
    EXPECT_EQ(parallel.completedPieces(), torrent.metaInfo->pieceCount() - 1);
    const std::optional<int> wrong = parallel.missingSet().first();
    EXPECT_EQ(wrong, (20'000'000 + 12'345'678) / 300'000);

    // Fetched again while others read, and several at once.
    asio::co_spawn(pools.io(), tasks.call(fetchAll(parallel, torrent)), asio::use_future).get();
    EXPECT_TRUE(parallel.isComplete());
    asio::co_spawn(pools.io(), tasks.call(parallel.verifyExistingPieces()), asio::use_future).get();
    EXPECT_THAT(parallel.verifiedConditions(), Each(good));
    asio::co_spawn(pools.io(), tasks.call(parallel.cleanup()), asio::use_future).get();
    asio::co_spawn(pools.io(), tasks.stop(), asio::use_future).get();
    EXPECT_TRUE(torrent.isWholeIn(folder.path));
}

TEST_F(PieceVerificationTest, writesSeveralPiecesAtOnceAndStopsCleanlyWhileItDoes) {
    const TestTorrent torrent(100'000, {{"t/a", 1'000'000}, {"t/b", 2'000'000}, {"t/c", 1'500'000}});
    ThreadPools pools;
    RealClock clock;
    for (int round = 0; round < 5; ++round) {
        TaskGroup tasks(pools.io());
        PieceManager::Environment environment{tasks.strand(), pools.disk(), clock, log, openFiles, calls};
        PieceManager parallel(torrent.metaInfo, folder.path, environment, Mode::download);
        std::vector<std::future<void>> ends;
        asio::co_spawn(pools.io(), tasks.call(parallel.setup()), asio::use_future).get();
        for (int peer = 0; peer < 4; ++peer)
            ends.push_back(asio::co_spawn(pools.io(), tasks.call(fetchAll(parallel, torrent)), asio::use_future));
        if (round == 4) {
            for (std::future<void>& end : ends) end.get();
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(300 * round));
        }
        asio::co_spawn(pools.io(), tasks.stop(), asio::use_future).get();
        EXPECT_TRUE(round < 4 || parallel.isComplete());
    }
    EXPECT_TRUE(torrent.isWholeIn(folder.path));
}

}  // namespace
}  // namespace skein
