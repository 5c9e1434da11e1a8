#pragma once

#include "Core/engine/PieceManager.h"
#include "tests/Core/engine/FaultyCalls.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace skein {

/// A piece manager whose strand and disk pool are the simulation's one thread.
class PieceManagerFixture : public testing::Test {
protected:
    ~PieceManagerFixture() override {
        if (manager) simulation.finish(manager->cleanup());
    }
    void make(PieceManager::Mode mode = PieceManager::Mode::download,
              const std::optional<asio::any_io_executor>& disk = std::nullopt) {
        const asio::any_io_executor io = simulation.executor();
        const PieceManager::Environment all{
            asio::make_strand(io), disk.value_or(io), simulation, log, openFiles, calls, claim};
        manager = std::make_unique<PieceManager>(torrent.metaInfo, folder.path(), all, mode);
    }
    void setUp(const TestTorrent& given, PieceManager::Mode mode = PieceManager::Mode::download) {
        torrent = given;
        make(mode);
        simulation.finish(manager->setup());
    }
    /// Receives all blocks of `piece`, each changed by `damage`; the result of the last one.
    ReceiveBlockResult receive(int piece, std::uint8_t damage = 0) {
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
    TestTorrent torrent{1, {}};
    TemporaryFolder folder;
    RecordingLogger log{LogLevel::info};
    FaultyCalls calls;
    ClaimTerms claim;
    std::shared_ptr<OpenFiles> openFiles = std::make_shared<OpenFiles>();
    std::unique_ptr<PieceManager> manager;
};

}  // namespace skein
