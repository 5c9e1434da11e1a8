#include "Core/formats/BEncodeError.h"
#include "Core/formats/BEncoder.h"
#include "Core/formats/TorrentParser.h"
#include "Core/formats/TorrentWriter.h"

#include <benchmark/benchmark.h>

#include <string>

namespace skein {
namespace {

/// One file of as many 16 KiB pieces as asked.
Bytes torrentOfPieces(std::int64_t count) {
    const std::int64_t size = count * 16'384;
    return TorrentWriter::write({.name = "one.bin",
                                 .pieceLength = 16'384,
                                 .pieces = Bytes(static_cast<std::size_t>(count) * sha1Length),
                                 .totalSize = size,
                                 .files = {{"one.bin", size, 0}}});
}

Bytes torrentOfFiles(std::int64_t count) {
    TorrentMetaInfo torrent{.name = "many files", .pieceLength = 1 << 20, .pieces = Bytes(sha1Length * 1'000)};
    for (std::int64_t i = 0; i < count; ++i)
        torrent.files.edit().push_back(
            {"many files/folder " + std::to_string(i / 100) + "/file " + std::to_string(i), 5'000, 0});
    return TorrentWriter::write(torrent);
}

void parse(benchmark::State& state, const Bytes& file) {
    for (auto _ : state) benchmark::DoNotOptimize(TorrentParser::parse(file));
    state.SetBytesProcessed(static_cast<std::int64_t>(file.size()) * state.iterations());
}

/// Input made to hurt: a decoder that looks at a byte twice shows it here.
void decodeHostile(benchmark::State& state, const std::string& start, const std::string& repeated) {
    std::string data = start;
    while (data.size() < 1'000'000) data += repeated;
    for (auto _ : state) {
        try {
            benchmark::DoNotOptimize(BEncoder::decode(asBytes(data)));
        } catch (const BEncodeException& failure) {
            benchmark::DoNotOptimize(failure.error);
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(data.size()) * state.iterations());
}

BENCHMARK_CAPTURE(parse, millionPieces, torrentOfPieces(1'000'000))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parse, twoHundredThousandFiles, torrentOfFiles(200'000))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeHostile, digitsWithoutColon, "l", "1")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeHostile, integersWithoutEnd, "l", "i1")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeHostile, emptyLists, "l", "le")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeHostile, oneKeyAgainAndAgain, "d", "1:a0:")->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace skein
