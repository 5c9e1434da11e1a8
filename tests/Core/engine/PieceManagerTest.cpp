#include "public/common/Within.h"
#include "tests/Core/engine/PieceManagerFixture.h"

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <gmock/gmock.h>

namespace skein {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre, testing::IsEmpty;
using enum ReceiveBlockResult;
using State = PieceManager::State;
using StoreResult = PieceManager::StoreResult;
using namespace std::chrono_literals;

class PieceManagerTest : public PieceManagerFixture {};

TEST_F(PieceManagerTest, downloadsPiecesThatSpanFilesByteForByte) {
    setUp(TestTorrent(40000, {{"t/a", 39990}, {"t/empty", 0}, {"t/sub/b", 30000}, {"t/c", 20001}}));
    // The second piece takes two writes; either may fail.
    for (const int works : {0, 1}) {
        calls.writesLeft = works;
        EXPECT_EQ(receive(1), failed);
    }
    calls.writesLeft = 1000;
    simulation.advance(2s);
    while (const std::optional<int> piece = nextPiece()) EXPECT_EQ(receive(*piece), completed);
    EXPECT_TRUE(manager->isComplete());
    EXPECT_EQ(manager->progress(), 1.0);
    EXPECT_THAT((std::array{manager->downloadedBytes(), manager->completedBytes(), manager->unwrittenBytes()}),
                ElementsAre(89991, 89991, 0));
    EXPECT_EQ(manager->bitfield(), Bytes{0xe0});
    EXPECT_TRUE(torrent.isWholeIn(folder.path()));
}

TEST_F(PieceManagerTest, splitsAMissingPieceIntoBlocksOnce) {
    setUp(TestTorrent(40000, {{"t", 80000}}));
    EXPECT_THAT(manager->blocksForPiece(0),
                ElementsAre(BlockRequest{0, 0, 16384}, BlockRequest{0, 16384, 16384}, BlockRequest{0, 32768, 7232}));
    EXPECT_EQ(manager->pieceState(0), State::downloading);
    EXPECT_EQ(manager->bufferedBytes(), 40000);
    EXPECT_THAT(manager->blocksForPiece(0), IsEmpty());
    EXPECT_EQ(receive(1), completed);
    for (const int piece : {1, -1, 2}) EXPECT_THAT(manager->blocksForPiece(piece), IsEmpty());
    EXPECT_FALSE(nextPiece());
}

TEST_F(PieceManagerTest, ignoresBlocksThatAreNotOutstandingAndSurvivesThoseOfTheWrongLength) {
    setUp(TestTorrent(40000, {{"t", 80000}}));
    manager->blocksForPiece(0);
    EXPECT_EQ(manager->storeBlock(0, 16384, Bytes(20000)), StoreResult::accepted);
    EXPECT_EQ(manager->storeBlock(0, 32768, Bytes(16384)), StoreResult::accepted);
    for (const auto& [piece, begin] : {std::pair(0, 16384), {0, 1}, {0, -16384}, {0, 49152}, {1, 0}, {-1, 0}, {2, 0}})
        EXPECT_EQ(manager->storeBlock(piece, begin, Bytes(16384)), StoreResult::ignored) << piece << " " << begin;
    EXPECT_EQ(manager->downloadedBytes(), 36384);
    EXPECT_EQ(simulation.finish(manager->receiveBlock(0, 0, Bytes())), failed);
    EXPECT_EQ(manager->downloadedBytes(), 0);
}

TEST_F(PieceManagerTest, countsABadOrGivenUpPieceDownInFullButNeverBelowNothing) {
    setUp(TestTorrent(40000, {{"t", 120000}}));
    EXPECT_EQ(receive(2), completed);
    EXPECT_EQ(receive(0, 1), failed) << "its hash is wrong";
    EXPECT_EQ(manager->pieceState(0), State::missing);
    EXPECT_EQ(manager->downloadedBytes(), 40000);
    EXPECT_EQ(nextPiece(), 0);
    manager->blocksForPiece(0);
    manager->storeBlock(0, 0, Bytes(16384));
    manager->resetPiece(0);
    EXPECT_EQ(manager->downloadedBytes(), 16384);
    manager->resetPiece(0);
    manager->resetPiece(2);
    EXPECT_EQ(manager->downloadedBytes(), 16384);
    EXPECT_EQ(manager->pieceState(2), State::completed);
    manager->blocksForPiece(1);
    manager->resetPiece(1);
    EXPECT_EQ(manager->downloadedBytes(), 0);
    EXPECT_EQ(manager->missingSet().count(), 2);
    EXPECT_EQ(manager->bufferedBytes(), 0);
}

TEST_F(PieceManagerTest, keepsTheBlocksOfPiecesThatRestAsLongAsThereIsRoom) {
    constexpr std::int64_t half = PieceManager::mostRestingBytes / 2;
    setUp(TestTorrent(half, {{"t", 3 * half}}, 7));
    for (const int piece : {2, 1, 0}) {
        EXPECT_EQ(nextPiece(), 2 - piece == 0 ? 0 : piece + 1) << "what rests comes first";
        manager->blocksForPiece(piece);
        manager->storeBlock(piece, 16384, Bytes(16384, 7));
        manager->restPiece(piece);
        EXPECT_EQ(manager->pieceState(piece), State::missing);
        EXPECT_EQ(manager->storeBlock(piece, 0, Bytes(16384, 7)), StoreResult::ignored);
    }
    EXPECT_FALSE(manager->isResting(0)) << "one too many";
    EXPECT_EQ(manager->bufferedBytes(), 2 * half);
    EXPECT_EQ(manager->blocksForPiece(1).size(), static_cast<std::size_t>(half / 16384 - 1));
    manager->restPiece(1);
    EXPECT_EQ(receive(0), completed);
    EXPECT_EQ(receive(1), ReceiveBlockResult::completed);
    EXPECT_EQ(manager->bufferedBytes(), half);
    EXPECT_EQ(receive(2), completed);
}

TEST_F(PieceManagerTest, doesNotGiveUpAPieceThatIsBeingWritten) {
    setUp(TestTorrent(16384, {{"t", 16384}}));
    asio::io_context busyDisk;
    make(PieceManager::Mode::download, busyDisk.get_executor());
    bool isSetUp = false;
    asio::co_spawn(simulation.executor(), manager->setup(), [&](const std::exception_ptr&) { isSetUp = true; });
    simulation.runUntil([&] {
        busyDisk.restart();
        busyDisk.run();
        return isSetUp;
    });
    busyDisk.restart();
    manager->blocksForPiece(0);
    EXPECT_EQ(manager->storeBlock(0, 0, torrent.piece(0)), StoreResult::whole);
    manager->resetPiece(0);  // nobody has begun to write it
    EXPECT_EQ(manager->unwrittenBytes(), 0);
    manager->blocksForPiece(0);
    EXPECT_EQ(manager->storeBlock(0, 0, torrent.piece(0)), StoreResult::whole);
    asio::cancellation_signal cancel;
    std::optional<ReceiveBlockResult> result;
    const auto onEnd = [&](const std::exception_ptr&, ReceiveBlockResult value) { result = value; };
    asio::co_spawn(simulation.executor(), manager->completePiece(0),
                   asio::bind_cancellation_slot(cancel.slot(), onEnd));
    simulation.settle();
    cancel.emit(asio::cancellation_type::terminal);
    manager->resetPiece(0);
    EXPECT_EQ(manager->unwrittenBytes(), 16384);
    EXPECT_EQ(simulation.finish(manager->completePiece(0)), failed);  // it is under way already
    busyDisk.run();
    simulation.settle();
    EXPECT_EQ(result, completed);
    EXPECT_EQ(manager->unwrittenBytes(), 0);
    EXPECT_TRUE(torrent.isWholeIn(folder.path()));
    manager.reset();
}

TEST_F(PieceManagerTest, countsAnnouncementsOnceEach) {
    setUp(TestTorrent(16384, {{"t", 10 * 16384}}));
    manager->updateAvailability(Bytes{0xc0});
    manager->updateAvailability(Bytes{0x80, 0xff, 0xff});
    for (const int piece : {0, 10, -1}) manager->markPeerHasPiece(piece);
    for (const auto& [piece, times] : {std::pair(0, 3), {1, 1}, {2, 0}, {9, 1}, {10, 0}})
        EXPECT_EQ(manager->availabilityOf(piece), times);
    EXPECT_EQ(nextPiece(), 2);
}

TEST_F(PieceManagerTest, readsBlocksOfCompletedPiecesOnly) {
    setUp(TestTorrent(40000, {{"t/a", 50000}, {"t/b", 50000}}));
    EXPECT_EQ(receive(1), completed);
    const auto read = [&](int piece, int begin, int length) {
        return simulation.finish(manager->readBlock(piece, begin, length));
    };
    EXPECT_EQ(read(1, 9000, 16384), toBytes(asText(torrent.bytes(49000, 16384))));
    EXPECT_EQ(read(1, 40000, 0), Bytes());
    for (const auto& [begin, length] : {std::pair(-1, 10), {39999, 2}, {0, -1}, {2147483647, 2147483647}})
        EXPECT_FALSE(read(1, begin, length));
    for (const int piece : {0, 2, -1, 3}) EXPECT_FALSE(read(piece, 0, 1));
    fs::remove(folder.path() / "t/b");
    simulation.finish(manager->cleanup());
    EXPECT_FALSE(read(1, 0, 16384));
    EXPECT_TRUE(read(1, 0, 10000));
}

TEST_F(PieceManagerTest, readsNeighbouringBlocksInOneCall) {
    torrent = TestTorrent(32768, {{"t", 4 * 32768}});
    torrent.writeTo(folder.path());
    setUp(torrent, PieceManager::Mode::readOnly);
    EXPECT_FALSE(nextPiece());
    std::vector<Bytes> buffers(6, Bytes(16384));
    std::vector<BlockRead> reads;
    // Four that follow one another, out of order, one apart, and one that is no block.
    for (const auto& [piece, begin] : {std::pair(1, 16384), {0, 0}, {3, 0}, {0, 16384}, {1, 0}, {9, 0}})
        reads.push_back({{piece, begin, 16384}, buffers[reads.size()]});
    calls.reads = 0;
    simulation.finish(manager->readBlocks(reads));
    EXPECT_EQ(calls.reads, 2);
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_TRUE(reads[i].ok);
        EXPECT_EQ(buffers[i], torrent.block(reads[i].request));
    }
    EXPECT_FALSE(reads[5].ok);
}

