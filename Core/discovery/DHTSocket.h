#pragma once

#include "Core/discovery/DHTEndpoint.h"
#include "public/common/Bytes.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/udp.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace skein {

namespace asio = boost::asio;

/// One UDP socket that talks with everybody, over IPv4 or over IPv6. Thread: its executor.
class DHTSocket {
public:
    /// What a whole datagram of the DHT needs with room to spare; the rest of a longer one is cut off, and with it
    /// the message is none.
    static constexpr std::size_t largestDatagram = 4096;
    /// Enough for some milliseconds of answers to many look-ups at once; the system may grant less.
    static constexpr int receiveBufferBytes = 1 << 20;

    struct Datagram {
        ByteView bytes;  ///< valid until the next `receive`
        DHTEndpoint from;
    };

    /// Port 0 lets the system choose. Throws boost::system::system_error.
    DHTSocket(const asio::any_io_executor& executor, const IPAddress& address, std::uint16_t port);

    bool isIPv4() const noexcept { return isIPv4_; }
    std::uint16_t port() const { return socket_.local_endpoint().port(); }
    bool isOpen() const { return socket_.is_open(); }
    int handle() { return socket_.native_handle(); }
    /// Returns when there is something to receive, or a failure of the socket to be told by `receive`.
    asio::awaitable<void> wait();
    /// The next datagram; nothing when none is there. Throws boost::system::system_error.
    std::optional<Datagram> receive();
    /// At once or not at all: a full send buffer loses the datagram as the network might. False when it did not leave.
    bool send(const DHTEndpoint& to, ByteView datagram) noexcept;
    /// Everything that waits ends with operation_aborted.
    void close() noexcept;

private:
    asio::ip::udp::socket socket_;
    const bool isIPv4_;
    std::array<std::uint8_t, largestDatagram> buffer_{};
};

}  // namespace skein
