#include "Core/engine/PieceManager.h"
#include "public/common/Random.h"
#include "public/common/ThreadPools.h"

#include <benchmark/benchmark.h>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_future.hpp>

#include <cstdlib>
#include <filesystem>
#include <unistd.h>

namespace skein {
namespace {

constexpr std::int64_t totalSize = std::int64_t{1} << 30U;

enum Place : std::int64_t { sharedMemory, disk };

asio::awaitable<void> complete(PieceManager& manager, int piece) {
    const ReceiveBlockResult result = co_await manager.completePiece(piece);
    if (result != ReceiveBlockResult::completed) std::abort();
}

/// What a session does with a peer that sends as fast as it can, without the peer: every piece has the same content.
asio::awaitable<void> download(PieceManager& manager, TaskGroup& tasks, const Bytes& content) {
    const PieceSet all = PieceSet::full(manager.metaInfo().pieceCount());
    while (const std::optional<int> piece = manager.nextPiece(all)) {
        for (const BlockRequest& block : manager.blocksForPiece(*piece)) {
            const ByteView data = ByteView(content).subspan(static_cast<std::size_t>(block.begin),
                                                            static_cast<std::size_t>(block.length));
            if (manager.storeBlock(*piece, block.begin, data) == PieceManager::StoreResult::whole)
                tasks.spawn(complete(manager, *piece));
        }
        co_await manager.roomToReceive();
    }
    while (!manager.isComplete()) {
        RealClock clock;
        co_await clock.sleep(std::chrono::milliseconds(1));
    }
}

/// 1 GiB from memory into files: store, hash and write.
void receive(benchmark::State& state) {
    Bytes content(static_cast<std::size_t>(state.range(1) * 1024));
    SecureRandom().fill(content);
    const SHA1Digest hash = sha1(content);
    const auto metaInfo = std::make_shared<TorrentMetaInfo>();
    metaInfo->pieceLength = static_cast<std::int64_t>(content.size());
    metaInfo->totalSize = totalSize;
    metaInfo->files = {{"file", totalSize, 0}};
    for (std::int64_t at = 0; at < totalSize; at += metaInfo->pieceLength)
        metaInfo->pieces.insert(metaInfo->pieces.end(), hash.begin(), hash.end());
    std::string pattern = state.range(0) == disk ? "skein-bench-XXXXXX" : "/dev/shm/skein-bench-XXXXXX";
    const std::filesystem::path folder = ::mkdtemp(pattern.data());
    RealClock clock;
    FileLogger log;
    ThreadPools pools;
    for (auto _ : state) {
        TaskGroup tasks(pools.io());
        PieceManager manager(metaInfo, folder, {tasks.strand(), pools.disk(), clock, log},
                             PieceManager::Mode::download);
        asio::co_spawn(tasks.strand(), manager.setup(), asio::use_future).get();
        asio::co_spawn(tasks.strand(), download(manager, tasks, content), asio::use_future).get();
        state.PauseTiming();
        asio::co_spawn(pools.io(), tasks.stop(), asio::use_future).get();
        asio::co_spawn(tasks.strand(), manager.cleanup(), asio::use_future).get();
        std::filesystem::remove_all(folder / "file");
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * totalSize);
    std::filesystem::remove_all(folder);
}
BENCHMARK(receive)
    ->ArgNames({"disk", "KiB"})
    ->Args({sharedMemory, 256})
    ->Args({sharedMemory, 1024})
    ->Args({sharedMemory, 4096})
    ->Args({disk, 1024})
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace skein