TEST_F(PieceManagerTest, waitsLongerAfterEachFailedWriteAndReportsTheTroubleOnce) {
    setUp(TestTorrent(16384, {{"t", 8 * 16384}}));
    std::vector<std::optional<std::string>> told;
    manager->setStorageProblemCallback([&](const std::optional<std::string>& text) { told.push_back(text); });
    EXPECT_EQ(receive(0), completed);
    calls.writesLeft = 0;
    // Two pieces were under way when the disk became full; they count as one failure.
    manager->blocksForPiece(1);
    EXPECT_EQ(receive(2), failed);
    EXPECT_EQ(simulation.finish(manager->receiveBlock(1, 0, torrent.piece(1))), failed);
    EXPECT_EQ(manager->pieceState(1), State::missing);
    EXPECT_EQ(manager->downloadedBytes(), 16384);
    for (const auto wait : {1s, 2s, 4s, 8s, 16s, 30s, 30s}) {
        simulation.advance(wait - 1ms);
        EXPECT_FALSE(nextPiece());
        simulation.advance(1ms);
        EXPECT_EQ(nextPiece(), 1);
        manager->blocksForPiece(1);
        EXPECT_FALSE(nextPiece());  // one at a time
        manager->resetPiece(1);
        EXPECT_EQ(receive(1), failed);
    }
    EXPECT_THAT(told, ElementsAre("t: No space left on device"));
    EXPECT_EQ(log.count("Failed to write piece 2: t: No space left on device"), 1);
    calls.writesLeft = 1000;
    simulation.advance(30s);
    while (const std::optional<int> piece = nextPiece()) EXPECT_EQ(receive(*piece), completed);
    EXPECT_TRUE(manager->isComplete());
    EXPECT_THAT(told, ElementsAre("t: No space left on device", std::nullopt));
    EXPECT_TRUE(torrent.isWholeIn(folder.path()));
}

