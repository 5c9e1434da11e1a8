#include "Core/wire/NWPeerWireTransport.h"
#include "Core/wire/PeerConnection.h"
#include "Core/wire/UTPPeerWireTransport.h"
#include "tests/support/MSEResponder.h"
#include "tests/support/SeedTo.h"
#include "tests/support/UTPAcceptor.h"

#include <benchmark/benchmark.h>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <future>

namespace skein {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t totalSize = std::size_t{64} << 20U;
constexpr std::size_t blockSize = 16384;
constexpr int blocksAskedAhead = 200;

const SHA1Digest infoHash = sha1(toBytes("a torrent"));

/// The block at `begin`: no two are the same.
Bytes blockAt(std::uint32_t begin) {
    Bytes block(blockSize);
    for (std::size_t i = 0; i < blockSize; ++i) block[i] = static_cast<std::uint8_t>(i * 31 + (i >> 8U));
    writeBigEndian(block.data(), begin);
    return block;
}

/// Ends when the other side goes.
template <class Peer>
asio::awaitable<void> serve(Peer& peer) try {
    const auto blockOf = [](const BlockRequest& asked) { return blockAt(static_cast<std::uint32_t>(asked.begin)); };
    co_await seedTo(peer, 1, blockOf);
} catch (const std::exception&) {
    // The download is over.
}

asio::awaitable<void> serveTCP(ScriptedPeer& peer, bool isEncrypted) {
    co_await peer.accept();
    if (!isEncrypted) {
        co_await serve(peer);
        co_return;
    }
    MSEResponder responder(peer, infoHash);
    co_await responder.accept({});
    co_await serve(responder);
}

/// Fetches 64 MiB and checks every byte; what is wrong ends the program.
class Download {
public:
    Download(const asio::any_io_executor& executor, std::unique_ptr<PeerWireTransport> transport)
        : strand_(asio::make_strand(executor)),
          connection_({strand_, clock, log, unlimited_, unlimited_}, {"127.0.0.1", 1}, {infoHash, PeerID{}},
                      std::move(transport), PeerDirection::outgoing) {
        PeerConnection::Callbacks callbacks;
        callbacks.onPieceReceived = [this](std::uint32_t, std::uint32_t begin, ByteView block) {
            writeBigEndian(expected_.data(), begin);
            if (!std::ranges::equal(block, expected_)) std::abort();
            received_ += block.size();
            if (received_ == totalSize) return done_.set_value();
            request(1);
        };
        callbacks.onDisconnected = [](const std::string&) { std::abort(); };
        connection_.setCallbacks(std::move(callbacks));
    }
    void run(PeerConnection::EncryptionPreference encryption) {
        asio::co_spawn(strand_, begin(encryption), asio::use_future).get();
        done_.get_future().get();
        asio::co_spawn(strand_, connection_.stop(), asio::use_future).get();
    }

    inline static RealClock clock;
    inline static FileLogger log;
    inline static SystemNameResolver resolver{LocalBinding()};

private:
    asio::awaitable<void> begin(PeerConnection::EncryptionPreference encryption) {
        co_await connection_.connect(30s, encryption);
        connection_.begin();
        request(blocksAskedAhead);
    }
    void request(int count) {
        std::vector<BlockRequest> blocks;
        for (; count > 0 && requested_ < totalSize; --count, requested_ += blockSize)
            blocks.push_back({0, static_cast<int>(requested_), static_cast<int>(blockSize)});
        if (!blocks.empty()) connection_.sendRequests(blocks);
    }

    Strand strand_;
    Throttle unlimited_;
    PeerConnection connection_;
    Bytes expected_ = blockAt(0);
    std::size_t requested_ = 0;
    std::size_t received_ = 0;
    std::promise<void> done_;
};

/// Of the pool's one thread, so far.
double processorSecondsOf(asio::thread_pool& pool) {
    const auto read = [] {
        timespec spent{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &spent);
        return static_cast<double>(spent.tv_sec) + static_cast<double>(spent.tv_nsec) / 1e9;
    };
    return asio::post(pool, asio::use_future(read)).get();
}

/// The rate at which our side could receive if nothing else limited it.
void noteOurCost(benchmark::State& state, double processorSeconds) {
    const double mebibytes = static_cast<double>(state.iterations()) * static_cast<double>(totalSize >> 20U);
    state.counters["ourMiB/cpu-s"] = mebibytes / processorSeconds;
}

/// Our side and the scripted peer have a thread each.
void tcp(benchmark::State& state) {
    const bool isEncrypted = state.range(0) != 0;
    double spent = 0;
    for (auto _ : state) {
        asio::thread_pool near(1);
        asio::thread_pool far(1);
        ScriptedPeer peer(far.get_executor());
        auto served = asio::co_spawn(far, serveTCP(peer, isEncrypted), asio::use_future);
        Download download(near.get_executor(), std::make_unique<NWPeerWireTransport>(
                                                   near.get_executor(), Download::clock, Download::resolver,
                                                   peer.address(), std::chrono::seconds(5)));
        download.run(isEncrypted ? PeerConnection::EncryptionPreference::mseRC4
                                 : PeerConnection::EncryptionPreference::plaintext);
        served.get();
        spent += processorSecondsOf(near);
    }
    noteOurCost(state, spent);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * totalSize));
}
BENCHMARK(tcp)->ArgName("encrypted")->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void utp(benchmark::State& state) {
    UTPAcceptor::Path path;
    path.loss = static_cast<double>(state.range(0)) / 100;
    path.reordering = static_cast<double>(state.range(1)) / 100;
    path.delay = std::chrono::milliseconds(state.range(2));
    double spent = 0;
    for (auto _ : state) {
        asio::thread_pool near(1);
        asio::thread_pool far(1);
        UTPAcceptor peer(far.get_executor(), Download::clock, path);
        auto served = asio::co_spawn(far, serve(peer), asio::use_future);
        Download download(near.get_executor(),
                          std::make_unique<UTPPeerWireTransport>(Download::clock, Download::log, Download::resolver,
                                                                 peer.address(), std::chrono::seconds(20)));
        download.run(PeerConnection::EncryptionPreference::plaintext);
        asio::co_spawn(far, peer.stop(), asio::use_future).get();
        served.get();
        spent += processorSecondsOf(near);
    }
    noteOurCost(state, spent);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * totalSize));
}
BENCHMARK(utp)
    ->ArgNames({"loss%", "reordered%", "delayMs"})
    ->Args({0, 0, 0})
    ->Args({2, 5, 0})
    ->Args({2, 5, 5})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

}  // namespace
}  // namespace skein
