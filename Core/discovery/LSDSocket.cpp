#include "Core/discovery/LSDSocket.h"

#include "Core/discovery/LSDMessage.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

namespace skein {

namespace {

using asio::ip::udp;

in_addr addressOf(const std::string& text) {
    in_addr address{};  // 0.0.0.0 when the text is none: the system then chooses
    inet_pton(AF_INET, text.c_str(), &address);
    return address;
}

udp::endpoint group() { return {asio::ip::make_address_v4(LSDMessage::multicastHost), LSDMessage::multicastPort}; }

std::string listOf(const std::vector<IPv4Interface>& interfaces) {
    std::string list;
    for (const IPv4Interface& interface : interfaces)
        list.append(list.empty() ? "" : ", ").append(interface.name).append("=").append(interface.address);
    return list;
}

}  // namespace

LSDSocket::LSDSocket(const Strand& strand, const LocalBinding& binding, FileLogger& log)
    : binding_(binding), log_(log), socket_(strand) {}

bool LSDSocket::open() {
    boost::system::error_code error;
    socket_.open(udp::v4(), error);
    if (!error) socket_.non_blocking(true, error);
    if (error) log_.warning("[LSD] socket failed errno=", error.message());
    if (!error && configureSocket()) return true;
    close();
    return false;
}

void LSDSocket::close() {
    boost::system::error_code ignored;
    socket_.close(ignored);
}

void LSDSocket::loopBack() {
    const unsigned char loop = 1;
    setOption(IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop, "set multicast loop");
}

bool LSDSocket::configureSocket() {
    const int on = 1;
    const unsigned char loop = 0;
    const unsigned char ttl = 1;
    setOption(SOL_SOCKET, SO_REUSEADDR, &on, sizeof on, "set SO_REUSEADDR");
    setOption(SOL_SOCKET, SO_REUSEPORT, &on, sizeof on, "set SO_REUSEPORT");
    setOption(IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop, "set multicast loop");
    setOption(IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl, "set multicast ttl");
#ifdef IP_MULTICAST_ALL
    // Linux hands a socket also what other sockets joined on other interfaces.
    const int off = 0;
    if (binding_.isRestricted()) setOption(IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off, "set multicast all");
#endif
    boost::system::error_code error;
    socket_.bind({udp::v4(), LSDMessage::multicastPort}, error);
    if (error) {
        log_.warning("[LSD] bind failed errno=", error.message());
        return false;
    }
    interfaces_ = usableInterfaces();
    log_.info("[LSD] local multicast interfaces=", listOf(interfaces_));
    const bool isJoined = joinGroup();
    chooseOutboundInterface();
    // Whoever asked for one interface must not be announced on another; one that has a name may still come.
    return isJoined || !binding_.isRestricted() || binding_.isInterface();
}

std::vector<IPv4Interface> LSDSocket::usableInterfaces() {
    std::vector<IPv4Interface> usable;
    const std::optional<IPAddress> only = binding_.isRestricted() ? binding_.sourceFor(true) : std::nullopt;
    for (IPv4Interface& interface : localIPv4Interfaces(log_)) {
        const bool isUsable = binding_.isRestricted() ? only && interface.address == only->text()
                                                      : isUsableMulticastInterfaceAddress(interface.address);
        // A second address of an interface would be a second membership, which is refused, and a second announce.
        const bool isKnown = std::any_of(usable.begin(), usable.end(), [&](const IPv4Interface& earlier) {
            return earlier.index == interface.index;
        });
        if (isUsable && !isKnown) usable.push_back(std::move(interface));
    }
    return usable;
}

int LSDSocket::setOption(int level, int option, const void* value, std::size_t size, std::string_view what) {
    if (::setsockopt(socket_.native_handle(), level, option, value, static_cast<socklen_t>(size)) == 0) return 0;
    const int error = errno;
    log_.warning("[LSD] ", what, " failed errno=", std::strerror(error));
    return error;
}

bool LSDSocket::joinGroup() {
    bool isJoined = false;
    int error = EADDRNOTAVAIL;
    for (const IPv4Interface& interface : interfaces_) isJoined |= join(interface.address, error);
    if (interfaces_.empty() && !binding_.isRestricted()) isJoined = join("INADDR_ANY", error);
    if (!isJoined) log_.warning("[LSD] join multicast failed on all interfaces errno=", std::strerror(error));
    return isJoined;
}

bool LSDSocket::join(const std::string& address, int& error) {
    ip_mreq membership{};
    membership.imr_multiaddr = addressOf(std::string(LSDMessage::multicastHost));
    membership.imr_interface = addressOf(address);
    if (::setsockopt(socket_.native_handle(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0) {
        log_.info("[LSD] joined multicast on ", address);
        return true;
    }
    error = errno;
    log_.warning("[LSD] join multicast failed errno=", std::strerror(error));
    return false;
}

void LSDSocket::chooseOutboundInterface() {
    const auto preferred = preferredMulticastInterface(interfaces_);
    if (!preferred) return;
    const in_addr address = addressOf(preferred->address);
    if (setOption(IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof address, "set multicast interface") == 0)
        log_.info("[LSD] multicast outbound interface=", preferred->name, " index=", preferred->index);
}

int LSDSocket::selectInterface(const IPv4Interface& interface) {
    const in_addr address = addressOf(interface.address);
    return setOption(IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof address, "set announce interface " + interface.name);
}

/// An interface that the user named may have come, or got another address, since the group was joined.
void LSDSocket::followInterface() {
    if (!binding_.isInterface()) return;
    std::vector<IPv4Interface> now = usableInterfaces();
    if (now == interfaces_) return;
    interfaces_ = std::move(now);
    if (!interfaces_.empty()) joinGroup();
}

void LSDSocket::announce(std::string_view datagram, std::string_view what) {
    followInterface();
    bool isSent = false;
    int error = 0;
    for (const IPv4Interface& interface : interfaces_) {
        int failure = selectInterface(interface);
        if (failure == 0) failure = send(datagram, interface.name, what);
        isSent |= failure == 0;
        if (failure != 0) error = failure;
    }
    if (interfaces_.empty() && !binding_.isRestricted()) {
        error = send(datagram, "default", what);
        isSent = error == 0;
    }
    if (!isSent) log_.warning("[LSD] announce failed on all interfaces errno=", std::strerror(error));
}

int LSDSocket::send(std::string_view datagram, const std::string& interfaceName, std::string_view what) {
    boost::system::error_code error;
    const std::size_t count = socket_.send_to(asio::buffer(datagram), group(), 0, error);
    if (error) {
        log_.warning("[LSD] announce failed iface=", interfaceName, " errno=", error.message());
        return error.value();
    }
    log_.info("[LSD] announce sent bytes=", count, " iface=", interfaceName, what);
    return 0;
}

asio::awaitable<void> LSDSocket::waitUntilReadable() {
    co_await socket_.async_wait(udp::socket::wait_read, asio::use_awaitable);
}

bool LSDSocket::receiveAvailableDatagrams(const Receiver& receiver) {
    std::array<char, LSDMessage::maxBytes> buffer{};
    for (int i = 0; i < datagramsAtOnce; ++i) {
        udp::endpoint from;
        boost::system::error_code error;
        const std::size_t count = socket_.receive_from(asio::buffer(buffer), from, 0, error);
        if (error == asio::error::would_block) return true;
        if (error) {
            log_.warning("[LSD] recv failed errno=", error.message());
            return false;
        }
        receiver(std::string_view(buffer.data(), count), from.address().to_string());
    }
    return true;
}

}  // namespace skein
