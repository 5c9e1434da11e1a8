#include "Core/discovery/TrackerReply.h"
#include "Core/formats/BEncoder.h"
#include "public/common/HTTPClient.h"
#include "public/common/ThreadPools.h"
#include "tests/support/ScriptedHTTPServer.h"

#include <benchmark/benchmark.h>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

namespace skein {
namespace {

/// A reply of as many peers as are taken, compact.
void parseCompactReply(benchmark::State& state) {
    Bytes peers(6 * TrackerReply::maxPeers);
    for (std::size_t i = 0; i < peers.size(); ++i) peers[i] = static_cast<std::uint8_t>(i * 37);
    const Bytes body = BEncoder::encode(BEncodeValue::Dictionary{{"interval", 1800}, {"peers", peers}});
    for (auto _ : state) benchmark::DoNotOptimize(TrackerReply::parseHTTPAnnounceReply(body));
}
BENCHMARK(parseCompactReply)->Unit(benchmark::kMicrosecond);

/// The same as dictionaries.
void parseListedReply(benchmark::State& state) {
    BEncodeValue::List peers;
    for (std::size_t i = 0; i < TrackerReply::maxPeers; ++i)
        peers.emplace_back(BEncodeValue::Dictionary{
            {"ip", "11.22." + std::to_string(i / 256) + "." + std::to_string(i % 256)}, {"port", 6881}});
    const Bytes body = BEncoder::encode(BEncodeValue::Dictionary{{"interval", 1800}, {"peers", peers}});
    for (auto _ : state) benchmark::DoNotOptimize(TrackerReply::parseHTTPAnnounceReply(body));
}
BENCHMARK(parseListedReply)->Unit(benchmark::kMicrosecond);

void classifyAddresses(benchmark::State& state) {
    const PeerAddress four{"8.8.8.8", 6881};
    const PeerAddress six{"2a00:1450:4001:82a::200e", 6881};
    for (auto _ : state) {
        benchmark::DoNotOptimize(four.isUsablePublicBTPeer());
        benchmark::DoNotOptimize(six.isUsablePublicBTPeer());
    }
    state.SetItemsProcessed(2 * state.iterations());
}
BENCHMARK(classifyAddresses);

/// One small request after the other over a connection that is kept, to a server on loopback.
void fetchOverLoopback(benchmark::State& state) {
    ThreadPools pools;
    ScriptedHTTPServer server(pools.io(), [](const SeenHTTPRequest&) { return HTTPReply::text("hello"); });
    HTTPClient client;
    HTTPRequest request;
    request.url = server.url();
    for (auto _ : state) asio::co_spawn(pools.io(), client.fetch(request), asio::use_future).get();
    client.stop();
    asio::co_spawn(pools.io(), server.stop(), asio::use_future).get();
}
BENCHMARK(fetchOverLoopback)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
}  // namespace skein
