#include "Core/engine/PieceVerifier.h"
#include "public/common/Random.h"
#include "public/common/ThreadPools.h"

#include <benchmark/benchmark.h>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_future.hpp>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <tuple>
#include <unistd.h>

namespace skein {
namespace {

constexpr std::int64_t mebibyte = std::int64_t{1} << 20U;
constexpr std::int64_t totalSize = 2048 * mebibyte;

enum Place : std::int64_t { sharedMemory, disk };

TorrentStorage::Environment environmentIn(const std::filesystem::path& folder) {
    return {folder, StorageMode::download, OpenFiles::shared(), FileCalls::real()};
}

/// 2 GiB of content in `fileCount` files below a folder of its own, made once and deleted at the end.
class Sample {
public:
    Sample(Place place, std::int64_t pieceLength, int fileCount) {
        std::string pattern = place == disk ? "skein-bench-XXXXXX" : "/dev/shm/skein-bench-XXXXXX";
        folder = ::mkdtemp(pattern.data());
        metaInfo.pieceLength = pieceLength;
        metaInfo.totalSize = totalSize;
        const std::int64_t fileSize = totalSize / fileCount;
        for (int i = 0; i < fileCount; ++i)
            metaInfo.files.edit().push_back({"t/" + std::to_string(i), fileSize, i * fileSize});
        storage = std::make_unique<TorrentStorage>(TorrentLayout(unhashed()), environmentIn(folder));
        storage->survey(0, metaInfo.files.size());
        const PieceSet none(metaInfo.pieceCount());
        storage->take({none, pieceLength, [](int) { return true; }});
        storage->makeMissing(0, metaInfo.files.size());
        Bytes piece(static_cast<std::size_t>(pieceLength));
        SecureRandom().fill(piece);
        metaInfo.pieces.clear();
        for (std::int64_t at = 0; at < totalSize; at += pieceLength) {
            writeBigEndian(piece.data(), static_cast<std::uint64_t>(at));
            const iovec from{piece.data(), piece.size()};
            storage->write(at, {&from, 1});
            const SHA1Digest hash = sha1(piece);
            metaInfo.pieces.insert(metaInfo.pieces.end(), hash.begin(), hash.end());
        }
    }
    Sample(const Sample&) = delete;
    Sample& operator=(const Sample&) = delete;
    ~Sample() { std::filesystem::remove_all(folder); }

    static Sample& of(Place place, std::int64_t pieceLength, int fileCount) {
        static std::unique_ptr<Sample> sample;  // one at a time: they lie in memory
        static std::tuple<Place, std::int64_t, int> shape;
        if (!sample || shape != std::tuple(place, pieceLength, fileCount)) {
            sample.reset();
            sample = std::make_unique<Sample>(place, pieceLength, fileCount);
            shape = {place, pieceLength, fileCount};
        }
        return *sample;
    }

    std::filesystem::path folder;
    TorrentMetaInfo metaInfo;
    std::unique_ptr<TorrentStorage> storage;

private:
    /// As many hashes as there will be, for the layout's check.
    const TorrentMetaInfo& unhashed() {
        metaInfo.pieces.resize(static_cast<std::size_t>(totalSize / metaInfo.pieceLength) * sha1Length);
        return metaInfo;
    }
};

/// The measure: SHA-1 of a buffer in the cache, one core.
void hashOnly(benchmark::State& state) {
    const Bytes buffer(256 << 10U);
    SHA1Hasher hasher;
    for (auto _ : state) hasher.update(buffer);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(buffer.size()));
}
BENCHMARK(hashOnly);

void verify(benchmark::State& state) {
    Sample& sample =
        Sample::of(static_cast<Place>(state.range(0)), state.range(2) * 1024, static_cast<int>(state.range(3)));
    ThreadPools pools;
    for (auto _ : state) {
        PieceVerifier verifier(sample.metaInfo, *sample.storage, pools.disk(), static_cast<unsigned>(state.range(1)));
        int good = 0;
        PieceVerifier::OnChecked count = [&](std::span<const PieceVerifier::Checked> checked) {
            for (const auto& [piece, condition] : checked) good += condition == PieceCondition::good ? 1 : 0;
        };
        asio::co_spawn(asio::make_strand(pools.io()), verifier.run(std::move(count)), asio::use_future).get();
        if (good != sample.metaInfo.pieceCount()) state.SkipWithError("a piece was not good");
    }
    state.SetBytesProcessed(state.iterations() * totalSize);
}
BENCHMARK(verify)
    ->ArgNames({"disk", "workers", "KiB", "files"})
    ->Args({sharedMemory, 1, 1024, 1})
    ->Args({sharedMemory, 2, 1024, 1})
    ->Args({sharedMemory, 2, 16, 1})
    ->Args({sharedMemory, 2, 16384, 1})
    ->Args({sharedMemory, 2, 1024, 16384})
    ->Args({disk, 1, 1024, 1})
    ->Args({disk, 2, 1024, 1})
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// A torrent of 100 GiB that was just begun: one file, all hole.
void verifyFresh(benchmark::State& state) {
    std::string pattern = "skein-bench-XXXXXX";
    const std::filesystem::path folder = ::mkdtemp(pattern.data());
    ThreadPools pools;
    {
        TorrentMetaInfo metaInfo;
        metaInfo.pieceLength = state.range(0) * 1024;
        metaInfo.totalSize = 100 * 1024 * mebibyte;
        const std::int64_t fileSize = metaInfo.totalSize / state.range(1);
        for (int i = 0; i < state.range(1); ++i)
            metaInfo.files.edit().push_back({"t/" + std::to_string(i), fileSize, i * fileSize});
        metaInfo.totalSize = fileSize * state.range(1);
        const std::int64_t pieces = (metaInfo.totalSize + metaInfo.pieceLength - 1) / metaInfo.pieceLength;
        metaInfo.pieces.resize(static_cast<std::size_t>(pieces) * sha1Length);
        for (auto _ : state) {
            state.PauseTiming();
            std::filesystem::remove_all(folder / "t");
            state.ResumeTiming();
            TorrentStorage storage(TorrentLayout(metaInfo), environmentIn(folder));
            storage.survey(0, metaInfo.files.size());
            PieceVerifier verifier(metaInfo, storage, pools.disk(), 2);
            int missing = 0;
            PieceVerifier::OnChecked count = [&](std::span<const PieceVerifier::Checked> checked) {
                for (const auto& [piece, condition] : checked) missing += condition == PieceCondition::missing ? 1 : 0;
            };
            asio::co_spawn(asio::make_strand(pools.io()), verifier.run(std::move(count)), asio::use_future).get();
            if (missing != metaInfo.pieceCount()) state.SkipWithError("a piece was not missing");
            const PieceSet none(metaInfo.pieceCount());
            storage.take({none, metaInfo.pieceLength, {}});
            storage.makeMissing(0, metaInfo.files.size());
        }
    }
    std::filesystem::remove_all(folder);
}
BENCHMARK(verifyFresh)
    ->ArgNames({"KiB", "files"})
    ->Args({1024, 1})
    ->Args({16384, 1})
    ->Args({256, 1})
    ->Args({1024, 20000})
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace skein
