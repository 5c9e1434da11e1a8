#include "Core/engine/PieceManager.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/support/Simulation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using enum ReceiveBlockResult;
using State = PieceManager::State;
using namespace std::chrono_literals;

/// Keeps the log's lines.
class LogLines final : public FileLogger {
public:
    LogLines() : FileLogger(LogLevel::info) {}
    std::vector<std::string> lines;

private:
    void write(LogLevel, std::string_view line) override { lines.emplace_back(line); }
};

/// The real calls, until one is told to fail.
class FailingCalls final : public FileCalls {
public:
    ssize_t write(int file, const iovec* from, int count, std::int64_t offset) override {
        if (writesLeft-- > 0) return FileCalls::write(file, from, count, offset);
        errno = code;
        return -1;
    }
    int writesLeft = 1'000'000;
    int code = ENOSPC;
};

class PieceManagerTest : public testing::Test {
protected:
    ~PieceManagerTest() override {
        if (manager) simulation.finish(manager->cleanup());
    }
    void make(const TestTorrent& torrent, PieceManager::Mode mode = PieceManager::Mode::download) {
        manager = std::make_unique<PieceManager>(
            torrent.metaInfo, folder.path,
            PieceManager::Environment{asio::make_strand(simulation.executor()), simulation.executor(), simulation, log,
                                      openFiles, calls},
            mode);
    }
    void setUp(const TestTorrent& torrent, PieceManager::Mode mode = PieceManager::Mode::download) {
        make(torrent, mode);
        simulation.finish(manager->setup());
    }
    /// Receives all blocks of `piece`; the result of the last one.
    ReceiveBlockResult receive(const TestTorrent& torrent, int piece, std::uint8_t damage = 0) {
        auto result = ignored;
        for (const BlockRequest& block : manager->blocksForPiece(piece)) {
            Bytes data = toBytes(asText(torrent.piece(piece).subspan(static_cast<std::size_t>(block.begin),
                                                                     static_cast<std::size_t>(block.length))));
            data[0] ^= damage;
            result = simulation.finish(manager->receiveBlock(piece, block.begin, data));
        }
        return result;
    }
    PieceSet all() const { return PieceSet::full(manager->metaInfo().pieceCount()); }

    Simulation simulation;
    TemporaryFolder folder;
    LogLines log;
    FailingCalls calls;
    std::shared_ptr<OpenFiles> openFiles = std::make_shared<OpenFiles>();
    std::unique_ptr<PieceManager> manager;
};

TEST_F(PieceManagerTest, downloadsPiecesThatSpanFilesByteForByte) {
    const TestTorrent torrent(40000, {{"t/a", 39990}, {"t/empty", 0}, {"t/sub/b", 50000}, {"t/c", 1}});
    setUp(torrent);
    while (const std::optional<int> piece = manager->nextPiece(all())) EXPECT_EQ(receive(torrent, *piece), completed);
    EXPECT_TRUE(manager->isComplete());
    EXPECT_EQ(manager->progress(), 1.0);
    EXPECT_EQ(manager->downloadedBytes(), 89991);
    EXPECT_TRUE(torrent.isWholeIn(folder.path));
}

}  // namespace
}  // namespace skein
