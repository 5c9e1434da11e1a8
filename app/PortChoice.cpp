#include "app/PortChoice.h"

#include "public/common/AsioAddress.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/system/system_error.hpp>

#include <optional>
#include <vector>

namespace skein {

namespace asio = boost::asio;

namespace {

constexpr int attempts = 20;

/// The port bound, or nothing when it is taken.
std::optional<std::uint16_t> portFreeForBoth(const asio::ip::address& address, std::uint16_t wanted) {
    asio::io_context io;
    asio::ip::tcp::acceptor tcp(io);
    asio::ip::udp::socket udp(io);
    const auto tcpProtocol = address.is_v6() ? asio::ip::tcp::v6() : asio::ip::tcp::v4();
    const auto udpProtocol = address.is_v6() ? asio::ip::udp::v6() : asio::ip::udp::v4();
    try {
        tcp.open(tcpProtocol);
        tcp.set_option(asio::ip::tcp::acceptor::reuse_address(true));
        tcp.bind({address, wanted});
        tcp.listen(1);  // a bound address may still be another's to listen on
        const std::uint16_t port = tcp.local_endpoint().port();
        udp.open(udpProtocol);
        udp.bind({address, port});
        return port;
    } catch (const boost::system::system_error&) {
        return std::nullopt;
    }
}

}  // namespace

std::uint16_t choosePort(const LocalBinding& binding, std::uint16_t wanted) {
    const std::vector<IPAddress> addresses = binding.addresses();
    const asio::ip::address address = addresses.empty() ? asio::ip::address_v4::any() : toAsio(addresses.front());
    if (const auto port = portFreeForBoth(address, wanted)) return *port;
    for (int attempt = 0; attempt < attempts; ++attempt)
        if (const auto port = portFreeForBoth(address, 0)) return *port;
    return 0;
}

}  // namespace skein
