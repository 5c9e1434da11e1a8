#pragma once

#include "Core/engine/PieceManager.h"
#include "tests/Core/engine/FaultyCalls.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/support/Simulation.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace skein {

/// Keeps the lines of the log.
class LogLines final : public FileLogger {
public:
    LogLines() : FileLogger(LogLevel::info) {}
    std::vector<std::string> lines;

private:
    void write(LogLevel, std::string_view line) override { lines.emplace_back(line); }
};

/// A piece manager whose strand and disk pool are the simulation's one thread.
class PieceManagerFixture : public testing::Test {
protected:
    ~PieceManagerFixture() override {
        if (manager) simulation.finish(manager->cleanup());
    }
    void make(const TestTorrent& torrent, PieceManager::Mode mode = PieceManager::Mode::download) {
        manager =
            std::make_unique<PieceManager>(torrent.metaInfo, folder.path(), environment(simulation.executor()), mode);
    }
    void setUp(const TestTorrent& torrent, PieceManager::Mode mode = PieceManager::Mode::download) {
        make(torrent, mode);
        simulation.finish(manager->setup());
    }
    PieceManager::Environment environment(const asio::any_io_executor& disk) {
        return {asio::make_strand(simulation.executor()), disk, simulation, log, openFiles, calls};
    }
    /// Receives all blocks of `piece`, each changed by `damage`; the result of the last one.
    ReceiveBlockResult receive(const TestTorrent& torrent, int piece, std::uint8_t damage = 0) {
        auto result = ReceiveBlockResult::ignored;
        for (const BlockRequest& block : manager->blocksForPiece(piece)) {
            Bytes data = torrent.block(block);
            data[0] ^= damage;
            result = simulation.finish(manager->receiveBlock(piece, block.begin, data));
        }
        return result;
    }
    std::optional<int> nextPiece() { return manager->nextPiece(PieceSet::full(manager->metaInfo().pieceCount())); }

    Simulation simulation;
    TemporaryFolder folder;
    LogLines log;
    FaultyCalls calls;
    std::shared_ptr<OpenFiles> openFiles = std::make_shared<OpenFiles>();
    std::unique_ptr<PieceManager> manager;
};

}  // namespace skein
