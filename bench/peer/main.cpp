// A peer for loopback benchmarks and demonstrations that seeds over encrypted TCP, or over uTP on a bad path.

#include "Core/formats/TorrentParser.h"
#include "tests/support/MSEResponder.h"
#include "tests/support/SeedTo.h"
#include "tests/support/UTPAcceptor.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>

#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

namespace {

using namespace skein;

constexpr const char* usage =
    "usage: skein_peer FILE.torrent FILE tcp|mse|utp [LOSS REORDERED]\n"
    "Seeds FILE to one peer on 127.0.0.1, over uTP with those percentages of the datagrams lost and reordered. Prints\n"
    "its port. Ends when the peer leaves a TCP connection, or by a signal.\n";

Bytes contentOf(const char* path) {
    std::ifstream file(path, std::ios::binary);
    file.exceptions(std::ios::badbit | std::ios::failbit);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

struct Seed {
    TorrentMetaInfo metaInfo;
    Bytes content;

    std::size_t bitfieldSize() const { return (static_cast<std::size_t>(metaInfo.pieceCount()) + 7) / 8; }
    Bytes operator()(const BlockRequest& block) const {
        const auto at = content.begin() + block.pieceIndex * metaInfo.pieceLength + block.begin;
        return {at, at + block.length};
    }
};

asio::awaitable<void> seedOverTCP(ScriptedPeer& peer, const Seed& seed, bool isEncrypted) {
    co_await peer.accept();
    if (isEncrypted) {
        MSEResponder responder(peer, seed.metaInfo.infoHash);
        co_await responder.accept({});
        co_await seedTo(responder, seed.bitfieldSize(), std::cref(seed));
    } else {
        co_await seedTo(peer, seed.bitfieldSize(), std::cref(seed));
    }
}

void announce(const PeerAddress& address) {
    std::printf("%d\n", address.port);
    std::fflush(stdout);
}

void run(const Seed& seed, std::string_view kind, const UTPAcceptor::Path& path) {
    asio::io_context context(1);
    RealClock clock;
    const auto ignoreEnd = [](const std::exception_ptr&) {};
    if (kind == "utp") {
        UTPAcceptor acceptor(context.get_executor(), clock, path);
        announce(acceptor.address());
        asio::co_spawn(context, seedTo(acceptor, seed.bitfieldSize(), std::cref(seed)), ignoreEnd);
        context.run();
    } else {
        ScriptedPeer peer(context.get_executor());
        announce(peer.address());
        asio::co_spawn(context, seedOverTCP(peer, seed, kind == "mse"), ignoreEnd);
        context.run();
    }
}

}  // namespace

int main(int count, char** arguments) try {
    const std::string_view kind = count > 3 ? arguments[3] : "";
    if ((count != 4 && count != 6) || (kind != "tcp" && kind != "mse" && kind != "utp")) {
        std::fputs(usage, stderr);
        return 2;
    }
    UTPAcceptor::Path path;
    if (count == 6) {
        path.loss = std::stod(arguments[4]) / 100;
        path.reordering = std::stod(arguments[5]) / 100;
    }
    run({TorrentParser::parse(contentOf(arguments[1])), contentOf(arguments[2])}, kind, path);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "skein_peer: %s\n", error.what());
    return 1;
}
