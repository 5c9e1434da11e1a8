#include "Core/discovery/DHTSocket.h"

#include "public/common/AsioAddress.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

namespace skein {

namespace {

using asio::ip::udp;

}  // namespace

DHTSocket::DHTSocket(const asio::any_io_executor& executor, const IPAddress& address, std::uint16_t port)
    : socket_(executor), isIPv4_(address.isIPv4()) {
    const udp::endpoint endpoint(toAsio(address), port);
    socket_.open(endpoint.protocol());
    if (!isIPv4_) socket_.set_option(asio::ip::v6_only(true));
    socket_.bind(endpoint);
    socket_.non_blocking(true);
    boost::system::error_code ignored;
    socket_.set_option(udp::socket::receive_buffer_size(receiveBufferBytes), ignored);
}

asio::awaitable<void> DHTSocket::wait() { return socket_.async_wait(udp::socket::wait_read, asio::use_awaitable); }

std::optional<DHTSocket::Datagram> DHTSocket::receive() {
    udp::endpoint from;
    boost::system::error_code error;
    const std::size_t count = socket_.receive_from(asio::buffer(buffer_), from, 0, error);
    if (error == asio::error::would_block) return std::nullopt;
    if (error) throw boost::system::system_error(error);
    return Datagram{ByteView(buffer_).first(count), {fromAsio(from.address()), from.port()}};
}

bool DHTSocket::send(const DHTEndpoint& to, ByteView datagram) noexcept {
    boost::system::error_code error;
    socket_.send_to(asio::buffer(datagram.data(), datagram.size()), {toAsio(to.host), to.port}, 0, error);
    return !error;
}

void DHTSocket::close() noexcept {
    boost::system::error_code ignored;
    socket_.close(ignored);
}

}  // namespace skein
