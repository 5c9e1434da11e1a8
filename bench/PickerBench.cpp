#include "Core/engine/PiecePicker.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace skein {
namespace {

Bytes randomBitfield(std::mt19937_64& random, int pieceCount, double density) {
    std::bernoulli_distribution has(density);
    PieceSet set(pieceCount);
    for (int piece = 0; piece < pieceCount; ++piece)
        if (has(random)) set.insert(piece);
    return set.toBitfield();
}

/// Peers from nearly empty to nearly full.
std::vector<PieceSet> somePeers(int pieceCount, int peerCount) {
    std::mt19937_64 random(7);
    std::vector<PieceSet> peers;
    for (int i = 0; i < peerCount; ++i) {
        const double density = (i + 0.5) / peerCount;
        peers.push_back(PieceSet::fromBitfield(randomBitfield(random, pieceCount, density), pieceCount));
    }
    return peers;
}

PiecePicker pickerFor(const std::vector<PieceSet>& peers, int pieceCount) {
    PiecePicker picker(pieceCount);
    for (const PieceSet& peer : peers) picker.countAll(peer);
    return picker;
}

/// A whole download: the peers ask in turn until none of them has a piece that is missing. One item is one choice.
void wholeDownload(benchmark::State& state) {
    const auto pieceCount = static_cast<int>(state.range(0));
    const std::vector<PieceSet> peers = somePeers(pieceCount, 50);
    std::int64_t choices = 0;
    for (auto _ : state) {
        state.PauseTiming();
        PiecePicker picker = pickerFor(peers, pieceCount);
        state.ResumeTiming();
        for (bool found = true; found;) {
            found = false;
            for (const PieceSet& peer : peers) {
                ++choices;
                const std::optional<int> piece = picker.next(peer);
                if (!piece) continue;
                picker.removeCandidate(*piece);
                found = true;
            }
        }
    }
    state.counters["choice"] =
        benchmark::Counter(static_cast<double>(choices), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(wholeDownload)->Arg(200'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

/// A peer that has only 100 pieces, in a torrent that is otherwise well spread.
void sparsePeer(benchmark::State& state) {
    const auto pieceCount = static_cast<int>(state.range(0));
    const PiecePicker picker = pickerFor(somePeers(pieceCount, 50), pieceCount);
    std::mt19937_64 random(3);
    PieceSet few(pieceCount);
    while (few.count() < state.range(1)) few.insert(static_cast<int>(random() % static_cast<unsigned>(pieceCount)));
    for (auto _ : state) benchmark::DoNotOptimize(picker.next(few));
}
BENCHMARK(sparsePeer)->Args({200'000, 100})->Args({200'000, 1000})->Args({1'000'000, 100})->Args({1'000'000, 1000});

/// The end of a download: 100 pieces are missing, and the peer has everything but those.
void peerWithNothingForUs(benchmark::State& state) {
    const auto pieceCount = static_cast<int>(state.range(0));
    PiecePicker picker = pickerFor(somePeers(pieceCount, 50), pieceCount);
    PieceSet peer = PieceSet::full(pieceCount);
    for (int piece = 0; piece < pieceCount; ++piece) {
        if (piece % (pieceCount / 100) == 0) {
            peer.erase(piece);
        } else {
            picker.removeCandidate(piece);
        }
    }
    for (auto _ : state) benchmark::DoNotOptimize(picker.next(peer));
}
BENCHMARK(peerWithNothingForUs)->Arg(200'000)->Arg(1'000'000);

/// One more bitfield is counted; density in percent.
void countBitfield(benchmark::State& state) {
    const auto pieceCount = static_cast<int>(state.range(0));
    PiecePicker picker = pickerFor(somePeers(pieceCount, 50), pieceCount);
    std::mt19937_64 random(5);
    std::vector<Bytes> bitfields;
    for (int i = 0; i < 8; ++i)
        bitfields.push_back(randomBitfield(random, pieceCount, static_cast<double>(state.range(1)) / 100));
    std::size_t next = 0;
    for (auto _ : state) picker.countAll(PieceSet::fromBitfield(bitfields[next++ % 8], pieceCount));
}
BENCHMARK(countBitfield)
    ->Args({200'000, 100})
    ->Args({200'000, 50})
    ->Args({1'000'000, 100})
    ->Args({1'000'000, 50})
    ->Unit(benchmark::kMicrosecond);

void countHave(benchmark::State& state) {
    PiecePicker picker = pickerFor(somePeers(200'000, 50), 200'000);
    std::mt19937_64 random(5);
    for (auto _ : state) picker.count(static_cast<int>(random() % 200'000));
}
BENCHMARK(countHave);

}  // namespace
}  // namespace skein
