#include "Core/engine/RequestScheduler.h"
#include "tests/support/Simulation.h"

#include <boost/asio/strand.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::AllOf, testing::Ge, testing::IsEmpty, testing::Le, testing::SizeIs;

constexpr int blocksPerPiece = 4;
constexpr int pieceCount = 1600;
constexpr int blockSize = PieceManager::blockSize;

std::shared_ptr<const TorrentMetaInfo> someTorrent() {
    auto metaInfo = std::make_shared<TorrentMetaInfo>();
    metaInfo->pieceLength = blocksPerPiece * blockSize;
    metaInfo->pieces = Bytes(pieceCount * sha1Length);
    metaInfo->totalSize = metaInfo->pieceLength * pieceCount;
    metaInfo->files = {{"some", metaInfo->totalSize, 0}};
    return metaInfo;
}

class RequestSchedulerTest : public testing::Test {
protected:
    void add(PeerKey key, const Bytes& bitfield = Bytes(pieceCount / 8, 0xFF)) {
        scheduler.addPeer(key);
        scheduler.setBitfield(key, bitfield);
        scheduler.setChoking(key, false);
    }
    RequestScheduler::BlockOutcome receive(PeerKey key, const BlockRequest& block) {
        return scheduler.receiveBlock(key, static_cast<std::uint32_t>(block.pieceIndex),
                                      static_cast<std::uint32_t>(block.begin),
                                      Bytes(static_cast<std::size_t>(block.length)));
    }
    int heldBy(PeerKey key) const {
        int held = 0;
        for (int piece = 0; piece < pieceCount; ++piece) held += scheduler.supplierOf(piece) == key ? 1 : 0;
        return held;
    }
    /// `key` answers everything it was asked, and its pieces end; new requests are made and noted.
    void answerAll(PeerKey key, std::vector<BlockRequest>& asked) {
        for (const BlockRequest& block : std::exchange(asked, {}))
            if (receive(key, block) == RequestScheduler::BlockOutcome::whole) scheduler.pieceEnded(block.pieceIndex);
        asked = scheduler.nextRequests(key);
    }

    Simulation simulation;
    PieceManager pieces{
        someTorrent(), "unused",
        PieceManager::Environment{asio::make_strand(simulation.executor()), simulation.executor(), simulation, log},
        PieceManager::Mode::download};
    FileLogger log;
    RequestScheduler scheduler{pieces, simulation};
};

TEST_F(RequestSchedulerTest, asksASinglePeerInOrderAndForNoMoreThanItCanQueue) {
    add(1);
    const std::vector<BlockRequest> asked = scheduler.nextRequests(1);
    ASSERT_THAT(asked, SizeIs(AllOf(Ge(32), Le(RequestScheduler::maxOutstandingRequests))));
    EXPECT_EQ(asked[0], (BlockRequest{0, 0, blockSize}));
    EXPECT_EQ(asked[5], (BlockRequest{1, blockSize, blockSize}));
    EXPECT_THAT(scheduler.nextRequests(1), IsEmpty());
}

TEST_F(RequestSchedulerTest, keepsThirtyTwoPiecesInFlightAndNotOneMore) {
    for (PeerKey key = 1; key <= 40; ++key) add(key);
    for (int round = 0; round < 3; ++round)
        for (PeerKey key = 1; key <= 40; ++key) scheduler.nextRequests(key);
    EXPECT_EQ(scheduler.piecesInFlight(), 32);
    EXPECT_THAT(scheduler.idlePeers(), SizeIs(8));
    scheduler.removePeer(1);
    EXPECT_EQ(scheduler.piecesInFlight(), 31);
    EXPECT_THAT(scheduler.nextRequests(scheduler.idlePeers().front()), SizeIs(Ge(1)));
}

TEST_F(RequestSchedulerTest, takesOnlyWhatItAskedOfThatPeerAndGivesPiecesBackOnChokeAndDisconnect) {
    add(1);
    add(2);
    const BlockRequest asked = scheduler.nextRequests(1).front();
    using Outcome = RequestScheduler::BlockOutcome;
    EXPECT_EQ(receive(2, asked), Outcome::ignored) << "another peer's piece";
    const int piece = asked.pieceIndex;
    for (const BlockRequest& unasked : {BlockRequest{150, 0, blockSize},
                                        {-1, 0, blockSize},
                                        {piece, 1, blockSize},
                                        {piece, 0, blockSize - 1},
                                        {piece, blocksPerPiece * blockSize, blockSize}})
        EXPECT_EQ(receive(1, unasked), Outcome::ignored) << unasked.pieceIndex << " " << unasked.begin;
    EXPECT_EQ(pieces.downloadedBytes(), 0);
    EXPECT_EQ(receive(1, asked), Outcome::accepted);
    EXPECT_EQ(receive(1, asked), Outcome::ignored) << "twice";
    EXPECT_EQ(pieces.downloadedBytes(), blockSize);

    scheduler.setChoking(1, true);
    EXPECT_EQ(scheduler.piecesInFlight(), 0);
    EXPECT_EQ(pieces.pieceState(asked.pieceIndex), PieceManager::State::missing);
    EXPECT_EQ(scheduler.nextRequests(2).front(), (BlockRequest{piece, blockSize, blockSize})) << "the rest of it";
    scheduler.removePeer(2);
    EXPECT_EQ(scheduler.piecesInFlight(), 0);
    EXPECT_EQ(receive(1, {piece, blockSize, blockSize}), Outcome::ignored) << "late, after the choke";
}

