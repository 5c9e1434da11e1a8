#include "Core/discovery/DatagramConnection.h"

#include "public/common/AsioAddress.h"
#include "public/common/BoundSocket.h"
#include "public/common/NetworkRefusal.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <utility>

namespace skein {

namespace {

using asio::ip::udp;

/// No datagram is larger.
constexpr std::size_t largestDatagram = 65'535;

class SystemConnection final : public DatagramConnection {
public:
    SystemConnection(udp::socket socket, const IPAddress& remote) : socket_(std::move(socket)), remote_(remote) {}

    asio::awaitable<void> send(Bytes datagram) override {
        const auto data = asio::buffer(datagram);
        co_await socket_.async_send(data, asio::use_awaitable);
    }

    asio::awaitable<Bytes> receive() override {
        // The buffer is made once there is something to put into it: most of the time most of them would be waiting.
        for (;;) {
            co_await socket_.async_wait(udp::socket::wait_read, asio::use_awaitable);
            Bytes datagram(largestDatagram);
            boost::system::error_code error;
            const std::size_t count = socket_.receive(asio::buffer(datagram), 0, error);
            if (error == asio::error::would_block) continue;  // its checksum was wrong
            if (error) throw boost::system::system_error(error);
            datagram.resize(count);
            datagram.shrink_to_fit();
            co_return datagram;
        }
    }

    IPAddress remoteAddress() const override { return remote_; }

private:
    udp::socket socket_;
    const IPAddress remote_;
};

}  // namespace

std::unique_ptr<DatagramConnection> SystemDatagrams::connect(const asio::any_io_executor& executor,
                                                             const IPAddress& remote, std::uint16_t port,
                                                             AddressOrigin origin) {
    if (depthOf(remote.scope()) > deepestFor(origin)) throw boost::system::system_error(NetworkRefusal::notPublic);
    const udp::endpoint endpoint(toAsio(remote), port);
    udp::socket socket(executor);
    openBound(socket, endpoint, binding_);
    socket.connect(endpoint);
    socket.non_blocking(true);
    return std::make_unique<SystemConnection>(std::move(socket), remote);
}

}  // namespace skein
