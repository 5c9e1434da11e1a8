#pragma once

#include "public/common/Bytes.h"
#include "public/common/IPAddress.h"
#include "public/common/TaskGroup.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/udp.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// A UDP socket on loopback that answers each datagram as the test says.
///
/// Owner: the test, which awaits `stop()`. Thread: all runs on a strand over the given executor, which on a Simulation
/// is the test's own thread.
class ScriptedUDPServer {
public:
    struct Seen {
        Bytes datagram;
        IPAddress remote;
        std::uint16_t remotePort = 0;
    };
    /// The datagrams to send back, in order; none for silence.
    using Script = std::function<std::vector<Bytes>(const Seen&)>;

    ScriptedUDPServer(const asio::any_io_executor& pool, Script script, std::string_view address = "127.0.0.1",
                      std::uint16_t port = 0);
    asio::awaitable<void> stop();

    std::uint16_t port() const { return port_; }
    /// "udp://127.0.0.1:PORT" and `path`.
    std::string url(std::string_view path = "/announce") const;
    const std::vector<Seen>& seen() const { return seen_; }

private:
    asio::awaitable<void> serve();

    Script script_;
    std::string host_;
    std::uint16_t port_ = 0;
    std::vector<Seen> seen_;
    TaskGroup tasks_;
    asio::ip::udp::socket socket_;
};

}  // namespace skein
