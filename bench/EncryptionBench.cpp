#include "Core/wire/MSEInitiator.h"
#include "public/common/Random.h"

#include <benchmark/benchmark.h>

namespace skein {
namespace {

void rc4(benchmark::State& state) {
    RC4 cipher(toBytes("a key"), 1024);
    Bytes buffer(static_cast<std::size_t>(state.range(0)) * 1024);
    for (auto _ : state) {
        cipher.apply(buffer);
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * buffer.size()));
}
BENCHMARK(rc4)->ArgName("KiB")->Arg(16)->Arg(512);

/// All that the initiating side computes in one handshake, from its key to the encrypted request.
void handshake(benchmark::State& state) {
    SecureRandom random;
    const SHA1Digest infoHash = sha1(toBytes("a torrent"));
    const Bytes peerKey = MSEInitiator(infoHash, MSEPrime::deployed, random).opening();
    for (auto _ : state) {
        MSEInitiator initiator(infoHash, MSEPrime::deployed, random);
        benchmark::DoNotOptimize(initiator.take(peerKey));
    }
}
BENCHMARK(handshake)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace skein
