#include "Core/wire/PeerListener.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/Simulation.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <gtest/gtest.h>

#include <vector>

namespace skein {
namespace {

using asio::ip::tcp;

class PeerListenerTest : public testing::Test {
protected:
    PeerListenerTest() {
        simulation.finish(listener.start(0));
        simulation.finish(listener.add(infoHash, [this](auto, const PeerAddress& from) { routed = from.host; }));
    }
    ~PeerListenerTest() override { simulation.finish(listener.stop()); }

    tcp::socket connectFrom(const char* host) {
        tcp::socket socket(simulation.executor(), tcp::endpoint(asio::ip::make_address(host), 0));
        socket.connect({asio::ip::make_address("127.0.0.1"), listener.port()});
        socket.non_blocking(true);
        return socket;
    }
    static bool isHungUp(tcp::socket& socket) {
        char byte = 0;
        boost::system::error_code error;
        socket.receive(asio::buffer(&byte, 1), tcp::socket::message_peek, error);
        return error && error != asio::error::would_block;
    }

    Simulation simulation;
    RecordingLogger log;
    const SHA1Digest infoHash{1};
    std::string routed;
    PeerListener listener{simulation.executor(), simulation, log, LocalBinding("127.0.0.1")};
};

TEST_F(PeerListenerTest, aHostThatSaysNothingDoesNotShutTheOthersOut) {
    std::vector<tcp::socket> silent;
    for (std::size_t i = 0; i < PeerListener::maxHalfOpenOfHost; ++i) silent.push_back(connectFrom("127.0.0.3"));
    tcp::socket oneTooMany = connectFrom("127.0.0.3");
    simulation.runUntil([&] { return isHungUp(oneTooMany); });
    for (tcp::socket& socket : silent) EXPECT_FALSE(isHungUp(socket));

    tcp::socket other = connectFrom("127.0.0.2");
    asio::write(other, asio::buffer(PeerHandshake{infoHash, peerIDOf('x'), true}.encode()));
    simulation.runUntil([&] { return routed == "127.0.0.2"; });

    simulation.advance(PeerListener::handshakeTimeout);
    simulation.runUntil([&] { return isHungUp(silent.back()); });
    tcp::socket late = connectFrom("127.0.0.3");
    asio::write(late, asio::buffer(PeerHandshake{infoHash, peerIDOf('y'), true}.encode()));
    simulation.runUntil([&] { return routed == "127.0.0.3"; });
}

}  // namespace
}  // namespace skein