TEST_F(RequestSchedulerTest, losesNoBlockToAPeerThatChokesAgainAndAgain) {
    Bytes onePiece(pieceCount / 8);
    onePiece[0] = 0x80;
    add(1, onePiece);
    std::vector<BlockRequest> received;
    for (int turn = 1; turn < blocksPerPiece; ++turn) {
        const BlockRequest next = scheduler.nextRequests(1).front();
        EXPECT_EQ(receive(1, next), RequestScheduler::BlockOutcome::accepted) << turn;
        scheduler.setChoking(1, true);
        scheduler.setChoking(1, false);
    }
    add(2, onePiece);
    scheduler.setChoking(1, true);
    const std::vector<BlockRequest> rest = scheduler.nextRequests(2);
    ASSERT_THAT(rest, SizeIs(1));
    EXPECT_EQ(receive(2, rest[0]), RequestScheduler::BlockOutcome::whole);
    const auto contributions = scheduler.contributionsTo(0);
    ASSERT_THAT(contributions, SizeIs(2));
    EXPECT_EQ(contributions[0].bytes, 3 * blockSize);
    EXPECT_EQ(contributions[1].peer, 2U);

    // It was wrong, and nobody knows whose fault that is: one peer sends all of it now.
    simulation.finish(pieces.completePiece(0));
    scheduler.pieceEnded(0);
    scheduler.fetchFromOnePeer(0);
    scheduler.setChoking(1, false);
    EXPECT_EQ(receive(1, scheduler.nextRequests(1).front()), RequestScheduler::BlockOutcome::accepted);
    scheduler.setChoking(1, true);
    EXPECT_THAT(scheduler.nextRequests(2), SizeIs(blocksPerPiece));
}

TEST_F(RequestSchedulerTest, sharesTheSlotsByMeasuredRate) {
    add(1);
    add(2);
    std::vector<BlockRequest> fast = scheduler.nextRequests(1);
    const std::vector<BlockRequest> slow = scheduler.nextRequests(2);
    EXPECT_LE(heldBy(1), 16);
    for (int i = 0; i < 10; ++i) {
        simulation.advance(200ms);
        answerAll(1, fast);
        if (i % 5 == 0) receive(2, slow[static_cast<std::size_t>(i / 5)]);
        if (i % 5 == 4) scheduler.giveBackSlowPieces();
    }
    EXPECT_GT(heldBy(1), 3 * heldBy(2)) << "what the slow one took before it was measured is given back";
}

TEST_F(RequestSchedulerTest, takesAStalledPieceBackAndPrefersFasterPeers) {
    add(1);
    const BlockRequest asked = scheduler.nextRequests(1).front();
    simulation.advance(29s);
    EXPECT_THAT(scheduler.giveBackSlowPieces(), IsEmpty());
    simulation.advance(1s);
    const auto given = scheduler.giveBackSlowPieces();
    ASSERT_FALSE(given.empty());
    EXPECT_EQ(given.front().peer, 1U);
    EXPECT_EQ(given.front().cancelled.front(), asked);
    add(2);
    EXPECT_THAT(scheduler.nextRequests(1), IsEmpty()) << "a faster peer is there";
    EXPECT_THAT(scheduler.nextRequests(2), SizeIs(Ge(1)));
    scheduler.removePeer(2);
    EXPECT_THAT(scheduler.nextRequests(1), SizeIs(Ge(1))) << "better slow than not at all";
}

TEST_F(RequestSchedulerTest, givesAnIdlePeerItsChanceWhereTheOthersHaveNeverSentAnything) {
    for (PeerKey silent = 1; silent <= 32; ++silent) add(silent);
    for (PeerKey silent = 1; silent <= 32; ++silent) scheduler.nextRequests(silent);
    EXPECT_EQ(scheduler.piecesInFlight(), 32);
    simulation.advance(10s);
    EXPECT_THAT(scheduler.giveBackSlowPieces(), IsEmpty()) << "nobody else is there";
    add(99);
    EXPECT_THAT(scheduler.nextRequests(99), IsEmpty());
    EXPECT_THAT(scheduler.giveBackSlowPieces(), SizeIs(32));
    EXPECT_THAT(scheduler.nextRequests(1), IsEmpty()) << "while the new one has not failed";
    EXPECT_FALSE(scheduler.nextRequests(99).empty());
}

TEST_F(RequestSchedulerTest, movesTheLastPiecesToAnIdlePeerThatIsFarFaster) {
    add(1, Bytes{0x80});
    std::vector<BlockRequest> slow = scheduler.nextRequests(1);
    ASSERT_THAT(slow, SizeIs(blocksPerPiece));
    add(2);
    std::vector<BlockRequest> fast = scheduler.nextRequests(2);
    simulation.advance(10s);
    receive(1, slow[0]);
    simulation.advance(20s);
    while (!fast.empty()) {
        simulation.advance(1ms);
        answerAll(2, fast);
        if (scheduler.piecesInFlight() == 1) break;
    }
    simulation.advance(1s);
    const auto given = scheduler.giveBackSlowPieces();
    ASSERT_THAT(given, SizeIs(1));
    EXPECT_EQ(given[0].peer, 1U);
}

}  // namespace
}  // namespace skein