TEST_F(PieceManagerTest, fetchesAgainWhatAFailedSyncLost) {
    setUp(TestTorrent(16384, {{"a", 2 * 16384}, {"b", 2 * 16384}}));
    int losses = 0;
    manager->setPiecesLostCallback([&] { ++losses; });
    for (int piece = 0; piece < 4; ++piece) EXPECT_EQ(receive(piece), completed);
    calls.syncsThatLose = 1;
    const auto secure = [&] { return simulation.finish(manager->secure(PieceManager::Scrutiny::allFiles)); };
    EXPECT_EQ(failureIn<StorageException>(secure), "a: Input/output error");
    EXPECT_EQ(manager->storageProblem(), "a: Input/output error");
    EXPECT_EQ(losses, 1);
    EXPECT_EQ(manager->pieceState(0), State::missing);
    EXPECT_EQ(manager->completedPieces(), 3);
    EXPECT_EQ(secure().count(), 3);
    EXPECT_FALSE(manager->storageProblem());
    EXPECT_EQ(nextPiece(), 0);
    EXPECT_EQ(receive(0), completed);
    EXPECT_EQ(secure().count(), 4);
    EXPECT_TRUE(torrent.isWholeIn(folder.path()));
}

TEST_F(PieceManagerTest, vouchesForNoFileThatOthersChanged) {
    setUp(TestTorrent(16384, {{"a", 4 * 16384}, {"b", 2 * 16384}}));
    for (const int piece : {0, 4, 5}) EXPECT_EQ(receive(piece), completed);
    const auto writeElsewhere = [&](const char* file, std::int64_t at) {
        std::fstream(folder.path() / file, std::ios::in | std::ios::out | std::ios::binary).seekp(at) << "not ours";
    };
    // Before our last write to the file, and after it.
    writeElsewhere("a", 100);
    EXPECT_EQ(receive(1), completed);
    const Bytes record = simulation.finish(manager->resumeRecord(manager->completedSet()));
    make();
    calls.reads = 0;
    simulation.finish(manager->setup(record));
    EXPECT_EQ(calls.reads, 2) << "the pieces of b are believed, those of a are not";
    EXPECT_EQ(manager->completedPieces(), 3);
    writeElsewhere("b", 100);
    EXPECT_EQ(simulation.finish(manager->secure(PieceManager::Scrutiny::allFiles)).count(), 2);
    EXPECT_EQ(manager->pieceState(4), State::missing);
    std::filesystem::resize_file(folder.path() / "a", 16384);
    EXPECT_EQ(simulation.finish(manager->secure(PieceManager::Scrutiny::allFiles)).count(), 1);
    for (const int piece : {0, 1, 2, 3, 4}) EXPECT_EQ(receive(piece), completed);
    EXPECT_EQ(simulation.finish(manager->secure(PieceManager::Scrutiny::allFiles)).count(), 6);
    EXPECT_TRUE(torrent.isWholeIn(folder.path()));
}

TEST_F(PieceManagerTest, letsReadersWaitUntilPiecesAreWritten) {
    setUp(TestTorrent(16 << 20U, {{"t", 48 << 20U}}, 7));
    const auto fill = [&](int piece) {
        auto result = StoreResult::ignored;
        for (const BlockRequest& block : manager->blocksForPiece(piece))
            result = manager->storeBlock(piece, block.begin, torrent.block(block));
        EXPECT_EQ(result, StoreResult::whole);
    };
    fill(0);
    simulation.finish(manager->roomToReceive());
    fill(1);
    EXPECT_EQ(manager->unwrittenBytes(), PieceManager::mostUnwrittenLimit);
    auto patient = simulation.begin(manager->roomToReceive());
    auto impatient = simulation.begin(within(simulation, 1s, manager->roomToReceive()));
    simulation.settle();
    simulation.advance(1s);
    EXPECT_EQ(simulation.failureOf(std::move(impatient)), "Timed out");
    EXPECT_FALSE(simulation.hasEnded(patient));
    EXPECT_EQ(simulation.finish(manager->completePiece(0)), completed);
    simulation.settle();
    EXPECT_TRUE(simulation.hasEnded(patient));
    EXPECT_EQ(simulation.finish(manager->completePiece(1)), completed);
}

TEST_F(PieceManagerTest, refusesAHostileTorrentAtSetupAndDoesNothingWithIt) {
    torrent = TestTorrent(16384, {{"t", 16384}});
    torrent.metaInfo->files.edit()[0].path = "../t";
    EXPECT_THROW(setUp(torrent), StorageException);
    torrent.metaInfo->pieceLength = 0;
    EXPECT_THROW(setUp(torrent), StorageException);
    EXPECT_THAT(manager->blocksForPiece(0), IsEmpty());
    EXPECT_FALSE(nextPiece());
    EXPECT_FALSE(simulation.finish(manager->readBlock(0, 0, 1)));
    simulation.finish(manager->verifyExistingPieces());
    EXPECT_EQ(manager->completedPieces(), 0);
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST_F(PieceManagerTest, isCompleteWithoutPieces) {
    setUp(TestTorrent(16384, {{"t/empty", 0}}));
    EXPECT_TRUE(manager->isComplete() && manager->progress() == 1.0 && manager->bitfield().empty());
    EXPECT_TRUE(fs::exists(folder.path() / "t/empty"));
}

}  // namespace
}  // namespace skein
